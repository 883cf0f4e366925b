#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <vector>

#include "support/EnginePage.h"
#include "support/Files.h"
#include "support/LoopbackServer.h"
#include "support/Processes.h"
#include "support/TemporaryDirectory.h"
#include "support/Units.h"
#include "support/Waiting.h"
#include "worker/webkit/Procfs.h"

namespace brindle::test {
namespace {

/// The process that runs the page, once it is the only one: an earlier one may still be ending.
pid_t webProcess(EnginePage& page) {
    std::vector<pid_t> processes;
    page.runUntil(
        [&] {
            processes = processesNamed(::getpid(), web_process_name);
            return processes.size() == 1;
        },
        "one web process");
    return processes.front();
}

TEST(WebProcess, ItsEndIsReported) {
    EnginePage page;
    page.load("<body>here</body>");
    ::kill(webProcess(page), SIGKILL);
    page.runUntil([&] { return !page.events().processEnds.empty(); }, "the end is reported");
    EXPECT_EQ(page.events().processEnds,
              std::vector<std::string>{"The page's process crashed or was killed."});
}

TEST(WebProcess, APageLoadsAgainInANewOne) {
    EnginePage page;
    page.load("<body>here</body>");
    const pid_t first = webProcess(page);
    ::kill(first, SIGABRT);
    page.runUntil([&] { return !page.events().processEnds.empty(); }, "the end is reported");
    page.load("<body>again</body>");
    EXPECT_EQ(page.evaluate("document.body.textContent"), "again");
    EXPECT_NE(webProcess(page), first);
}

TEST(WebProcess, OneThatHangsCanBeEnded) {
    EnginePage page;
    page.load("<body>here</body>");
    page.page().evaluate("for (;;);", [](auto) {});
    page.page().endProcess();
    page.runUntil([&] { return !page.events().processEnds.empty(); }, "the end is reported");
    EXPECT_EQ(page.events().processEnds,
              std::vector<std::string>{"The page's process was ended because it had stopped answering."});
    page.load("<body>again</body>");
    EXPECT_EQ(page.evaluate("document.body.textContent"), "again");
}

TEST(WebProcess, APageThatClosesItselfIsReportedAndCanBeLoadedAgain) {
    EnginePage page;
    page.load("<body>here</body>");
    page.page().evaluate("window.close()", [](auto) {});
    page.runUntil([&] { return !page.events().processEnds.empty(); }, "the end is reported");
    EXPECT_EQ(page.events().processEnds, std::vector<std::string>{"The page closed itself."});
    page.load("<body>again</body>");
    EXPECT_EQ(page.evaluate("document.body.textContent"), "again");
}

TEST(WebProcess, OneThatTakesTooMuchMemoryIsEnded) {
    auto options = webWorkerHostOptions();
    options.pageMemoryLimit_mebibytes = 300;
    EnginePage page(std::make_shared<TemporaryDirectory>(), options);
    page.load("<body>here</body>");
    page.page().evaluate(
        "window.kept = []; for (let n = 0; n < 400; ++n) { kept.push(new Uint8Array(1024 * 1024).fill(n % 255 + 1)); }",
        [](auto) {});
    page.runUntil([&] { return !page.events().processEnds.empty(); }, "the end is reported",
                  2 * must_happen_deadline);
    EXPECT_EQ(page.events().processEnds,
              std::vector<std::string>{"The page's process used too much memory and was ended."});
}

TEST(WebProcess, OneThatNeverPausesIsEndedForItsMemoryToo) {
    auto options = webWorkerHostOptions();
    options.pageMemoryLimit_mebibytes = 300;
    EnginePage page(std::make_shared<TemporaryDirectory>(), options);
    page.load("<body>here</body>");
    // It holds what it has taken, so that a machine of any size survives the wait for its end.
    page.page().evaluate(
        "window.kept = []; for (let n = 0;; n = (n + 1) % 400) { kept[n] ||= new Uint8Array(1024 * 1024).fill(n % 255 + 1); }",
        [](auto) {});
    page.runUntil([&] { return !page.events().processEnds.empty(); }, "the end is reported",
                  2 * must_happen_deadline);
    EXPECT_EQ(page.events().processEnds,
              std::vector<std::string>{"The page's process used too much memory and was ended."});
    page.load("<body>again</body>");
    EXPECT_EQ(page.evaluate("document.body.textContent"), "again");
    EXPECT_THAT(page.events().processEnds, testing::IsEmpty());
}

/// Documents of one site that lead to each other for ever, each with 20 MiB of state in each of two entries
/// of the page's history.
LoopbackServer::Response endlessHistory(const LoopbackServer::Request& /*request*/) {
    return {.body = R"html(<body><script>
        for (const n of [0, 1]) { history.pushState(n + "x".repeat(20 * 1024 * 1024), ""); }
        setTimeout(() => { location.href = "/" + Math.random(); }, 10);
    </script></body>)html"};
}

TEST(WebProcess, OneWhoseHistoryMakesTheWorkerGrowIsEndedAndNothingOfItIsKept) {
    auto options = webWorkerHostOptions();
    options.workerGrowthLimit_mebibytes = 300;
    const LoopbackServer server(endlessHistory);
    EnginePage page(std::make_shared<TemporaryDirectory>(), options);
    page.load("<body>here</body>");
    const auto before = ownBytes(::getpid());
    for (int round = 0; round < 3; ++round) {
        page.forgetEvents();
        page.page().loadAddress(server.url(), must_happen_deadline);
        page.runUntil([&] { return !page.events().processEnds.empty(); }, "the end is reported",
                      2 * must_happen_deadline);
        EXPECT_EQ(page.events().processEnds,
                  std::vector<std::string>{
                      "The page made the worker use too much memory, so its process was ended."});
        page.load("<body>again</body>");
        EXPECT_EQ(page.evaluate("document.body.textContent"), "again");
        page.runUntil([&] { return ownBytes(::getpid()) < before + 100 * mebibyte; },
                      "the memory is given back");
    }
}

TEST(WebProcess, IsSandboxed) {
    EnginePage page;
    page.load("<body>here</body>");
    const auto namespaceOf = [](const std::string& process, const std::string& kind) {
        return std::filesystem::read_symlink("/proc/" + process + "/ns/" + kind).string();
    };
    const std::string process = std::to_string(webProcess(page));
    for (const char* kind : {"mnt", "pid"})
        EXPECT_NE(namespaceOf(process, kind), namespaceOf("self", kind)) << kind;
}

}  // namespace
}  // namespace brindle::test

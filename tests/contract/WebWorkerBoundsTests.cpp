#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>

#include "support/DrivenPage.h"
#include "support/Processes.h"
#include "support/Sanitizers.h"
#include "support/Units.h"
#include "support/Waiting.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

namespace brindle::test {
namespace {

constexpr std::size_t gibibyte = 1024 * mebibyte;

/// Documents of the page's site that lead to each other for ever, each with 30 MiB of state in each of two
/// entries of the page's history.
LoopbackServer::Response endlessHistory(const LoopbackServer::Request& /*request*/) {
    return {.body = R"html(<body><script>
        for (const n of [0, 1]) { history.pushState(n + "x".repeat(30 * 1024 * 1024), ""); }
        setTimeout(() => { location.href = "/history" + Math.random(); }, 10);
    </script></body>)html"};
}

/// What pages cost that take all they can get. Each takes gigabytes, so none runs beside another test.
class WebWorkerBounds : public WebWorkerTest {
  protected:
    void SetUp() override {
        WebWorkerTest::SetUp();
        if (sanitizerOfExecutables() == Sanitizer::address) GTEST_SKIP() << memory_is_kept;
        if (IsSkipped()) return;
        page_.emplace("client.chats(['Team Room', 'Family'])", endlessHistory);
        worker_.emplace(WebWorkerOptions().withUrl(page_->url()));
        worker_->watchUntilOpen("Team Room");
    }

    DrivenPage& page() { return *page_; }
    WebWorkerProcess& worker() { return *worker_; }

  private:
    std::optional<DrivenPage> page_;
    std::optional<WebWorkerProcess> worker_;
};

TEST_F(WebWorkerBounds, AnswersOfNineHundredMebibytesLeaveTheWorkerBelowFourHundred) {
    const auto answer = [&](const std::string& script, const std::string& detail) {
        const auto before = worker().journal().size();
        page().run("JSON.stringify = " + script);
        worker().waitForDetail(detail, before);
        EXPECT_LT(peakBytesOf(worker().pid()), 400 * mebibyte) << script;
    };
    page().run("window.huge = 'x'.repeat(900 * 1024 * 1024); 0");
    answer("() => window.huge", "The page's answer is too long.");
    answer("() => { throw window.huge; }", "The page threw a text that is too long.");
    page().run("window.huge = new Uint8Array(900 * 1024 * 1024); 0");
    answer("() => window.huge", "Chat 'Team Room' is not visible yet in WhatsApp Web.");
}

TEST_F(WebWorkerBounds, APageThatTakesHalfAGibibyteEveryTenthOfASecondIsEndedBelowFour) {
    const pid_t greedy = worker().waitForWebProcess();
    const auto before = worker().journal().size();
    page().post(
        "window.kept = []; setInterval(() => kept.push(new Uint8Array(500 * 1024 * 1024).fill(1)), 100)");
    std::size_t peak = 0;
    worker().waitUntil(
        [&] {
            peak = std::max(peak, peakBytesOf(greedy));
            return !processIsRunning(greedy);
        },
        "the end of the page's process");
    EXPECT_LT(peak, 4 * gibibyte);
    worker().waitForDetail("The page's process used too much memory and was ended.", before);
    worker().waitForWebProcess(greedy);
}

TEST_F(WebWorkerBounds, AHistoryOfGibibytesIsForgottenWithThePagesProcess) {
    // The second time shows that nothing has been kept of the first.
    for (int time = 0; time < 2; ++time) {
        const pid_t process = worker().waitForWebProcess();
        const auto before = worker().journal().size();
        page().post("location.href = '/history'");
        const auto ended = worker().waitForDetail(
            "Managed WhatsApp worker navigation failed: The page made the worker use too much memory, so its "
            "process was ended.",
            before);
        EXPECT_EQ(worker().journal().statuses()[ended]["state"], "error");
        EXPECT_LT(peakBytesOf(worker().pid()), gibibyte);
        worker().waitForWebProcess(process);
        worker().waitForDetail("Watching chat 'Team Room'", ended);
    }
}

}  // namespace
}  // namespace brindle::test

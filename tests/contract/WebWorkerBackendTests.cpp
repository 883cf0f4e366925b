#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/BackendProcess.h"
#include "support/DrivenPage.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/TestDisplay.h"
#include "support/TextForms.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

/// Options of a backend that runs the built-in worker on this page.
BackendOptions withBuiltInWorker(const std::string& url) {
    auto options = WebWorkerOptions().withUrl(url).on(TestDisplay::shared()).process;
    auto& environment = options.environment;
    environment.erase("BRINDLE_MANAGED_BRIDGE_WORKER_ROLE");
    environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = options.dataDirectory->path();
    for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"}) {
        environment[name] = options.dataDirectory->path() / "home" / name;
    }
    environment["BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER"] = "1";
    environment["BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER"] = "1";
    return options;
}

/// A backend whose built-in worker shows a page of the test.
class WebWorkerRoad : public WebWorkerTest {
  protected:
    void SetUp() override {
        WebWorkerTest::SetUp();
        if (IsSkipped()) return;
        page_.emplace("client.chats(['Family', 'Team Room'])");
        backend_.emplace(withBuiltInWorker(page_->url()));
    }
    void TearDown() override {
        if (!backend_) return;
        const auto left = processTree(backend_->pid());
        if (backend_->isRunning()) backend_->closeInput();
        EXPECT_NO_THROW(waitForEnds(left));
        endAll(left);
    }

    DrivenPage& page() { return *page_; }
    BackendProcess& backend() { return *backend_; }

    Json waitForWorkerState(const std::string& state) {
        return backend_->waitForRuntimeStatus(
            [&](const Json& status) { return status["workerState"] == state; });
    }
    /// The backend, its worker and the engine, once the page runs.
    std::vector<pid_t> tree() {
        backend_->waitUntil([&] { return !processesNamed(backend_->pid(), web_process_name).empty(); },
                            "the page's process");
        return processTree(backend_->pid());
    }
    void listen(const std::string& id, const std::string& title) {
        backend_->connectAndListen(conversationScope(id, title));
        waitForWorkerState("watching_chat");
    }

  private:
    std::optional<DrivenPage> page_;
    std::optional<BackendProcess> backend_;
};

TEST_F(WebWorkerRoad, AMessageOfThePageBecomesAnInboundEvent) {
    listen("team-room", "Team Room");
    page().run(
        "client.receive('Team Room', { id: 'm1', sender: 'Ann Lee', text: 'Hi \\u{1F600}/\"there\"' })");
    auto event = backend().nextEnvelope()["inboundEvent"]["_0"]["event"];
    EXPECT_TRUE(isCanonicalUuid(event["messageId"].get<std::string>())) << event;
    EXPECT_TRUE(isTimestamp(event["timestampISO8601"].get<std::string>())) << event;
    event.erase("messageId");
    event.erase("timestampISO8601");
    EXPECT_EQ(event["conversationId"], "team-room");
    EXPECT_EQ(event["conversationTitle"], "Team Room");
    EXPECT_EQ(event["senderId"], "ann-lee");
    EXPECT_EQ(event["senderDisplayName"], "Ann Lee");
    EXPECT_EQ(event["text"], "Hi \U0001F600/\"there\"");
    EXPECT_EQ(event["isDirectMessage"], true);
    EXPECT_EQ(event["rawReference"], "m1");
    backend().waitForEntries("processed", 1);
    backend().waitForEntries("inbound", 0);
}

TEST_F(WebWorkerRoad, MessagesOfOneMomentReachTheParentInThePagesOrder) {
    constexpr int message_count = 20;
    listen("team-room", "Team Room");
    page().run("for (let n = 0; n < " + std::to_string(message_count) +
               "; ++n) client.receive('Team Room', { id: 'm' + n, sender: 'Ann', text: 'no ' + n })");
    for (int n = 0; n < message_count; ++n) {
        const auto event = backend().nextEnvelope()["inboundEvent"]["_0"]["event"];
        EXPECT_EQ(event["text"], "no " + std::to_string(n));
    }
}

TEST_F(WebWorkerRoad, TheRuntimeStatusShowsTheWorkers) {
    const auto status = waitForWorkerState("linked");
    EXPECT_EQ(status["workerProcessRunning"], true);
    EXPECT_EQ(status["workerDisplayName"], "WhatsApp Web");
    EXPECT_EQ(status["workerDetail"],
              "Linked to WhatsApp Web. Select a watched chat title to start live listening.");
    EXPECT_EQ(status["workerSupportsLiveCapture"], true);
    EXPECT_EQ(status["workerSupportsOutbound"], false);
    EXPECT_THAT(status["workerConfiguredExecutablePath"].get<std::string>(), HasSubstr(backendExecutable()));
}

TEST_F(WebWorkerRoad, TheParentsChangeOfScopeMovesTheWatch) {
    listen("team-room", "Team Room");
    backend().send(startListeningRequest(conversationScope("family", "Family")));
    backend().waitForRuntimeStatus([](const Json& status) {
        return status["workerDetail"].get<std::string>().find("Watching chat 'Family'") == 0;
    });
    page().run("client.receive('Family', { id: 'm1', sender: 'Bob', text: 'dinner?' })");
    const auto event = backend().nextEnvelope()["inboundEvent"]["_0"]["event"];
    EXPECT_EQ(event["conversationId"], "family");
    EXPECT_EQ(event["text"], "dinner?");
}

TEST_F(WebWorkerRoad, StopListeningEndsTheWatch) {
    listen("team-room", "Team Room");
    backend().send(stopListeningRequest());
    backend().waitForRuntimeStatus([](const Json& status) {
        return status["workerDetail"] ==
               "Linked to WhatsApp Web. Select a watched chat title to start live listening.";
    });
}

TEST_F(WebWorkerRoad, EndOfInputEndsWorkerAndEngine) {
    listen("team-room", "Team Room");
    const auto processes = tree();
    ASSERT_GE(processes.size(), 5U);
    backend().closeInput();
    EXPECT_EQ(backend().waitForExit(), exitedWith(0));
    waitForEnds(processes);
    EXPECT_FALSE(fs::exists(backend().path("runtime/worker.pid")));
    EXPECT_FALSE(fs::exists(backend().path("runtime/worker-status.json")));
}

TEST_F(WebWorkerRoad, ASignalToTheBackendEndsWorkerAndEngine) {
    listen("team-room", "Team Room");
    const auto processes = tree();
    backend().signal(SIGTERM);
    EXPECT_EQ(backend().waitForExit(), killedBy(SIGTERM));
    waitForEnds(processes);
}

TEST_F(WebWorkerRoad, WorkerAndEngineEndByThemselvesWhenTheBackendIsKilled) {
    listen("team-room", "Team Room");
    const auto processes = tree();
    backend().signal(SIGKILL);
    waitForEnds(processes);
    EXPECT_FALSE(fs::exists(backend().path("runtime/worker.pid")));
    EXPECT_FALSE(fs::exists(backend().path("runtime/worker-status.json")));
}

TEST_F(WebWorkerRoad, AKilledWorkerIsReportedAndTakesTheEngineWithIt) {
    waitForWorkerState("linked");
    auto processes = tree();
    std::erase(processes, backend().pid());
    const pid_t worker = std::stoi(readFile(backend().path("runtime/worker.pid")));
    ::kill(worker, SIGKILL);
    const auto status = waitForWorkerState("exited");
    EXPECT_EQ(status["workerProcessRunning"], false);
    waitForEnds(processes);
}

TEST_F(WebWorkerRoad, NoToolkitIsMappedInTheBackend) {
    listen("team-room", "Team Room");
    const auto maps = readFile("/proc/" + std::to_string(backend().pid()) + "/maps");
    constexpr std::array toolkits{"webkit", "javascriptcore", "libgtk",     "libgdk",  "libglib",
                                  "libgio", "libsoup",        "libwayland", "libX11.", "BrindleWebHost"};
    for (const char* library : toolkits) EXPECT_THAT(maps, Not(HasSubstr(library)));
    const pid_t worker = std::stoi(readFile(backend().path("runtime/worker.pid")));
    EXPECT_THAT(readFile("/proc/" + std::to_string(worker) + "/maps"), HasSubstr("webkit"));
}

class WebWorkerTrouble : public WebWorkerTest {};

TEST_F(WebWorkerTrouble, AMissingDisplayIsShownAsAnExitWithTheReason) {
    auto options = withBuiltInWorker("http://127.0.0.1:1/");
    options.environment.erase("DISPLAY");
    BackendProcess backend(std::move(options));
    backend.waitForStandardError("[ManagedWhatsAppWorker][stderr] ");
    const auto text = backend.waitForStandardError("needs a display");
    EXPECT_THAT(text, HasSubstr("Xvfb"));
    const auto status = backend.waitForRuntimeStatus(
        [](const Json& candidate) { return candidate["workerState"] == "exited"; });
    EXPECT_EQ(status["workerProcessRunning"], false);
    backend.greet();
    backend.send(connectRequest());
    EXPECT_TRUE(backend.nextEnvelope().contains("stateChanged"));
    backend.closeInput();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
}

}  // namespace
}  // namespace brindle::test

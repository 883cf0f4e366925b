#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "support/BackendProcess.h"
#include "support/DrivenPage.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/Waiting.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

/// Each process is stopped for a while, as a debugger, a terminal or a container that is frozen does it.
namespace brindle::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int messages_per_stop = 40;

bool isStopped(pid_t process) {
    const auto stat = contentOrNothing("/proc/" + std::to_string(process) + "/stat");
    const auto state = stat.rfind(')');
    return state != std::string::npos && stat.substr(state, 3) == ") T";
}

void stop(pid_t process) {
    ::kill(process, SIGSTOP);
    waitUntil([&] { return isStopped(process); }, "the process to stop");
}

std::string numbered(int number) {
    return std::to_string(100 + number);
}

std::vector<std::string> allNumbers(const std::string& prefix = {}) {
    std::vector<std::string> texts;
    for (int i = 0; i < messages_per_stop; ++i) texts.push_back(prefix + numbered(i));
    return texts;
}

std::vector<std::string> nextTexts(BackendProcess& backend) {
    std::vector<std::string> texts;
    for (int i = 0; i < messages_per_stop; ++i)
        texts.push_back(backend.nextEnvelope().at("inboundEvent").at("_0").at("event").at("text"));
    return texts;
}

std::vector<std::string> textsIn(const BackendProcess& backend, const std::string& directory) {
    std::vector<std::string> texts;
    for (const auto& name : visibleNamesIn(backend.path(directory)))
        texts.push_back(backend.readJson(directory + "/" + name).at("text"));
    return texts;
}

BackendOptions withNativeWorker() {
    BackendOptions options;
    options.environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
    options.environment["BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH"] = nativeWorkerExecutable();
    return options;
}

pid_t workerOf(const BackendProcess& backend) {
    return static_cast<pid_t>(std::stol(readFile(backend.waitForFile("runtime/worker.pid"))));
}

TEST(StoppedBackend, GoesOnWhereItWasAndLosesNothing) {
    BackendProcess backend;
    backend.connectAndListen();
    stop(backend.pid());
    for (int i = 0; i < messages_per_stop; ++i) {
        backend.writeInbound(numbered(i) + ".json", inboundRecord(numbered(i), numbered(i)));
        backend.send(sendMessageRequest(teamRoomMessage(numbered(i))));
    }
    backend.signal(SIGCONT);
    EXPECT_EQ(nextTexts(backend), allNumbers());
    backend.waitForEntries("processed", messages_per_stop);
    EXPECT_THAT(backend.finishAndTakeRest(), IsEmpty());
    EXPECT_EQ(textsIn(backend, "outbound"), allNumbers());
    EXPECT_EQ(backend.standardError(), "");
}

TEST(StoppedBackend, MayBeInterruptedAgainAndAgain) {
    BackendProcess backend;
    backend.connectAndListen();
    for (int i = 0; i < messages_per_stop; ++i) {
        backend.send(sendMessageRequest(teamRoomMessage(numbered(i))));
        backend.writeInbound(numbered(i) + ".json", inboundRecord(numbered(i), numbered(i)));
        for (int interruption = 0; interruption < 5; ++interruption) {
            stop(backend.pid());
            backend.signal(SIGCONT);
        }
    }
    EXPECT_EQ(nextTexts(backend), allNumbers());
    EXPECT_THAT(backend.finishAndTakeRest(), IsEmpty());
    EXPECT_EQ(textsIn(backend, "outbound"), allNumbers());
    EXPECT_EQ(backend.standardError(), "");
}

TEST(StoppedParent, IsNoReasonToEnd) {
    const auto backend = BackendProcess::startUnderIntermediateParent();
    const pid_t parent = parentOf(backend->pid());
    stop(parent);
    // The parent is looked for once a second, as often as the status is written.
    backend->waitForStatusWrites(3);
    EXPECT_TRUE(backend->isRunning());
    ::kill(parent, SIGCONT);
}

TEST(StoppedWorker, HoldsUpNothingButItsOwnMessages) {
    BackendProcess backend(withNativeWorker());
    backend.connectAndListen();
    const pid_t worker = workerOf(backend);
    stop(worker);
    for (int i = 0; i < messages_per_stop; ++i)
        backend.send(sendMessageRequest(teamRoomMessage(numbered(i))));
    backend.waitForStatusWrites(2);
    backend.send(startListeningRequest(testOnlyScope("still here")));
    EXPECT_TRUE(backend.nextEnvelope().contains("inboundEvent"));
    EXPECT_EQ(textsIn(backend, "outbound"), allNumbers());
    backend.send(startListeningRequest(conversationScope()));
    ::kill(worker, SIGCONT);
    EXPECT_EQ(nextTexts(backend), allNumbers("Echo: "));
    EXPECT_THAT(backend.finishAndTakeRest(), IsEmpty());
}

TEST(StoppedWorker, DoesNotHoldUpTheEndAndEndsWhenItGoesOn) {
    BackendProcess backend(withNativeWorker());
    backend.greet();
    const pid_t worker = workerOf(backend);
    stop(worker);
    backend.finish();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    ::kill(worker, SIGCONT);
    waitUntil([&] { return !processIsRunning(worker); }, "the end of the worker");
}

TEST(StoppedWorker, OfAKilledBackendIsEndedByTheNextStart) {
    BackendProcess killed(withNativeWorker());
    killed.greet();
    const pid_t worker = workerOf(killed);
    stop(worker);
    killed.signal(SIGKILL);
    killed.waitForExit();
    BackendProcess backend(killed.options());
    backend.greet();
    waitUntil([&] { return !processIsRunning(worker); }, "the end of the earlier worker");
    backend.waitForRuntimeStatus([](const Json& status) { return status.at("workerState") == "linked"; });
    backend.finish();
}

class WebWorkerStopped : public WebWorkerTest {
  protected:
    static constexpr const char* chats = "client.chats(['Team Room'])";

    /// A message of the page that now goes on reaches "inbound", and the page was not loaded anew.
    void expectCapture(WebWorkerProcess& worker, DrivenPage& page) {
        page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'after the stop' })");
        EXPECT_THAT(worker.waitForTexts(1), ElementsAre("after the stop"));
        EXPECT_EQ(page.loads(), 1U);
    }
    /// The worker follows what the backend wants, whatever its page does.
    void waitForOtherWork(WebWorkerProcess& worker) {
        const auto before = worker.process().standardErrorLines().size();
        writeFileAtomically(worker.path("runtime/worker-control.json"), "garbage");
        worker.waitUntil([&] { return worker.process().standardErrorLines().size() >= before + 3; },
                         "the complaints of three looks at the control record");
        worker.watch("Team Room");
    }
};

TEST_F(WebWorkerStopped, PageThatStandsStillGoesOnWhereItWas) {
    DrivenPage page(chats);
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()).withoutJournal());
    worker.watchUntilOpen("Team Room");
    const pid_t web = worker.waitForWebProcess();
    stop(web);
    waitForOtherWork(worker);
    ::kill(web, SIGCONT);
    expectCapture(worker, page);
}

TEST_F(WebWorkerStopped, NetworkThatStandsStillGoesOnWhereItWas) {
    DrivenPage page(chats);
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()).withoutJournal());
    worker.watchUntilOpen("Team Room");
    const auto network = processesNamed(worker.pid(), network_process_name);
    ASSERT_EQ(network.size(), 1U);
    stop(network.front());
    waitForOtherWork(worker);
    ::kill(network.front(), SIGCONT);
    expectCapture(worker, page);
}

TEST_F(WebWorkerStopped, WorkerThatStandsStillFindsWhatThePageHasCollected) {
    DrivenPage page(chats);
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.watchUntilOpen("Team Room");
    stop(worker.pid());
    page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'first' })");
    page.run("client.receive('Team Room', { id: 'm2', sender: 'Ann', text: 'second' })");
    EXPECT_THAT(visibleNamesIn(worker.path("inbound")), IsEmpty());
    ::kill(worker.pid(), SIGCONT);
    EXPECT_THAT(worker.waitForTexts(2), ElementsAre("first", "second"));
    EXPECT_EQ(page.loads(), 1U);
}

}  // namespace
}  // namespace brindle::test

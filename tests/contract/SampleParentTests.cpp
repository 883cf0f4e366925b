#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/TemporaryDirectory.h"
#include "support/TextForms.h"
#include "support/Waiting.h"

namespace brindle::test {

void PrintTo(const SampleParent& parent, std::ostream* stream) {
    *stream << parent.language;
}

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;

/// A sample parent with the real helper; its state lies in a directory of the test's own.
class SampleParentTest : public testing::TestWithParam<SampleParent> {
  protected:
    SampleParentTest() { options_.executable = GetParam().executable; }

    /// Starts it, a second time too.
    BackendProcess& start() {
        options_.arguments = {"--helper", helper_, "--state", state(), "team-room", "Team Room"};
        parent_.reset();
        parent_ = std::make_unique<BackendProcess>(options_);
        return *parent_;
    }
    BackendProcess& startAndListen() {
        start();
        waitUntilItListens();
        return *parent_;
    }
    /// Runs this as the worker instead of none.
    void useWorker(const std::string& program) {
        options_.environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
        options_.environment["BRINDLE_MANAGED_BRIDGE_WORKER_PATH"] = program;
    }

    fs::path state() const { return directory_.path() / "state"; }
    fs::path data(const fs::path& relative) const { return state() / "data" / relative; }
    void leaveInbound(const std::string& name, const Json& record) const {
        writeFileAtomically(data("inbound") / (name + ".json"), record.dump());
    }
    void waitForStatus(const BackendProcess::JsonPredicate& predicate, std::string_view what) const {
        parent_->waitUntil(
            [&] {
                const auto content = contentOrNothing(data("runtime/runtime-status.json"));
                return !content.empty() && predicate(Json::parse(content));
            },
            what);
    }
    /// Until the status has been renewed twice, a second each: the parent looks as often.
    void waitForALook() const {
        for (int count = 0; count < 2; ++count) {
            std::string first;
            waitForStatus(
                [&](const Json& status) {
                    const auto time = status.at("updatedAtISO8601").text();
                    if (first.empty()) first = time;
                    return time != first;
                },
                "a fresh status");
        }
    }
    void waitUntilItListens() const {
        waitForStatus(
            [](const Json& status) {
                return status.at("connectionState") == "connected" &&
                       status.value("activeScopeDescription", "") == "Conversation Team Room [team-room]";
            },
            "the parent to listen");
    }
    void waitUntilSent(const std::string& text) const {
        parent_->waitUntil(
            [&] {
                const auto names = visibleNamesIn(data("outbound"));
                return names.size() == 1 && readJsonFile(data("outbound") / names.front()).at("text") == text;
            },
            "the message to be sent");
    }

    TemporaryDirectory directory_;
    BackendOptions options_;
    std::string helper_ = backendExecutable();
    std::unique_ptr<BackendProcess> parent_;
};

std::string languageOf(const testing::TestParamInfo<SampleParent>& entry) {
    return entry.param.language;
}

INSTANTIATE_TEST_SUITE_P(Languages, SampleParentTest, testing::ValuesIn(sampleParents()), languageOf);

TEST_P(SampleParentTest, ShowsTheMessagesThatComeInInTheirOrder) {
    auto& parent = startAndListen();
    leaveInbound("1", inboundRecord("1", "On my way"));
    leaveInbound("2", inboundRecord("2", "Ten minutes"));
    EXPECT_EQ(parent.nextLine(), "Ada: On my way");
    EXPECT_EQ(parent.nextLine(), "Ada: Ten minutes");
}

TEST_P(SampleParentTest, SaysInASentenceThatItsStateHasNoPlace) {
    writeFileAtomically(state(), "in the way");
    auto& parent = start();
    EXPECT_EQ(parent.waitForExit(), exitedWith(1));
    EXPECT_THAT(parent.standardError(), testing::StartsWith("Cannot make " + state().string() + ": "));
    EXPECT_THAT(parent.standardError(), HasSubstr("; name another with --state."));
}

TEST_P(SampleParentTest, ShowsAMessageOnceThoughItComesAgain) {
    startAndListen();
    leaveInbound("1", inboundRecord("A", "first"));
    leaveInbound("2", inboundRecord("A", "first"));
    leaveInbound("3", inboundRecord("B", "second"));
    EXPECT_EQ(parent_->nextLine(), "Ada: first");
    EXPECT_EQ(parent_->nextLine(), "Ada: second");
    parent_->closeInput();
    EXPECT_EQ(parent_->waitForExit(), exitedWith(0));
    startAndListen();
    for (const std::string message : {"A", "B", "C"})
        leaveInbound("4" + message, inboundRecord(message, message));
    EXPECT_EQ(parent_->nextLine(), "Ada: C");
}

TEST_P(SampleParentTest, PartOfALineThatACrashLeftInItsJournalGoes) {
    startAndListen();
    leaveInbound("1", inboundRecord("A", "first"));
    parent_->nextLine();
    parent_->signal(SIGKILL);
    parent_->waitForExit();
    const auto journal = state() / "messages.jsonl";
    const auto whole = readFile(journal);
    // Longer than the line that follows.
    writeFileAtomically(journal, whole + R"({"text":")" + std::string(whole.size() * 2, 'x'));
    startAndListen();
    leaveInbound("2", inboundRecord("B", "second"));
    EXPECT_EQ(parent_->nextLine(), "Ada: second");
    const auto lines = linesOf(readFile(journal));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(Json::parse(lines.back()).at("messageId"), "B");
}

TEST_P(SampleParentTest, TakesATextForOneMessageAndShowsNothingThatATerminalObeys) {
    auto& parent = startAndListen();
    leaveInbound("1", inboundRecord("1", "a\u2028b\r\x1b[31m\u202Ec\u0085d\u061C 🚐 Grüße"));
    EXPECT_EQ(parent.nextLine(), "Ada: a?b??[31m?c?d? 🚐 Grüße");
}

TEST_P(SampleParentTest, SendsWhatIsTyped) {
    auto& parent = startAndListen();
    parent.send("On my way, Zoë");
    waitUntilSent("On my way, Zoë");
}

TEST_P(SampleParentTest, SendsWhatIsTypedBeforeTheHelperHasGreeted) {
    auto& parent = start();
    parent.send("At once");
    parent.closeInput();
    EXPECT_EQ(parent.waitForExit(), exitedWith(0));
    waitUntilSent("At once");
}

TEST_P(SampleParentTest, LaunchTokenIsForNobodyElseAndGoesWithTheHelper) {
    auto& parent = startAndListen();
    const auto token = state() / "launch-token";
    EXPECT_EQ(fs::status(token).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(fs::status(state()).permissions(), fs::perms::owner_all);
    EXPECT_GE(readFile(token).size(), 32U);
    EXPECT_EQ(environmentOf(waitForOnlyChild(parent.pid())).at("BRINDLE_HELPER_LAUNCH_TOKEN"),
              readFile(token));
    parent.closeInput();
    EXPECT_EQ(parent.waitForExit(), exitedWith(0));
    EXPECT_FALSE(fs::exists(token));
}

TEST_P(SampleParentTest, EndsTheHelperWithItsInputAfterSendingWhatWasTyped) {
    auto& parent = startAndListen();
    const auto helper = waitForOnlyChild(parent.pid());
    parent.send("The last one");
    parent.closeInput();
    EXPECT_EQ(parent.waitForExit(), exitedWith(0));
    EXPECT_FALSE(processIsRunning(helper));
    waitUntilSent("The last one");
}

TEST_P(SampleParentTest, EndsTheHelperInOrderOnASignal) {
    for (const int signal : {SIGTERM, SIGINT}) {
        auto& parent = startAndListen();
        const auto helper = waitForOnlyChild(parent.pid());
        parent.signal(signal);
        EXPECT_EQ(parent.waitForExit(), exitedWith(0));
        EXPECT_FALSE(processIsRunning(helper));
        EXPECT_FALSE(fs::exists(state() / "launch-token"));
        const auto status = readJsonFile(data("runtime/runtime-status.json"));
        EXPECT_EQ(status.at("workerState"), "not_configured");
        fs::remove(data("runtime/runtime-status.json"));
    }
}

TEST_P(SampleParentTest, HelperHasASessionOfItsOwn) {
    auto& parent = startAndListen();
    const auto helper = waitForOnlyChild(parent.pid());
    EXPECT_EQ(::getsid(helper), helper);
}

TEST_P(SampleParentTest, StartsTheHelperAnewWhenItDies) {
    auto& parent = startAndListen();
    const auto helper = waitForOnlyChild(parent.pid());
    leaveInbound("1", inboundRecord("1", "before"));
    EXPECT_EQ(parent.nextLine(), "Ada: before");
    ::kill(helper, SIGKILL);
    parent.waitForStandardError("it is started again in 1 s.");
    leaveInbound("2", inboundRecord("2", "meanwhile"));
    EXPECT_EQ(parent.nextLine(), "Ada: meanwhile");
    EXPECT_NE(waitForOnlyChild(parent.pid()), helper);
}

TEST_P(SampleParentTest, StartsTheHelperAnewWhenItsWorkerIsLost) {
    const auto mark = (directory_.path() / "mark").string();
    useWorker(writeScript(directory_.path() / "worker",
                          "[ -e " + mark + " ] && exec sleep 1000\n: >" + mark + "\nexit 3\n"));
    auto& parent = start();
    parent.waitForStandardError("worker: exited: Managed WhatsApp worker exited unexpectedly with status 3.");
    parent.waitForStandardError("it is started again in 1 s.");
    waitForStatus([](const Json& status) { return status.at("workerProcessRunning") == true; },
                  "the next worker");
}

TEST_P(SampleParentTest, ReadsDiagnosticsAllTheTime) {
    useWorker(writeScript(directory_.path() / "worker",
                          "yes 'A line of some length, which a worker says.' | head -n 4000 >&2\n"
                          "echo 'And the last one.' >&2\nexec sleep 1000\n"));
    auto& parent = startAndListen();
    parent.waitForStandardError("helper| [ManagedWhatsAppWorker][stderr] And the last one.");
    leaveInbound("1", inboundRecord("1", "On my way"));
    EXPECT_EQ(parent.nextLine(), "Ada: On my way");
}

TEST_P(SampleParentTest, GivesUpWhenItsTokenIsNotTaken) {
    helper_ = writeScript(directory_.path() / "helper", "exit 64\n");
    auto& parent = start();
    EXPECT_EQ(parent.waitForExit(), exitedWith(1));
    EXPECT_EQ(parent.standardError(), "The helper does not take our launch token.\n");
    EXPECT_FALSE(fs::exists(state() / "launch-token"));
}

TEST_P(SampleParentTest, EndsRatherThanGoOnWithoutListening) {
    helper_ = writeScript(directory_.path() / "helper", "echo nonsense\nexec cat >/dev/null\n");
    EXPECT_EQ(start().waitForExit(), exitedWith(1));
}

TEST_P(SampleParentTest, SaysInOneLineThatThereIsNoHelper) {
    helper_ = directory_.path() / "nowhere";
    auto& parent = start();
    EXPECT_EQ(parent.waitForExit(), exitedWith(1));
    EXPECT_EQ(parent.standardErrorLines().size(), 1U) << parent.standardError();
    EXPECT_THAT(parent.standardError(), HasSubstr("nowhere"));
    EXPECT_FALSE(fs::exists(state() / "launch-token"));
}

TEST_P(SampleParentTest, SaysThatAWorkerDoesNotSend) {
    useWorker(writeScript(directory_.path() / "worker",
                          "cat >\"$BRINDLE_MANAGED_BRIDGE_DATA_DIR/runtime/worker-status.json\" <<END\n"
                          R"({"state":"linked","lastHeartbeatISO8601":"2026-01-05T09:30:00Z",)"
                          R"("supportsLiveCapture":true,"supportsOutbound":false})"
                          "\nEND\nexec sleep 1000\n"));
    auto& parent = startAndListen();
    parent.waitForStandardError("worker: linked: ");
    parent.send("On my way");
    parent.waitForStandardError("This worker does not send; the message is kept until one comes that does.");
    waitUntilSent("On my way");
}

TEST_P(SampleParentTest, SaysStatesBetweenWhichAWorkerAlternatesOnce) {
    useWorker(writeScript(directory_.path() / "worker", "exec sleep 1000\n"));
    auto& parent = startAndListen();
    parent.waitForStandardError("worker: launching: ");
    for (const std::string state : {"linked", "watching_chat", "linked", "watching_chat", "error"}) {
        writeFileAtomically(
            data("runtime/worker-status.json"),
            Json{{"state", state}, {"supportsLiveCapture", true}, {"supportsOutbound", true}}.dump());
        waitForStatus([&](const Json& status) { return status.at("workerState") == state; }, state);
        waitForALook();
    }
    parent.waitForStandardError("worker: error: ");
    const auto said = parent.standardErrorLines();
    EXPECT_EQ(std::count(said.begin(), said.end(), "worker: linked: "), 1);
    EXPECT_EQ(std::count(said.begin(), said.end(), "worker: watching_chat: "), 1);
}

TEST_P(SampleParentTest, SendsAndReceivesThroughASampleWorker) {
    options_.environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
    options_.environment["BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH"] = pythonWorkerExecutable();
    auto& parent = startAndListen();
    parent.send("On my way");
    EXPECT_EQ(parent.nextLine(), "Echo: Echo: On my way");
    EXPECT_THAT(visibleNamesIn(data("rejected")), IsEmpty());
}

}  // namespace
}  // namespace brindle::test

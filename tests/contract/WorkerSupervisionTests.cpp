#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/BystanderProcess.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"
#include "support/WorkerScript.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

const std::string log_prefix = "[ManagedWhatsAppBackend] ";
const std::string relay_prefix = "[ManagedWhatsAppWorker] ";
const std::string error_relay_prefix = "[ManagedWhatsAppWorker][stderr] ";

Json runtimeStatusOf(const BackendProcess& backend) {
    return backend.readJson("runtime/runtime-status.json");
}

bool hasState(const Json& status, const std::string& word) {
    return status.at("workerState") == word;
}

Json waitForState(const BackendProcess& backend, const std::string& word) {
    return backend.waitForRuntimeStatus([&](const Json& status) { return hasState(status, word); });
}

Json expectedWorkerFields(const std::string& path, const std::string& state, const std::string& detail,
                          bool running) {
    return {{"workerConfiguredExecutablePath", path},
            {"workerState", state},
            {"workerDetail", detail},
            {"workerProcessRunning", running},
            {"workerSupportsLiveCapture", false},
            {"workerSupportsOutbound", false}};
}

/// The members of a runtime status that speak of the worker.
Json workerFieldsOf(const Json& status) {
    Json fields = Json::object();
    for (const auto& [name, value] : status.members()) {
        if (name.starts_with("worker")) fields[name] = value;
    }
    return fields;
}

std::string exitDetail(int status) {
    return "Managed WhatsApp worker exited unexpectedly with status " + std::to_string(status) + ".";
}

/// Waits until the end of the worker has been logged, which is the last that is ever heard of it.
void waitForLoggedEnd(BackendProcess& backend, int status) {
    backend.waitForStandardError(log_prefix + exitDetail(status) + "\n");
}

/// Lines of standard error that begin with `prefix`, without it.
std::vector<std::string> linesAfter(const BackendProcess& backend, const std::string& prefix) {
    std::vector<std::string> found;
    for (const std::string& line : backend.standardErrorLines()) {
        if (line.starts_with(prefix)) found.push_back(line.substr(prefix.size()));
    }
    return found;
}

std::string withoutLineFeeds(const std::vector<std::string>& lines) {
    std::string all;
    for (const std::string& line : lines) all += line;
    return all;
}

fs::path runtimeFile(const BackendOptions& options, const std::string& name) {
    fs::create_directories(options.dataDirectory->path() / "runtime");
    return options.dataDirectory->path() / "runtime" / name;
}

// Launch.

TEST(WorkerSupervision, LaunchedWorkerIsPublishedAsLaunchingAndRunning) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.greet();
    const std::string path = worker.path().string();
    EXPECT_EQ(
        workerFieldsOf(runtimeStatusOf(backend)),
        expectedWorkerFields(path, "launching", "Managed WhatsApp worker launched at " + path + ".", true));
    EXPECT_TRUE(processIsRunning(worker.waitForPid()));
}

TEST(WorkerSupervision, StateStaysLaunchingUntilTheWorkerPublishesItsOwn) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.greet();
    backend.waitForStatusWrites(2);
    EXPECT_EQ(runtimeStatusOf(backend).at("workerState"), "launching");
}

TEST(WorkerSupervision, SuccessfulLaunchIsNotLogged) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    worker.waitForPid();
    backend.waitForStatusWrites(1);
    EXPECT_EQ(backend.standardError(), "");
}

TEST(WorkerSupervision, WithoutAWorkerTheStateIsNotConfiguredAndNothingIsLogged) {
    BackendProcess backend;
    backend.greet();
    const Json status = runtimeStatusOf(backend);
    EXPECT_EQ(status.at("workerState"), "not_configured");
    EXPECT_EQ(status.at("workerDetail"), no_worker_detail);
    EXPECT_FALSE(status.contains("workerConfiguredExecutablePath"));
    EXPECT_EQ(backend.standardError(), "");
}

TEST(WorkerSupervision, WithoutAWorkerOnlyTheOldWorkerStatusIsRemovedAtStart) {
    BackendOptions options;
    for (const char* name : {"worker-status.json", "worker-qr.png", "worker.pid"}) {
        writeFileAtomically(runtimeFile(options, name), "old");
    }
    BackendProcess backend(options);
    backend.greet();
    EXPECT_FALSE(fs::exists(backend.path("runtime/worker-status.json")));
    EXPECT_TRUE(fs::exists(backend.path("runtime/worker-qr.png")));
    EXPECT_TRUE(fs::exists(backend.path("runtime/worker.pid")));
}

TEST(WorkerSupervision, WithoutAWorkerAnEarlierWorkerIsLeftAlone) {
    const BystanderProcess earlier("stay");
    BackendOptions options;
    writeFileAtomically(runtimeFile(options, "worker.pid"), std::to_string(earlier.pid()));
    BackendProcess backend(options);
    backend.greet();
    backend.finish();
    EXPECT_FALSE(earlier.hasEnded());
}

TEST(WorkerSupervision, FilesOfAnEarlierWorkerAreRemovedBeforeTheLaunch) {
    const WorkerScript worker(
        R"(for file in worker-status.json worker-qr.png worker.pid; do
    [ -e "$BRINDLE_MANAGED_BRIDGE_DATA_DIR/runtime/$file" ] && mark "seen-$file"
done
mark looked
stay)");
    BackendOptions options = optionsWithWorker(worker.path());
    for (const char* name : {"worker-status.json", "worker-qr.png", "worker.pid"}) {
        writeFileAtomically(runtimeFile(options, name), "old");
    }
    BackendProcess backend(options);
    worker.waitForMark("looked");
    for (const char* name : {"worker-status.json", "worker-qr.png", "worker.pid"}) {
        EXPECT_FALSE(worker.hasMarked(std::string("seen-") + name)) << name;
        EXPECT_FALSE(fs::exists(backend.path("runtime") / name)) << name;
    }
}

TEST(WorkerSupervision, FilesThatAreNotTheWorkersStayAtLaunch) {
    const WorkerScript worker("stay");
    BackendOptions options = optionsWithWorker(worker.path());
    writeFileAtomically(runtimeFile(options, "fresh-link-request.flag"), "");
    writeFileAtomically(runtimeFile(options, "notes.txt"), "kept");
    BackendProcess backend(options);
    worker.waitForPid();
    EXPECT_TRUE(fs::exists(backend.path("runtime/fresh-link-request.flag")));
    EXPECT_EQ(readFile(backend.path("runtime/notes.txt")), "kept");
}

TEST(WorkerSupervision, BackendNeverWritesThePidFileItself) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    worker.waitForPid();
    backend.waitForStatusWrites(2);
    EXPECT_FALSE(fs::exists(backend.path("runtime/worker.pid")));
}

TEST(WorkerSupervision, WorkerRunsBeforeTheFirstRequestIsRead) {
    const WorkerScript worker("stay");
    BackendOptions options = optionsWithWorker(worker.path());
    BackendProcess backend(options);
    backend.send(std::string("{"));
    backend.greet();
    EXPECT_TRUE(backend.nextEnvelope().contains("error"));
    EXPECT_EQ(childrenOf(backend.pid()).size(), 1U);
}

// Launches that fail.

TEST(WorkerSupervision, WorkerWithoutExecutePermissionIsMisconfigured) {
    const TemporaryDirectory place;
    const fs::path worker = place.path() / "worker";
    writeFileAtomically(worker, "#!/bin/sh\n");
    BackendProcess backend(optionsWithWorker(worker));
    backend.greet();
    const std::string detail = "Configured worker executable is not executable: " + worker.string();
    EXPECT_EQ(workerFieldsOf(runtimeStatusOf(backend)),
              expectedWorkerFields(worker.string(), "misconfigured", detail, false));
    EXPECT_EQ(backend.waitForStandardError("\n"), log_prefix + detail + "\n");
    EXPECT_TRUE(childrenOf(backend.pid()).empty());
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(WorkerSupervision, MissingWorkerIsMisconfigured) {
    const TemporaryDirectory place;
    BackendProcess backend(optionsWithWorker(place.path() / "missing"));
    backend.greet();
    EXPECT_EQ(runtimeStatusOf(backend).at("workerState"), "misconfigured");
    EXPECT_EQ(backend.waitForStandardError("\n"), log_prefix +
                                                      "Configured worker executable is not executable: " +
                                                      (place.path() / "missing").string() + "\n");
}

TEST(WorkerSupervision, DirectoryInPlaceOfTheWorkerIsMisconfigured) {
    const TemporaryDirectory place;
    BackendProcess backend(optionsWithWorker(place.path()));
    backend.greet();
    EXPECT_EQ(runtimeStatusOf(backend).at("workerState"), "misconfigured");
}

TEST(WorkerSupervision, MisconfiguredNativeWorkerIsNamedByItsDescription) {
    const TemporaryDirectory place;
    const fs::path worker = place.path() / "native";
    writeFileAtomically(worker, "#!/bin/sh\n");
    BackendOptions options;
    options.environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
    options.environment["BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH"] = worker.string();
    BackendProcess backend(options);
    backend.greet();
    const std::string detail =
        "Configured worker executable is not executable: native protocol worker (" + worker.string() + ")";
    EXPECT_EQ(runtimeStatusOf(backend).at("workerDetail"), detail);
    EXPECT_EQ(backend.waitForStandardError("\n"), log_prefix + detail + "\n");
}

TEST(WorkerSupervision, MisconfiguredWorkerStillHasTheFilesOfAnEarlierOneRemoved) {
    const TemporaryDirectory place;
    BackendOptions options = optionsWithWorker(place.path() / "missing");
    for (const char* name : {"worker-status.json", "worker-qr.png", "worker.pid"}) {
        writeFileAtomically(runtimeFile(options, name), "old");
    }
    BackendProcess backend(options);
    backend.greet();
    for (const char* name : {"worker-status.json", "worker-qr.png", "worker.pid"}) {
        EXPECT_FALSE(fs::exists(backend.path("runtime") / name)) << name;
    }
}

struct FailingLaunch {
    std::string name;
    std::string content;
    std::string reason;
};

void PrintTo(const FailingLaunch& launch, std::ostream* stream) {
    *stream << launch.name;
}

class LaunchFailure : public testing::TestWithParam<FailingLaunch> {
  protected:
    LaunchFailure() {
        writeFileAtomically(worker_, GetParam().content);
        fs::permissions(worker_, fs::perms::owner_all);
    }

    TemporaryDirectory place_;
    fs::path worker_ = place_.path() / "worker";
};

TEST_P(LaunchFailure, IsPublishedAndLoggedWithTheReasonOfTheSystem) {
    BackendProcess backend(optionsWithWorker(worker_));
    backend.greet();
    const Json status = runtimeStatusOf(backend);
    EXPECT_EQ(status.at("workerState"), "launch_failed");
    EXPECT_EQ(status.at("workerProcessRunning"), false);
    EXPECT_EQ(status.at("workerConfiguredExecutablePath"), worker_.string());
    const std::string detail = status.at("workerDetail");
    EXPECT_TRUE(detail.starts_with("Failed to launch managed WhatsApp worker at " + worker_.string() + ": "))
        << detail;
    EXPECT_NE(detail.find(GetParam().reason), std::string::npos) << detail;
    EXPECT_EQ(backend.waitForStandardError("\n"), log_prefix + detail + "\n");
}

TEST_P(LaunchFailure, LeavesNoProcessBehind) {
    BackendProcess backend(optionsWithWorker(worker_));
    backend.greet();
    EXPECT_TRUE(childrenOf(backend.pid()).empty());
}

TEST_P(LaunchFailure, LeavesTheBackendAnswering) {
    BackendProcess backend(optionsWithWorker(worker_));
    backend.greet();
    backend.send(connectRequest());
    EXPECT_TRUE(backend.nextEnvelope().contains("stateChanged"));
    EXPECT_TRUE(backend.nextEnvelope().contains("stateChanged"));
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
    EXPECT_EQ(runtimeStatusOf(backend).at("workerState"), "stopped");
}

INSTANTIATE_TEST_SUITE_P(Reasons, LaunchFailure,
                         testing::Values(FailingLaunch{"MissingInterpreter", "#!/nowhere/interpreter\n",
                                                       "No such file or directory"},
                                         FailingLaunch{"NotAProgram", "just text\n", "Exec format error"}),
                         [](const testing::TestParamInfo<FailingLaunch>& launch) {
                             return launch.param.name;
                         });

// The end of a worker.

TEST(WorkerSupervision, EndedWorkerIsRecordedAsExitedWithItsStatus) {
    const WorkerScript worker("exit 3");
    BackendProcess backend(optionsWithWorker(worker.path()));
    const Json status = waitForState(backend, "exited");
    EXPECT_EQ(workerFieldsOf(status),
              expectedWorkerFields(worker.path().string(), "exited", exitDetail(3), false));
    waitForLoggedEnd(backend, 3);
    EXPECT_EQ(backend.standardError(), log_prefix + exitDetail(3) + "\n");
}

TEST(WorkerSupervision, WorkerThatEndsWithoutFailureIsUnexpectedToo) {
    const WorkerScript worker("exit 0");
    BackendProcess backend(optionsWithWorker(worker.path()));
    EXPECT_EQ(waitForState(backend, "exited").at("workerDetail"), exitDetail(0));
}

TEST(WorkerSupervision, HighestStatusIsReportedInDecimal) {
    const WorkerScript worker("exit 255");
    BackendProcess backend(optionsWithWorker(worker.path()));
    EXPECT_EQ(waitForState(backend, "exited").at("workerDetail"), exitDetail(255));
}

class DeadlySignal : public testing::TestWithParam<int> {};

TEST_P(DeadlySignal, IsReportedAsTheStatus) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    kill(worker.waitForPid(), GetParam());
    EXPECT_EQ(waitForState(backend, "exited").at("workerDetail"), exitDetail(GetParam()));
    waitForLoggedEnd(backend, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Numbers, DeadlySignal, testing::Values(SIGKILL, SIGTERM, SIGPIPE, SIGUSR1));

TEST(WorkerSupervision, StatesOfAWorkerThatEndsAtOnceFollowEachOther) {
    constexpr int rounds = 10;
    for (int round = 0; round < rounds; ++round) {
        BackendProcess backend(optionsWithWorker("/bin/false"));
        backend.waitForFile("runtime/runtime-status.json");
        std::vector<std::string> states;
        const auto hasExited = [&] {
            const std::string state = runtimeStatusOf(backend).at("workerState");
            if (states.empty() || states.back() != state) states.push_back(state);
            return state == "exited";
        };
        waitUntil(hasExited, "the state exited");
        const std::vector<std::string> order = {"not_configured", "launching", "exited"};
        const auto comesBefore = [&](const std::string& left, const std::string& right) {
            return std::find(order.begin(), order.end(), left) < std::find(order.begin(), order.end(), right);
        };
        EXPECT_TRUE(std::is_sorted(states.begin(), states.end(), comesBefore)) << Json(states);
        backend.greet();
        backend.waitForStatusWrites(1);
        EXPECT_EQ(workerFieldsOf(runtimeStatusOf(backend)),
                  expectedWorkerFields("/bin/false", "exited", exitDetail(1), false));
    }
}

TEST(WorkerSupervision, NoZombieOfAnEndedWorkerStays) {
    const WorkerScript worker("exit 3");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForState(backend, "exited");
    backend.waitUntil([&] { return childrenOf(backend.pid()).empty(); }, "the ended worker to be reaped");
}

TEST(WorkerSupervision, EndedWorkerIsNotStartedAgain) {
    const WorkerScript worker("exit 3");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForState(backend, "exited");
    backend.connectAndListen();
    backend.waitForStatusWrites(3);
    EXPECT_EQ(worker.starts(), 1U);
    EXPECT_TRUE(childrenOf(backend.pid()).empty());
    EXPECT_EQ(linesAfter(backend, log_prefix).size(), 1U);
}

TEST(WorkerSupervision, BackendStaysUpAndPublishesAfterTheEndOfItsWorker) {
    const WorkerScript worker("exit 3");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForState(backend, "exited");
    backend.connectAndListen();
    backend.waitForRuntimeStatus([](const Json& status) { return status["connectionState"] == "connected"; });
    backend.writeInbound("m-1.json", inboundRecord("m-1", "still delivered"));
    EXPECT_TRUE(backend.nextEnvelope().contains("inboundEvent"));
    EXPECT_TRUE(hasState(runtimeStatusOf(backend), "exited"));
}

TEST(WorkerSupervision, EndOfTheWorkerIsNoEnvelope) {
    const WorkerScript worker("exit 3");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.greet();
    waitForState(backend, "exited");
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(WorkerSupervision, StatusFileOfAnEndedWorkerNoLongerCounts) {
    const WorkerScript worker(
        R"(publish worker-status.json '{"state":"linked","supportsLiveCapture":true,"supportsOutbound":true}'
await end
exit 4)");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForState(backend, "linked");
    worker.allow("end");
    EXPECT_EQ(workerFieldsOf(waitForState(backend, "exited")),
              expectedWorkerFields(worker.path().string(), "exited", exitDetail(4), false));
    EXPECT_TRUE(fs::exists(backend.path("runtime/worker-status.json")));
}

TEST(WorkerSupervision, EndIsRecordedEvenWhileAnotherProcessKeepsTheOutputOpen) {
    const WorkerScript worker("sleep 600 &\nexit 3");
    BackendProcess backend(optionsWithWorker(worker.path()));
    EXPECT_EQ(waitForState(backend, "exited").at("workerDetail"), exitDetail(3));
}

TEST(WorkerSupervision, WorkerThatClosesItsOutputStillRuns) {
    const WorkerScript worker("exec >&- 2>&-\nmark closed\nstay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    worker.waitForMark("closed");
    backend.waitForStatusWrites(2);
    EXPECT_EQ(runtimeStatusOf(backend).at("workerProcessRunning"), true);
    EXPECT_TRUE(hasState(runtimeStatusOf(backend), "launching"));
}

// The output of a worker.

TEST(WorkerOutput, LinesAreRelayedAndEmptyOnesSkipped) {
    const WorkerScript worker("printf 'a\\n\\nb\\n'\nexit 0");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForLoggedEnd(backend, 0);
    EXPECT_EQ(backend.standardError(),
              relay_prefix + "a\n" + relay_prefix + "b\n" + log_prefix + exitDetail(0) + "\n");
}

TEST(WorkerOutput, StandardErrorIsMarked) {
    const WorkerScript worker("echo trouble >&2\nexit 0");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForLoggedEnd(backend, 0);
    EXPECT_EQ(backend.standardError(), error_relay_prefix + "trouble\n" + log_prefix + exitDetail(0) + "\n");
}

TEST(WorkerOutput, LinesAreTrimmedAndBlankOnesSkipped) {
    const WorkerScript worker("printf '  \\t x y \\r\\n \\t \\n\\342\\200\\203z\\302\\240\\n'\nexit 0");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForLoggedEnd(backend, 0);
    EXPECT_EQ(linesAfter(backend, relay_prefix), (std::vector<std::string>{"x y", "z"}));
}

TEST(WorkerOutput, InvalidUtf8IsReplaced) {
    const WorkerScript worker("printf 'x\\377y \\303\\251\\n'\nexit 0");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForLoggedEnd(backend, 0);
    EXPECT_EQ(linesAfter(backend, relay_prefix), (std::vector<std::string>{"x\xEF\xBF\xBDy \xC3\xA9"}));
}

TEST(WorkerOutput, LineWrittenInTwoChunksIsRelayedAsTwo) {
    const WorkerScript worker("printf par\nawait second\nprintf 'tial\\n'\nstay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.waitForStandardError(relay_prefix + "par\n");
    worker.allow("second");
    EXPECT_EQ(backend.waitForStandardError(relay_prefix + "tial\n"),
              relay_prefix + "par\n" + relay_prefix + "tial\n");
}

TEST(WorkerOutput, LastLineNeedsNoLineFeed) {
    const WorkerScript worker("printf 'last words'\nexit 0");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForLoggedEnd(backend, 0);
    EXPECT_EQ(linesAfter(backend, relay_prefix), (std::vector<std::string>{"last words"}));
}

TEST(WorkerOutput, ArrivesWhileTheWorkerRuns) {
    const WorkerScript worker("echo one\nawait more\necho two >&2\nstay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.waitForStandardError(relay_prefix + "one\n");
    worker.allow("more");
    backend.waitForStandardError(error_relay_prefix + "two\n");
}

TEST(WorkerOutput, StandardErrorIsRelayedAfterStandardOutputWasClosed) {
    const WorkerScript worker("exec >&-\nawait go\necho 'still here' >&2\nstay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    worker.waitForPid();
    worker.allow("go");
    backend.waitForStandardError(error_relay_prefix + "still here\n");
}

TEST(WorkerOutput, NeverReachesStandardOutput) {
    const WorkerScript worker("echo '{\"hello\":1}'\necho out >&2\nexit 0");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.greet();
    waitForLoggedEnd(backend, 0);
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(WorkerOutput, AllOfItIsRelayedBeforeTheEndIsLogged) {
    // More than the pipe holds, from a process that ends with the last byte.
    const WorkerScript worker("seq 1 30000\nseq 1 30000 >&2\nexit 5");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForLoggedEnd(backend, 5);
    std::string numbers;
    for (int number = 1; number <= 30000; ++number) numbers += std::to_string(number);
    const std::vector<std::string> lines = backend.standardErrorLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), log_prefix + exitDetail(5));
    // A chunk may end inside a line, so only the characters count.
    EXPECT_TRUE(withoutLineFeeds(linesAfter(backend, relay_prefix)) == numbers);
    EXPECT_TRUE(withoutLineFeeds(linesAfter(backend, error_relay_prefix)) == numbers);
}

TEST(WorkerOutput, AllThatWaitsInAnEnlargedPipeIsRelayedBeforeTheEndIsLogged) {
    // More than any single read takes, all of it written and the worker gone before the backend looks again.
    const WorkerScript worker(R"pl(mark ready
await go
exec perl -e '
    fcntl(STDOUT, 1031, 1 << 20) or die "cannot enlarge the pipe: $!";
    syswrite(STDOUT, join("", map { "$_\n" } 1 .. 80000)) == 468894 or die "short write: $!";
    exit 5;
')pl");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.greet();
    worker.waitForMark("ready");
    const pid_t pid = worker.waitForPid();
    backend.signal(SIGSTOP);
    worker.allow("go");
    waitUntil([&] { return !processIsRunning(pid); }, "the end of the worker");
    backend.signal(SIGCONT);
    waitForLoggedEnd(backend, 5);
    std::string numbers;
    for (int number = 1; number <= 80000; ++number) numbers += std::to_string(number);
    EXPECT_TRUE(withoutLineFeeds(linesAfter(backend, relay_prefix)) == numbers);
    EXPECT_EQ(backend.standardErrorLines().back(), log_prefix + exitDetail(5));
}

TEST(WorkerOutput, LastWordsBeforeDeathBySignalAreRelayedFirst) {
    const WorkerScript worker("printf 'goodbye'\nkill -KILL $$");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForLoggedEnd(backend, SIGKILL);
    EXPECT_EQ(backend.standardError(), relay_prefix + "goodbye\n" + log_prefix + exitDetail(SIGKILL) + "\n");
}

TEST(WorkerOutput, LinesOfBothStreamsStayWhole) {
    const WorkerScript worker(
        R"(i=0
while [ $i -lt 300 ]; do echo "out $i end"; echo "err $i end" >&2; i=$((i+1)); done
exit 0)");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForLoggedEnd(backend, 0);
    EXPECT_EQ(linesAfter(backend, relay_prefix).size(), 300U);
    EXPECT_EQ(linesAfter(backend, error_relay_prefix).size(), 300U);
    EXPECT_EQ(linesAfter(backend, relay_prefix).back(), "out 299 end");
    EXPECT_EQ(linesAfter(backend, error_relay_prefix).back(), "err 299 end");
    EXPECT_EQ(backend.standardErrorLines().size(), 601U);
}

// Stop.

TEST(WorkerStop, EndOfInputTerminatesTheWorkerAndRecordsStopped) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    const pid_t pid = worker.waitForPid();
    backend.greet();
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    waitUntil([&] { return !processIsRunning(pid); }, "the end of the worker");
    EXPECT_EQ(
        workerFieldsOf(runtimeStatusOf(backend)),
        expectedWorkerFields(worker.path().string(), "stopped", "Managed WhatsApp worker stopped.", false));
    EXPECT_EQ(backend.standardError(), "");
}

TEST(WorkerStop, WorkerIsAskedToEndBySigterm) {
    const WorkerScript worker("trap 'mark asked; exit 0' TERM\nmark ready\nwhile :; do sleep 0.01; done");
    BackendProcess backend(optionsWithWorker(worker.path()));
    worker.waitForMark("ready");
    backend.finish();
    worker.waitForMark("asked");
}

TEST(WorkerStop, WorkerThatIgnoresSigtermIsNotWaitedFor) {
    const WorkerScript worker("trap '' TERM\nmark ready\nstay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    worker.waitForMark("ready");
    const pid_t pid = worker.waitForPid();
    backend.closeInput();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    EXPECT_TRUE(processIsRunning(pid));
    EXPECT_TRUE(hasState(runtimeStatusOf(backend), "stopped"));
}

TEST(WorkerStop, FilesOfTheWorkerAreRemovedExceptTheQrCode) {
    const WorkerScript worker(R"(publish worker.pid "$$"
publish worker-qr.png png
publish worker-status.json '{"state":"linked","supportsLiveCapture":true,"supportsOutbound":true}'
stay)");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForState(backend, "linked");
    backend.finish();
    EXPECT_FALSE(fs::exists(backend.path("runtime/worker-status.json")));
    EXPECT_FALSE(fs::exists(backend.path("runtime/worker.pid")));
    EXPECT_TRUE(fs::exists(backend.path("runtime/worker-qr.png")));
}

TEST(WorkerStop, WithoutAWorkerTheStateIsNotConfiguredAgain) {
    BackendProcess backend;
    backend.greet();
    backend.finish();
    const Json status = runtimeStatusOf(backend);
    EXPECT_EQ(status.at("workerState"), "not_configured");
    EXPECT_EQ(status.at("workerDetail"), "No managed WhatsApp worker configured.");
    EXPECT_FALSE(status.contains("workerConfiguredExecutablePath"));
}

TEST(WorkerStop, WithoutAWorkerThePidFileAndTheStatusFileGoAllTheSame) {
    BackendProcess backend;
    backend.greet();
    writeFileAtomically(backend.path("runtime/worker.pid"), "abc");
    writeFileAtomically(backend.path("runtime/worker-status.json"), "{}");
    backend.finish();
    EXPECT_FALSE(fs::exists(backend.path("runtime/worker.pid")));
    EXPECT_FALSE(fs::exists(backend.path("runtime/worker-status.json")));
}

TEST(WorkerStop, SetsStoppedAfterTheWorkerHasExited) {
    const WorkerScript worker("exit 3");
    BackendProcess backend(optionsWithWorker(worker.path()));
    waitForState(backend, "exited");
    backend.finish();
    EXPECT_EQ(
        workerFieldsOf(runtimeStatusOf(backend)),
        expectedWorkerFields(worker.path().string(), "stopped", "Managed WhatsApp worker stopped.", false));
}

TEST(WorkerStop, SetsStoppedWhenTheWorkerWasMisconfigured) {
    BackendProcess backend(optionsWithWorker("/nowhere/worker"));
    backend.greet();
    ASSERT_TRUE(hasState(runtimeStatusOf(backend), "misconfigured"));
    backend.finish();
    EXPECT_EQ(workerFieldsOf(runtimeStatusOf(backend)),
              expectedWorkerFields("/nowhere/worker", "stopped", "Managed WhatsApp worker stopped.", false));
}

TEST(WorkerStop, IsNeverReportedAsUnexpected) {
    constexpr int rounds = 5;
    for (int round = 0; round < rounds; ++round) {
        const WorkerScript worker("stay");
        BackendProcess backend(optionsWithWorker(worker.path()));
        worker.waitForPid();
        backend.finish();
        EXPECT_EQ(backend.standardError(), "");
        EXPECT_TRUE(hasState(runtimeStatusOf(backend), "stopped"));
    }
}

TEST(WorkerStop, InputThatEndsAtOnceStopsTheWorkerToo) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.closeInput();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    EXPECT_EQ(backend.receivedLines().size(), 2U);
    EXPECT_TRUE(hasState(runtimeStatusOf(backend), "stopped"));
}

// A worker left over from an earlier run.

class EarlierWorker : public testing::Test {
  protected:
    /// Starts a backend that finds `content` in "worker.pid"; the clearing up is over when this returns.
    void clearUpAfter(const std::string& content) {
        writeFileAtomically(runtimeFile(options_, "worker.pid"), content);
        start();
    }
    void start() {
        BackendProcess backend(options_);
        backend.greet();
        EXPECT_FALSE(fs::exists(fs::symlink_status(backend.path("runtime/worker.pid"))));
        EXPECT_TRUE(hasState(runtimeStatusOf(backend), "launching"));
        worker_.waitForPid();
        backend.finish();
        EXPECT_EQ(backend.standardError(), "");
    }

    WorkerScript worker_{"stay"};
    BackendOptions options_ = optionsWithWorker(worker_.path());
};

TEST_F(EarlierWorker, IsTerminated) {
    BystanderProcess earlier("stay");
    clearUpAfter(std::to_string(earlier.pid()));
    EXPECT_EQ(earlier.waitForEnd(), killedBy(SIGTERM));
}

TEST_F(EarlierWorker, IsGoneBeforeTheNewOneStarts) {
    // Takes a while to end, so that a new worker that does not wait for it meets it.
    const BystanderProcess earlier("trap 'sleep 0.1; exit 0' TERM\nmark ready\nsleep 600 & wait");
    earlier.waitForMark("ready");
    // One that has ended is gone; that it is reaped is this test's part.
    const WorkerScript worker("grep -q '^State:.[^ZX]' /proc/" + std::to_string(earlier.pid()) +
                              "/status && mark met\nmark looked\nstay");
    const BackendOptions options = optionsWithWorker(worker.path());
    writeFileAtomically(runtimeFile(options, "worker.pid"), std::to_string(earlier.pid()));
    const BackendProcess backend(options);
    worker.waitForMark("looked");
    EXPECT_FALSE(worker.hasMarked("met"));
}

TEST_F(EarlierWorker, IsKilledWhenItIgnoresSigterm) {
    BystanderProcess earlier("trap '' TERM\nmark ready\nstay");
    earlier.waitForMark("ready");
    clearUpAfter(std::to_string(earlier.pid()));
    EXPECT_EQ(earlier.waitForEnd(), killedBy(SIGKILL));
}

TEST_F(EarlierWorker, IsAskedBeforeItIsKilled) {
    // A shell runs its trap at once while it waits, but only after a command that it runs.
    BystanderProcess earlier("trap 'mark asked' TERM\nmark ready\nsleep 600 & while :; do wait; done");
    earlier.waitForMark("ready");
    clearUpAfter(std::to_string(earlier.pid()));
    EXPECT_EQ(earlier.waitForEnd(), killedBy(SIGKILL));
    EXPECT_TRUE(earlier.hasMarked("asked"));
}

TEST_F(EarlierWorker, NumberThatIsAnotherProcessByNowIsSpared) {
    const BystanderProcess stranger("stay");
    const auto file = runtimeFile(options_, "worker.pid");
    writeFileAtomically(file, std::to_string(stranger.pid()));
    fs::last_write_time(file, fs::last_write_time(file) - std::chrono::hours(1));
    start();
    EXPECT_FALSE(stranger.hasEnded());
}

TEST_F(EarlierWorker, ThatIsGoneAlreadyOnlyHasItsPidFileRemoved) {
    pid_t gone = 0;
    {
        const BystanderProcess earlier("exit 0");
        gone = earlier.pid();
        waitUntil([&] { return earlier.hasEnded(); }, "the end of the earlier worker");
    }
    clearUpAfter(std::to_string(gone));
}

/// Texts that name the id of a live process, given as %, in a way that counts.
class PidTextThatCounts : public EarlierWorker, public testing::WithParamInterface<std::string> {};

std::string withPid(std::string text, pid_t pid) {
    if (const std::size_t at = text.find('%'); at != std::string::npos)
        text.replace(at, 1, std::to_string(pid));
    return text;
}

TEST_P(PidTextThatCounts, TerminatesTheProcess) {
    BystanderProcess earlier("stay");
    clearUpAfter(withPid(GetParam(), earlier.pid()));
    EXPECT_EQ(earlier.waitForEnd(), killedBy(SIGTERM));
}

INSTANTIATE_TEST_SUITE_P(Texts, PidTextThatCounts, testing::Values("%", "+%", " %\n", "\t%\r\n", "000%"));

/// Texts that are no number, or name no process.
class PidTextThatDoesNotCount : public EarlierWorker, public testing::WithParamInterface<std::string> {};

TEST_P(PidTextThatDoesNotCount, IsRemovedAndNobodyIsSignalled) {
    // Leads a group of its own, so that a negative number would find it too.
    const BystanderProcess bystander("stay");
    clearUpAfter(withPid(GetParam(), bystander.pid()));
    EXPECT_FALSE(bystander.hasEnded());
}

INSTANTIATE_TEST_SUITE_P(Texts, PidTextThatDoesNotCount,
                         testing::Values("abc", "", "  \n", "-%", "0", "-0", "+0", "-5", "+", "-", "+-%",
                                         "%abc", "%.0", "0x%", "% %", "%\n%", "2147483648",
                                         "99999999999999999999999", "-2147483649", "%\xFF"));

TEST_F(EarlierWorker, NumberThatOverflowsOntoALiveProcessIsRemovedOnly) {
    const BystanderProcess bystander("stay");
    constexpr std::int64_t two_to_the_32 = std::int64_t{1} << 32;
    clearUpAfter(std::to_string(two_to_the_32 + bystander.pid()));
    EXPECT_FALSE(bystander.hasEnded());
}

TEST_F(EarlierWorker, PidFileThatIsAFifoIsNotWaitedFor) {
    ASSERT_EQ(mkfifo(runtimeFile(options_, "worker.pid").c_str(), 0600), 0);
    start();
}

TEST_F(EarlierWorker, PidFileThatIsADanglingLinkHoldsNothingUp) {
    fs::create_symlink("/nowhere", runtimeFile(options_, "worker.pid"));
    BackendProcess backend(options_);
    backend.greet();
    EXPECT_TRUE(hasState(runtimeStatusOf(backend), "launching"));
}

}  // namespace
}  // namespace brindle::test

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Requests.h"
#include "support/Waiting.h"
#include "support/WorkerScript.h"

namespace brindle::test {
namespace {

BackendOptions optionsWith(std::vector<std::string> arguments) {
    BackendOptions options;
    options.arguments = std::move(arguments);
    return options;
}

/// The platform that a backend started with these arguments announces.
std::string announcedPlatform(std::vector<std::string> arguments) {
    BackendProcess process(optionsWith(std::move(arguments)));
    const auto hello = process.nextEnvelope();
    return hello["hello"]["_0"]["platform"];
}

/// Standard error holds the one line of the fatal diagnostic and nothing else; returns its description.
std::string fatalDescription(const BackendProcess& process) {
    const auto lines = process.standardErrorLines();
    if (lines.size() != 1 || !lines.front().starts_with(fatal_prefix) ||
        !process.standardError().ends_with("\n")) {
        throw TestFailure("not one fatal line: " + process.standardError());
    }
    return lines.front().substr(std::string(fatal_prefix).size());
}

BackendOptions optionsWithRole(const char* role) {
    BackendOptions options;
    options.environment["BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"] = role;
    return options;
}

/// Waits until a process in the worker's role has come up, or has given up where it cannot show a page.
void waitForTheWorker(const BackendProcess& process) {
    process.waitUntil(
        [&] { return !process.isRunning() || std::filesystem::exists(process.path("runtime/worker.pid")); },
        "the worker to come up or to give up");
}

TEST(Entry, WithoutArgumentsThePlatformIsWhatsapp) {
    EXPECT_EQ(announcedPlatform({}), "whatsapp");
}

TEST(Entry, PlatformSwitchWithoutValueMeansWhatsapp) {
    EXPECT_EQ(announcedPlatform({"--platform"}), "whatsapp");
}

TEST(Entry, ValueAfterThePlatformSwitchIsThePlatform) {
    EXPECT_EQ(announcedPlatform({"--platform", "signal"}), "signal");
}

TEST(Entry, OnlyTheFirstPlatformSwitchCounts) {
    EXPECT_EQ(announcedPlatform({"--platform", "signal", "--platform", "x"}), "signal");
}

TEST(Entry, PlatformMayBeginWithDashes) {
    EXPECT_EQ(announcedPlatform({"--platform", "--verbose", "whatsapp"}), "--verbose");
}

TEST(Entry, PlatformMayBeTheTextOfTheSwitch) {
    EXPECT_EQ(announcedPlatform({"--platform", "--platform", "signal"}), "--platform");
}

TEST(Entry, PlatformMayBeEmpty) {
    EXPECT_EQ(announcedPlatform({"--platform", ""}), "");
}

TEST(Entry, PlatformIsTakenAsItStands) {
    EXPECT_EQ(announcedPlatform({"--platform", " Sig nal\t"}), " Sig nal\t");
}

TEST(Entry, PlatformSwitchIsCaseSensitive) {
    EXPECT_EQ(announcedPlatform({"--Platform", "signal"}), "whatsapp");
}

TEST(Entry, PlatformSwitchTakesNoEqualsSign) {
    EXPECT_EQ(announcedPlatform({"--platform=signal"}), "whatsapp");
}

TEST(Entry, UnknownArgumentsAreIgnored) {
    EXPECT_EQ(announcedPlatform({"--help", "-v", "--self-test", "stray", "--platform", "signal", "more"}),
              "signal");
}

TEST(Entry, StatusAndControlRecordsCarryThePlatform) {
    BackendProcess process(optionsWith({"--platform", "signal"}));
    process.greet();
    process.finish();
    EXPECT_EQ(process.readJson("runtime/runtime-status.json")["platform"], "signal");
    EXPECT_EQ(process.readJson("runtime/worker-control.json")["platform"], "signal");
}

TEST(Entry, RequestsForTheGivenPlatformAreServed) {
    BackendProcess process(optionsWith({"--platform", "signal"}));
    process.greet();
    process.send(connectRequest("whatsapp"));
    process.send(connectRequest("signal"));
    EXPECT_EQ(process.finishAndTakeRest(), (std::vector<std::string>{connecting_line, connected_line}));
}

class EntryRole : public testing::TestWithParam<const char*> {};

TEST_P(EntryRole, AnyOtherTextMeansTheBackend) {
    BackendProcess process(optionsWithRole(GetParam()));
    EXPECT_EQ(process.finish(), (std::vector<std::string>{hello_line, disconnected_line}));
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

INSTANTIATE_TEST_SUITE_P(Texts, EntryRole,
                         testing::Values("", "Runtime-Worker", " runtime-worker", "runtime-worker ",
                                         "runtime-worker\n", "backend", "1"));

TEST(Entry, RuntimeWorkerRoleSpeaksNoBridgeProtocol) {
    BackendProcess process(optionsWithRole("runtime-worker"));
    waitForTheWorker(process);
    EXPECT_EQ(process.rawOutput(), "");
}

TEST(Entry, RuntimeWorkerRoleWritesNoBackendRecords) {
    BackendProcess process(optionsWithRole("runtime-worker"));
    waitForTheWorker(process);
    EXPECT_FALSE(std::filesystem::exists(process.path("runtime/runtime-status.json")));
    EXPECT_FALSE(std::filesystem::exists(process.path("runtime/worker-control.json")));
}

TEST(Entry, EndOfInputEndsWithStatusZero) {
    BackendProcess process;
    process.finish();
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

TEST(Entry, NormalRunWritesNoDiagnostics) {
    BackendProcess process;
    process.connectAndListen();
    process.send(sendMessageRequest({{"conversationId", "team-room"}, {"text", "hi"}}));
    process.send(stopListeningRequest());
    process.send(disconnectRequest());
    process.finish();
    EXPECT_EQ(process.standardError(), "");
}

TEST(Entry, FailedConstructionEndsWithOneFatalLine) {
    BackendOptions options;
    writeFileAtomically(options.dataDirectory->path() / "obstacle", "");
    options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = options.dataDirectory->path() / "obstacle/data";
    BackendProcess process(options);
    EXPECT_EQ(process.waitForExit(), exitedWith(software_failure));
    EXPECT_EQ(process.rawOutput(), "");
    EXPECT_NE(fatalDescription(process), "");
}

TEST(Entry, FatalLineOfAFailedConstructionNamesPathAndReason) {
    BackendOptions options;
    const auto obstacle = options.dataDirectory->path() / "obstacle";
    writeFileAtomically(obstacle, "");
    options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = obstacle / "data";
    BackendProcess process(options);
    process.waitForExit();
    const auto description = fatalDescription(process);
    EXPECT_NE(description.find(obstacle.string()), std::string::npos) << description;
    EXPECT_NE(description.find("Not a directory"), std::string::npos) << description;
}

TEST(Entry, BrokenOutputPipeIsAFatalFailureNotADeathBySignal) {
    BackendProcess process;
    process.greet();
    process.closeOutputReader();
    process.send(connectRequest());
    EXPECT_EQ(process.waitForExit(), exitedWith(software_failure));
    EXPECT_NE(fatalDescription(process), "");
}

TEST(Entry, FatalLineOfABrokenOutputPipeNamesTheReason) {
    BackendProcess process;
    process.greet();
    process.closeOutputReader();
    process.send(connectRequest());
    process.waitForExit();
    EXPECT_NE(fatalDescription(process).find("Broken pipe"), std::string::npos) << process.standardError();
}

TEST(Entry, OutputClosedFromTheStartIsFatal) {
    BackendOptions options;
    options.closeStdout = true;
    BackendProcess process(options);
    EXPECT_EQ(process.waitForExit(), exitedWith(software_failure));
    EXPECT_NE(fatalDescription(process), "");
}

TEST(Entry, OutputClosedFromTheStartSpoilsNoFile) {
    BackendOptions options;
    options.closeStdout = true;
    BackendProcess process(options);
    process.waitForExit();
    EXPECT_EQ(process.readJson("runtime/runtime-status.json")["connectionState"], "disconnected");
    EXPECT_EQ(process.readJson("runtime/worker-control.json")["platform"], "whatsapp");
}

TEST(Entry, InputClosedFromTheStartIsTheEndOfInput) {
    BackendOptions options;
    options.closeStdin = true;
    BackendProcess process(options);
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
    EXPECT_EQ(process.receivedLines(), (std::vector<std::string>{hello_line, disconnected_line}));
}

TEST(Entry, ErrorStreamClosedFromTheStartDoesNoHarm) {
    BackendOptions options;
    options.closeStderr = true;
    BackendProcess process(options);
    process.connectAndListen();
    process.writeInboundRaw("broken.json", "{");
    process.waitForFile("rejected/broken.json");
    process.send(disconnectRequest());
    EXPECT_EQ(process.finishAndTakeRest(), (std::vector<std::string>{disconnected_line}));
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

class EntrySignal : public testing::TestWithParam<int> {
  protected:
    /// Sends the signal of the test; how the process ended.
    static ExitStatus end(BackendProcess& process) {
        process.signal(GetParam());
        return process.waitForExit();
    }
};

TEST_P(EntrySignal, KillsTheProcessAfterTheShutdown) {
    BackendProcess process;
    process.greet();
    EXPECT_EQ(end(process), killedBy(GetParam()));
}

TEST_P(EntrySignal, IsNoFatalFailure) {
    BackendProcess process;
    process.greet();
    end(process);
    EXPECT_EQ(process.standardError(), "");
}

TEST_P(EntrySignal, LeavesTheStateOfTheConnectionInTheStatus) {
    BackendProcess process;
    process.connectAndListen();
    end(process);
    const auto status = process.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status["connectionState"], "connected");
    EXPECT_EQ(status["activeScopeDescription"], "Conversation Team Room [team-room]");
}

TEST_P(EntrySignal, WithoutWorkerRecordsThatNoneIsConfigured) {
    BackendProcess process;
    process.greet();
    end(process);
    const auto status = process.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status["workerState"], "not_configured");
    EXPECT_EQ(status["workerDetail"], "No managed WhatsApp worker configured.");
}

TEST_P(EntrySignal, StopsTheWorkerAndRecordsIt) {
    BackendProcess process(optionsWithPoliteWorker());
    process.greet();
    process.waitForFile("worker-ready");
    EXPECT_EQ(end(process), killedBy(GetParam()));
    const auto status = process.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status["workerState"], "stopped");
    EXPECT_EQ(status["workerProcessRunning"], false);
    process.waitForFile("worker-was-asked");
}

TEST_P(EntrySignal, EndsTheProcessThoughNobodyReadsItsOutput) {
    BackendOptions options;
    options.stdoutPipeBytes = 4096;
    options.readOutputAtOnce = false;
    BackendProcess process(options);
    for (int count = 0; count < 100; ++count) process.send(connectRequest());
    process.waitUntil([&] { return process.unreadOutputBytes() > 3500; }, "the output pipe to be full");
    EXPECT_EQ(end(process), killedBy(GetParam()));
    const auto status = process.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status["workerDetail"], "No managed WhatsApp worker configured.");
}

INSTANTIATE_TEST_SUITE_P(Terminating, EntrySignal, testing::Values(SIGTERM, SIGINT),
                         [](const testing::TestParamInfo<int>& tested) {
                             return tested.param == SIGTERM ? "Terminate" : "Interrupt";
                         });

}  // namespace
}  // namespace brindle::test

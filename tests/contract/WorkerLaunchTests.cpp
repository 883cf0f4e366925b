#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"
#include "support/WorkerScript.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

const std::string native_worker_name = "BrindleManagedWhatsAppNativeWorker";

/// A copy of the backend's executable with nothing beside it, and an empty working directory.
class WorkerChoice : public testing::Test {
  protected:
    WorkerChoice() {
        fs::create_directory(bin());
        fs::create_directory(workingDirectory());
        fs::copy_file(backendExecutable(), executable());
        options_.environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
        options_.executable = executable().string();
        options_.workingDirectory = workingDirectory().string();
    }

    fs::path place() const { return place_.path(); }
    fs::path bin() const { return place() / "bin"; }
    fs::path workingDirectory() const { return place() / "cwd"; }
    fs::path executable() const { return bin() / "BrindleManagedWhatsAppBackend"; }
    fs::path besideTheExecutable() const { return bin() / native_worker_name; }
    fs::path amongTheResources() const { return bin() / "Resources" / native_worker_name; }
    fs::path inTheBuildDirectory() const {
        return workingDirectory() / "Support/ManagedWhatsAppNativeWorker/.build" / native_worker_name;
    }
    fs::path inTheSupportDirectory() const {
        return workingDirectory() / "Support/ManagedWhatsAppNativeWorker" / native_worker_name;
    }

    /// Puts a program there that does nothing until a signal ends it.
    static fs::path putWorker(const fs::path& file) {
        fs::create_directories(file.parent_path());
        return writePlainWorker(file);
    }
    void set(const std::string& key, const std::string& value) { options_.environment[key] = value; }

    BackendProcess& start() { return backend_.emplace(options_); }
    BackendProcess& backend() { return *backend_; }
    /// The launch description of the worker that was chosen; empty when none was.
    std::string choice() {
        start().greet();
        const Json status = backend().readJson("runtime/runtime-status.json");
        if (!status.contains("workerConfiguredExecutablePath")) {
            EXPECT_EQ(status.at("workerState"), "not_configured");
            EXPECT_EQ(status.at("workerDetail"), no_worker_detail);
            EXPECT_EQ(status.at("workerProcessRunning"), false);
            EXPECT_TRUE(childrenOf(backend().pid()).empty());
            EXPECT_EQ(backend().standardError(), "");
            return {};
        }
        return status.at("workerConfiguredExecutablePath");
    }
    static std::string native(const fs::path& path) {
        return "native protocol worker (" + path.string() + ")";
    }
    std::string builtIn() const { return "built-in WebKit worker (" + executable().string() + ")"; }

    BackendOptions options_;

  private:
    TemporaryDirectory place_;
    std::optional<BackendProcess> backend_;
};

// No worker.

TEST_F(WorkerChoice, IsNoneWhenNothingIsSetAndNoWorkerIsThere) {
    EXPECT_EQ(choice(), "");
}

TEST_F(WorkerChoice, DisablingWinsOverAnExplicitWorker) {
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", putWorker(place() / "worker"));
    set("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER", " \tYes \n");
    EXPECT_EQ(choice(), "");
}

TEST_F(WorkerChoice, DisablingWinsOverNativeAndBuiltInWorkers) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER", "1");
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", "1");
    set("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER", "1");
    EXPECT_EQ(choice(), "");
}

class FlagThatIsSet : public WorkerChoice, public testing::WithParamInterface<std::string> {};

TEST_P(FlagThatIsSet, DisablesTheWorker) {
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", putWorker(place() / "worker"));
    set("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER", GetParam());
    EXPECT_EQ(choice(), "");
}

INSTANTIATE_TEST_SUITE_P(Values, FlagThatIsSet,
                         testing::Values("1", "true", "yes", "on", "TRUE", "tRuE", "Yes", "ON", " on\t",
                                         "\n1\n"));

class FlagThatIsNotSet : public WorkerChoice, public testing::WithParamInterface<std::string> {};

TEST_P(FlagThatIsNotSet, LeavesTheWorkerOn) {
    const fs::path worker = putWorker(place() / "worker");
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", worker);
    set("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER", GetParam());
    EXPECT_EQ(choice(), worker.string());
}

INSTANTIATE_TEST_SUITE_P(Values, FlagThatIsNotSet,
                         testing::Values("", "  ", "0", "2", "11", "enabled", "y", "no", "off", "false",
                                         "t r u e"));

// The explicit worker.

TEST_F(WorkerChoice, ExplicitPathIsTrimmedStandardisedAndDescribesItselfBare) {
    const fs::path worker = putWorker(place() / "worker");
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", "  " + (place() / "./missing/../worker").string() + "\n");
    EXPECT_EQ(choice(), worker.string());
    const std::string detail = backend().readJson("runtime/runtime-status.json").at("workerDetail");
    EXPECT_EQ(detail, "Managed WhatsApp worker launched at " + worker.string() + ".");
}

TEST_F(WorkerChoice, BlankExplicitPathCountsAsUnset) {
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", "   ");
    EXPECT_EQ(choice(), "");
}

TEST_F(WorkerChoice, BlankExplicitPathLetsTheNativeWorkerBeFound) {
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", " \t");
    putWorker(besideTheExecutable());
    EXPECT_EQ(choice(), native(besideTheExecutable()));
}

TEST_F(WorkerChoice, ExplicitPathWinsOverNativeAndBuiltInWorkers) {
    putWorker(besideTheExecutable());
    const fs::path worker = putWorker(place() / "worker");
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", worker);
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER", "1");
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", "1");
    EXPECT_EQ(choice(), worker.string());
}

TEST_F(WorkerChoice, ExplicitPathToAMissingFileIsStillTheChoice) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", place() / "missing");
    EXPECT_EQ(choice(), (place() / "missing").string());
    EXPECT_EQ(backend().readJson("runtime/runtime-status.json").at("workerState"), "misconfigured");
}

TEST_F(WorkerChoice, RelativeExplicitPathStartsFromTheWorkingDirectory) {
    putWorker(workingDirectory() / "tools/worker");
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", "tools/worker");
    EXPECT_NE(choice(), "");
    EXPECT_EQ(backend().readJson("runtime/runtime-status.json").at("workerProcessRunning"), true);
}

// The native protocol worker and where it is sought.

TEST_F(WorkerChoice, NativeWorkersAreSoughtByDefaultBesideTheExecutableFirst) {
    putWorker(besideTheExecutable());
    putWorker(amongTheResources());
    putWorker(inTheBuildDirectory());
    putWorker(inTheSupportDirectory());
    EXPECT_EQ(choice(), native(besideTheExecutable()));
}

TEST_F(WorkerChoice, NativeWorkerAmongTheResourcesComesSecond) {
    putWorker(amongTheResources());
    putWorker(inTheBuildDirectory());
    putWorker(inTheSupportDirectory());
    EXPECT_EQ(choice(), native(amongTheResources()));
}

TEST_F(WorkerChoice, NativeWorkerInTheBuildDirectoryBelowTheWorkingDirectoryComesThird) {
    putWorker(inTheBuildDirectory());
    putWorker(inTheSupportDirectory());
    EXPECT_EQ(choice(), native(inTheBuildDirectory()));
}

TEST_F(WorkerChoice, NativeWorkerInTheSupportDirectoryBelowTheWorkingDirectoryComesLast) {
    putWorker(inTheSupportDirectory());
    EXPECT_EQ(choice(), native(inTheSupportDirectory()));
}

TEST_F(WorkerChoice, PlaceOfTheExecutableCountsNotTheDirectoryItWasStartedFrom) {
    putWorker(besideTheExecutable());
    options_.workingDirectory = bin().string();
    options_.executable = "./BrindleManagedWhatsAppBackend";
    EXPECT_EQ(choice(), native(besideTheExecutable()));
}

TEST_F(WorkerChoice, FirstNativeCandidateThatExistsIsTakenEvenWhenItCannotBeExecuted) {
    writeFileAtomically(besideTheExecutable(), "not a program");
    putWorker(amongTheResources());
    EXPECT_EQ(choice(), native(besideTheExecutable()));
    EXPECT_EQ(backend().readJson("runtime/runtime-status.json").at("workerState"), "misconfigured");
}

TEST_F(WorkerChoice, NativePathIsTrimmedStandardisedAndWinsOverTheCandidates) {
    putWorker(besideTheExecutable());
    const fs::path worker = putWorker(place() / "native");
    set("BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH", "\t" + (place() / "bin/.././native").string() + " \n");
    EXPECT_EQ(choice(), native(worker));
}

TEST_F(WorkerChoice, WrongNativePathSwitchesTheNativeWorkerOff) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH", place() / "missing");
    EXPECT_EQ(choice(), "");
}

TEST_F(WorkerChoice, WrongNativePathLeavesTheBuiltInWorker) {
    set("BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH", place() / "missing");
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", "on");
    EXPECT_EQ(choice(), builtIn());
}

TEST_F(WorkerChoice, BlankNativePathCountsAsUnset) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH", "  ");
    EXPECT_EQ(choice(), native(besideTheExecutable()));
}

TEST_F(WorkerChoice, NativePathDoesNotSwitchDisabledNativeWorkersOn) {
    set("BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH", putWorker(place() / "native"));
    set("BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER", "on");
    EXPECT_EQ(choice(), "");
}

// Switches of the native worker.

TEST_F(WorkerChoice, DisablingNativeWorkersWinsOverEnablingThem) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER", "true");
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER", "true");
    EXPECT_EQ(choice(), "");
}

TEST_F(WorkerChoice, DisablingFlagOfNativeWorkersThatIsNotSetChangesNothing) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER", "0");
    EXPECT_EQ(choice(), native(besideTheExecutable()));
}

TEST_F(WorkerChoice, EnablingFlagOfNativeWorkersThatIsPresentButFalseDisablesThem) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER", "0");
    EXPECT_EQ(choice(), "");
}

TEST_F(WorkerChoice, EnablingFlagOfNativeWorkersThatIsBlankChangesNothing) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER", " ");
    EXPECT_EQ(choice(), native(besideTheExecutable()));
}

TEST_F(WorkerChoice, EnablingFlagOfNativeWorkersIsReadWithoutRegardToCaseAndBlanks) {
    putWorker(besideTheExecutable());
    set("XCTestConfigurationFilePath", "/some/where");
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER", " TRUE ");
    EXPECT_EQ(choice(), native(besideTheExecutable()));
}

class TestHarnessMarker : public WorkerChoice, public testing::WithParamInterface<std::string> {};

TEST_P(TestHarnessMarker, DisablesNativeWorkers) {
    putWorker(besideTheExecutable());
    set(GetParam(), "anything");
    EXPECT_EQ(choice(), "");
}

TEST_P(TestHarnessMarker, DisablesNativeWorkersEvenWithAnEmptyValue) {
    putWorker(besideTheExecutable());
    set(GetParam(), "");
    EXPECT_EQ(choice(), "");
}

TEST_P(TestHarnessMarker, YieldsToTheEnablingFlag) {
    putWorker(besideTheExecutable());
    set(GetParam(), "anything");
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER", "1");
    EXPECT_EQ(choice(), native(besideTheExecutable()));
}

TEST_P(TestHarnessMarker, WinsOverABlankEnablingFlag) {
    putWorker(besideTheExecutable());
    set(GetParam(), "anything");
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER", " ");
    EXPECT_EQ(choice(), "");
}

TEST_P(TestHarnessMarker, LeavesAnExplicitWorkerOn) {
    const fs::path worker = putWorker(place() / "worker");
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", worker);
    set(GetParam(), "anything");
    EXPECT_EQ(choice(), worker.string());
}

TEST_P(TestHarnessMarker, LeavesTheBuiltInWorkerOn) {
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", "1");
    set(GetParam(), "anything");
    EXPECT_EQ(choice(), builtIn());
}

INSTANTIATE_TEST_SUITE_P(Each, TestHarnessMarker,
                         testing::Values("XCTestConfigurationFilePath", "SWIFT_TESTING_ENABLED"));

// The built-in worker.

TEST_F(WorkerChoice, BuiltInWorkerIsTheRunningExecutable) {
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", " Yes\n");
    EXPECT_EQ(choice(), builtIn());
}

TEST_F(WorkerChoice, NativeWorkerWinsOverTheBuiltInOne) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", "1");
    EXPECT_EQ(choice(), native(besideTheExecutable()));
}

class BuiltInFlagThatIsNotSet : public WorkerChoice, public testing::WithParamInterface<std::string> {};

TEST_P(BuiltInFlagThatIsNotSet, LeavesTheBuiltInWorkerOff) {
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", GetParam());
    EXPECT_EQ(choice(), "");
}

INSTANTIATE_TEST_SUITE_P(Values, BuiltInFlagThatIsNotSet,
                         testing::Values("", " ", "0", "false", "2", "enabled"));

TEST_F(WorkerChoice, BuiltInWorkerTakesTheWorkerRoleInsteadOfGreetingAsABackend) {
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", "1");
    EXPECT_EQ(choice(), builtIn());
    // A worker is heard of by its process id, by its output or by its end.
    backend().waitUntil(
        [&] {
            return fs::exists(backend().path("runtime/worker.pid")) || !backend().standardError().empty();
        },
        "a sign of the worker");
    EXPECT_EQ(backend().standardError().find("bridgeVersion"), std::string::npos)
        << backend().standardError();
    backend().finish();
    EXPECT_EQ(backend().receivedLines().size(), 2U);
}

// What the worker process gets.

class WorkerSurroundings : public WorkerChoice {
  protected:
    /// Starts the backend with a plain worker that is up when this returns; its process id.
    pid_t startPlainWorker() {
        set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", putWorker(place() / "worker"));
        return startBackend();
    }
    pid_t startBackend() {
        start().greet();
        worker_ = waitForOnlyChild(backend().pid());
        waitForProgram(worker_);
        return worker_;
    }
    static void waitForProgram(pid_t worker) {
        waitUntil([&] { return programOf(worker) == "tail" && isSetUp(worker); },
                  "the program of the worker");
    }
    Environment expectedEnvironment() {
        Environment environment = options_.environment;
        environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = backend().path().string();
        environment["BRINDLE_MANAGED_BRIDGE_PLATFORM"] = "whatsapp";
        environment["BRINDLE_MANAGED_BRIDGE_PARENT_PID"] = std::to_string(backend().pid());
        return environment;
    }

  private:
    pid_t worker_ = 0;
};

TEST_F(WorkerSurroundings, ExplicitWorkerGetsTheSnapshotAndFourKeys) {
    set("SOMETHING_ELSE", "passes = unchanged");
    set("EMPTY_ENTRY", "");
    const pid_t worker = startPlainWorker();
    Environment expected = expectedEnvironment();
    expected["BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"] = "runtime-worker";
    EXPECT_EQ(environmentOf(worker), expected);
}

TEST_F(WorkerSurroundings, NativeWorkerGetsItsImplementationAndNoRole) {
    putWorker(besideTheExecutable());
    const pid_t worker = startBackend();
    Environment expected = expectedEnvironment();
    expected["BRINDLE_MANAGED_BRIDGE_WORKER_IMPLEMENTATION"] = "protocol-native";
    EXPECT_EQ(environmentOf(worker), expected);
}

TEST_F(WorkerSurroundings, BuiltInWorkerGetsTheRoleAndTheProcessIdOfTheBackend) {
    set("BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", "1");
    // It may end at once where it cannot show a page, so that it takes a quick look, or several.
    Environment seen;
    Environment expected;
    const auto isCaughtAlive = [&] {
        start();
        expected = expectedEnvironment();
        while (backend().isRunning() && backend().rawOutput().empty()) {
            for (const pid_t child : childrenOf(backend().pid())) {
                seen = environmentOf(child);
                if (seen.contains("BRINDLE_MANAGED_BRIDGE_PARENT_PID")) return true;
            }
        }
        return false;
    };
    waitUntil(isCaughtAlive, "a look at the built-in worker");
    expected["BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"] = "runtime-worker";
    // It overwrites these as soon as it has read them.
    for (const char* name : {"BRINDLE_HELPER_LAUNCH_TOKEN", "BRINDLE_HELPER_LAUNCH_TOKEN_FILE"}) {
        if (seen.contains(name) && seen[name].empty()) expected[name].clear();
    }
    EXPECT_EQ(seen, expected);
}

TEST_F(WorkerSurroundings, KeysOfTheWorkerReplaceThoseOfTheSnapshot) {
    set("BRINDLE_MANAGED_BRIDGE_PLATFORM", "stale");
    set("BRINDLE_MANAGED_BRIDGE_PARENT_PID", "1");
    set("BRINDLE_MANAGED_BRIDGE_WORKER_ROLE", "stale");
    set("BRINDLE_MANAGED_BRIDGE_DATA_DIR",
        "  " + (options_.dataDirectory->path() / "./x/..").string() + "/\n");
    const pid_t worker = startPlainWorker();
    Environment expected = expectedEnvironment();
    expected["BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"] = "runtime-worker";
    EXPECT_EQ(environmentOf(worker), expected);
}

TEST_F(WorkerSurroundings, ImplementationInTheSnapshotIsReplacedForTheNativeWorker) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_WORKER_IMPLEMENTATION", "stale");
    const pid_t worker = startBackend();
    EXPECT_EQ(environmentOf(worker).at("BRINDLE_MANAGED_BRIDGE_WORKER_IMPLEMENTATION"), "protocol-native");
}

TEST_F(WorkerSurroundings, RoleInTheSnapshotPassesToTheNativeWorkerUnchanged) {
    putWorker(besideTheExecutable());
    set("BRINDLE_MANAGED_BRIDGE_WORKER_ROLE", "another role");
    const pid_t worker = startBackend();
    EXPECT_EQ(environmentOf(worker).at("BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"), "another role");
}

TEST_F(WorkerSurroundings, DefaultDataDirectoryIsHandedOn) {
    options_.environment.erase("BRINDLE_MANAGED_BRIDGE_DATA_DIR");
    options_.environment.erase("XDG_RUNTIME_DIR");
    set("TMPDIR", place());
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", putWorker(place() / "worker"));
    const pid_t worker = startBackend();
    EXPECT_EQ(environmentOf(worker).at("BRINDLE_MANAGED_BRIDGE_DATA_DIR"),
              (place() / "Brindle/ManagedBridge/whatsapp").string());
}

TEST_F(WorkerSurroundings, PlatformOfTheCommandLineIsHandedOn) {
    options_.arguments = {"--platform", "signal"};
    set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", putWorker(place() / "worker"));
    start();
    const pid_t worker = waitForOnlyChild(backend().pid());
    waitForProgram(worker);
    EXPECT_EQ(environmentOf(worker).at("BRINDLE_MANAGED_BRIDGE_PLATFORM"), "signal");
}

TEST_F(WorkerSurroundings, LaunchTokenIsHandedOn) {
    const pid_t worker = startPlainWorker();
    const Environment environment = environmentOf(worker);
    EXPECT_EQ(environment.at("BRINDLE_HELPER_LAUNCH_TOKEN"), options_.launchToken->value());
    EXPECT_EQ(environment.at("BRINDLE_HELPER_LAUNCH_TOKEN_FILE"), options_.launchToken->file().string());
}

TEST_F(WorkerSurroundings, WorkerGetsNoArguments) {
    options_.arguments = {"--platform", "whatsapp", "--verbose"};
    const pid_t worker = startPlainWorker();
    // The interpreter line of the script adds its own two in front.
    EXPECT_EQ(argumentsOf(worker),
              (std::vector<std::string>{"/usr/bin/tail", "-f", (place() / "worker").string()}));
}

TEST_F(WorkerSurroundings, StandardInputIsTheOneOfTheBackend) {
    const pid_t worker = startPlainWorker();
    EXPECT_EQ(descriptorsOf(worker).at(STDIN_FILENO), descriptorsOf(backend().pid()).at(STDIN_FILENO));
}

TEST_F(WorkerSurroundings, OutputAndErrorArePipesOfTheirOwn) {
    const pid_t worker = startPlainWorker();
    const std::map<int, std::string> its = descriptorsOf(worker);
    const std::map<int, std::string> backends = descriptorsOf(backend().pid());
    EXPECT_TRUE(its.at(STDOUT_FILENO).starts_with("pipe:")) << its.at(STDOUT_FILENO);
    EXPECT_TRUE(its.at(STDERR_FILENO).starts_with("pipe:")) << its.at(STDERR_FILENO);
    EXPECT_NE(its.at(STDOUT_FILENO), its.at(STDERR_FILENO));
    EXPECT_NE(its.at(STDOUT_FILENO), backends.at(STDOUT_FILENO));
    EXPECT_NE(its.at(STDERR_FILENO), backends.at(STDERR_FILENO));
}

class InheritedTrouble : public WorkerSurroundings {
  protected:
    /// Starts the backend through a shell that prepares trouble first.
    void startThrough(const std::string& preparation) {
        const fs::path wrapper = place() / "wrapper";
        writeScript(wrapper,
                    preparation + "\nexec " + trailing_command_ + " '" + executable().string() + "' \"$@\"");
        options_.executable = wrapper.string();
    }
    void startThroughCommand(const std::string& command) {
        trailing_command_ = command;
        startThrough("");
    }
    /// A worker that becomes a plain `sleep`, which opens nothing of its own.
    pid_t startSleepingWorker() {
        set("BRINDLE_MANAGED_BRIDGE_WORKER_PATH", worker_.path());
        start().greet();
        const pid_t pid = worker_.waitForPid();
        waitUntil([&] { return isAsleep(pid); }, "the worker to sleep");
        return pid;
    }

  private:
    static bool isAsleep(pid_t pid) { return argumentsOf(pid) == std::vector<std::string>{"sleep", "600"}; }

    std::string trailing_command_;
    WorkerScript worker_{"stay"};
};

TEST_F(InheritedTrouble, OnlyTheThreeStandardDescriptorsReachTheWorker) {
    writeFileAtomically(place() / "leaked", "");
    startThrough("exec 7<'" + (place() / "leaked").string() + "' 8>/dev/null");
    const pid_t worker = startSleepingWorker();
    ASSERT_TRUE(descriptorsOf(backend().pid()).contains(7)) << "the backend did not inherit the descriptor";
    const auto numbersOf = [](const std::map<int, std::string>& descriptors) {
        std::vector<int> numbers;
        for (const auto& [number, target] : descriptors) numbers.push_back(number);
        return numbers;
    };
    // While the program starts, its loader opens a file now and then.
    waitUntil(
        [&] {
            return numbersOf(descriptorsOf(worker)) == std::vector<int>{0, 1, 2};
        },
        "a worker with three descriptors");
}

TEST_F(InheritedTrouble, NoSignalIsIgnoredInTheWorker) {
    startThrough("trap '' HUP INT QUIT USR1 ALRM");
    const pid_t worker = startSleepingWorker();
    // The C library keeps two signals for itself and has a spawned process ignore them until it needs them.
    constexpr std::uint64_t of_the_c_library = std::uint64_t{0b11} << 31;
    EXPECT_EQ(signalSetOf(worker, "SigIgn") & ~of_the_c_library, 0U);
}

TEST_F(InheritedTrouble, BrokenPipesEndTheWorkerAsUsual) {
    startThrough("");
    const pid_t worker = startSleepingWorker();
    constexpr std::uint64_t broken_pipe = std::uint64_t{1} << (SIGPIPE - 1);
    ASSERT_NE(signalSetOf(backend().pid(), "SigIgn") & broken_pipe, 0U);
    EXPECT_EQ(signalSetOf(worker, "SigIgn") & broken_pipe, 0U);
}

TEST_F(InheritedTrouble, NoSignalIsBlockedInTheWorker) {
    startThroughCommand("/usr/bin/env --block-signal=USR1 --block-signal=TERM --block-signal=HUP");
    const pid_t worker = startSleepingWorker();
    EXPECT_EQ(signalSetOf(worker, "SigBlk"), 0U);
}

}  // namespace
}  // namespace brindle::test

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/Files.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/TemporaryDirectory.h"
#include "support/WorkerScript.h"
#include "system/FileManager.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// The exit status of a helper that another one keeps from its directory (EX_TEMPFAIL).
constexpr int directory_taken = 75;

/// Two helpers that are started with the same data directory.
class DirectoryLock : public testing::Test {
  protected:
    fs::path data() const { return home_->path() / "data"; }
    BackendOptions options() const {
        BackendOptions options;
        options.dataDirectory = home_;
        options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = data();
        return options;
    }
    BackendOptions optionsWith(const WorkerScript& worker) const {
        auto options = optionsWithWorker(worker.path());
        options.dataDirectory = home_;
        options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = data();
        return options;
    }
    /// Lets the test be who has the directory.
    void takeDirectory() {
        fs::create_directories(data());
        lock_ = PosixFileManager().lockDirectory(data());
    }
    /// Starts one that has to wait; returns once it has recorded its parent and holds signals back.
    BackendProcess& startSecond(BackendOptions options) {
        second_ = std::make_unique<BackendProcess>(std::move(options));
        constexpr std::uint64_t terminated = std::uint64_t{1} << (SIGTERM - 1U);
        second_->waitUntil([&] { return (signalSetOf(second_->pid(), "SigBlk") & terminated) != 0; },
                           "the second helper to wait for the directory");
        return *second_;
    }
    BackendProcess& startSecond() { return startSecond(options()); }
    /// The second one has ended without a word and has touched nothing.
    void expectSilentEnd(const ExitStatus& status) {
        EXPECT_EQ(second_->waitForExit(), status);
        EXPECT_EQ(second_->rawOutput(), "");
        EXPECT_EQ(second_->standardError(), "");
        EXPECT_THAT(namesIn(data()), IsEmpty());
    }
    /// How a fatal line names this process, where the system tells who has the directory.
    static std::string nameOfThisProcess() {
        const auto number = std::to_string(::getpid());
        const bool isTold = contentOrNothing("/proc/locks").find(" " + number + " ") != std::string::npos;
        return isTold ? "Another helper (process " + number + ") uses" : "Another helper uses";
    }

    std::shared_ptr<TemporaryDirectory> home_ = std::make_shared<TemporaryDirectory>();
    Descriptor lock_;
    std::unique_ptr<BackendProcess> second_;
};

TEST_F(DirectoryLock, SecondHelperEndsWithOneLineThatNamesTheFirst) {
    takeDirectory();
    BackendProcess second(options());
    EXPECT_EQ(second.waitForExit(), exitedWith(directory_taken));
    EXPECT_EQ(second.rawOutput(), "");
    EXPECT_EQ(
        second.standardError(),
        fatal_prefix + nameOfThisProcess() + " the data directory \"" + data().string() +
            "\", so this one cannot start; end that one or set BRINDLE_MANAGED_BRIDGE_DATA_DIR to another directory.\n");
    EXPECT_THAT(namesIn(data()), IsEmpty());
}

TEST_F(DirectoryLock, SecondHelperLeavesTheFirstOneAlone) {
    const WorkerScript worker(R"(publish worker.pid "$$"
mark ready
stay)");
    BackendProcess first(optionsWith(worker));
    first.greet();
    first.send(connectRequest());
    worker.waitForMark("ready");
    BackendProcess second(optionsWith(worker));
    EXPECT_EQ(second.waitForExit(), exitedWith(directory_taken));
    EXPECT_TRUE(processIsRunning(worker.waitForPid()));
    EXPECT_TRUE(fs::exists(data() / "runtime/worker.pid"));
    EXPECT_EQ(readJsonFile(data() / "runtime/runtime-status.json")["connectionState"], "connected");
    EXPECT_EQ(worker.starts(), 1U);
}

TEST_F(DirectoryLock, HelperStartsOnceTheOneBeforeItHasEnded) {
    BackendProcess first(options());
    first.greet();
    auto& second = startSecond();
    first.finish();
    second.greet();
}

TEST_F(DirectoryLock, KilledHelperLocksNobodyOut) {
    BackendProcess first(options());
    first.greet();
    first.signal(SIGKILL);
    first.waitForExit();
    BackendProcess second(options());
    second.greet();
}

TEST_F(DirectoryLock, WorkerOfAKilledHelperLocksNobodyOut) {
    const WorkerScript worker("stay");
    BackendProcess first(optionsWith(worker));
    first.greet();
    const auto pid = worker.waitForPid();
    first.signal(SIGKILL);
    first.waitUntil([&] { return !processIsRunning(first.pid()); }, "the end of the first helper");
    BackendProcess second(options());
    second.greet();
    EXPECT_TRUE(processIsRunning(pid));
}

TEST_F(DirectoryLock, LinkLeadsToTheSameDirectory) {
    takeDirectory();
    fs::create_directory_symlink(data(), home_->path() / "link");
    auto throughLink = options();
    throughLink.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = home_->path() / "link";
    BackendProcess second(throughLink);
    EXPECT_EQ(second.waitForExit(), exitedWith(directory_taken));
    EXPECT_THAT(second.standardError(), StartsWith(fatal_prefix + nameOfThisProcess()));
}

TEST_F(DirectoryLock, DirectoryThatReplacesATakenOneIsFree) {
    takeDirectory();
    auto& second = startSecond();
    fs::rename(data(), home_->path() / "old");
    second.greet();
    EXPECT_THAT(namesIn(home_->path() / "old"), IsEmpty());
    EXPECT_TRUE(fs::exists(data() / "runtime/runtime-status.json"));
}

TEST_F(DirectoryLock, EndOfInputEndsTheWait) {
    takeDirectory();
    startSecond().closeInput();
    expectSilentEnd(exitedWith(0));
}

TEST_F(DirectoryLock, RequestsThatWereNotCarriedOutAreReported) {
    takeDirectory();
    auto& second = startSecond();
    second.send(connectRequest());
    second.closeInput();
    EXPECT_EQ(second.waitForExit(), exitedWith(directory_taken));
    EXPECT_THAT(second.standardError(), HasSubstr("its requests were not carried out"));
}

TEST_F(DirectoryLock, RequestsThatCameDuringTheWaitAreCarriedOut) {
    takeDirectory();
    auto& second = startSecond();
    second.send(connectRequest());
    lock_.reset();
    second.greet();
    EXPECT_EQ(second.finishAndTakeRest(), (std::vector<std::string>{connecting_line, connected_line}));
}

TEST_F(DirectoryLock, EndOfTheParentEndsTheWait) {
    takeDirectory();
    auto underParent = options();
    underParent.underIntermediateParent = true;
    startSecond(std::move(underParent)).killIntermediateParent();
    expectSilentEnd(exitedWith(0));
}

class DirectoryLockSignal : public DirectoryLock, public testing::WithParamInterface<int> {};

TEST_P(DirectoryLockSignal, EndsTheWait) {
    takeDirectory();
    startSecond().signal(GetParam());
    expectSilentEnd(killedBy(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Terminating, DirectoryLockSignal, testing::Values(SIGTERM, SIGINT, SIGHUP));

TEST_F(DirectoryLock, ConsoleBesideARunningApplicationShowsWhyItEnds) {
    takeDirectory();
    auto console = options();
    console.executable = consoleExecutable();
    BackendProcess process(console);
    EXPECT_EQ(process.waitForExit(), exitedWith(1));
    EXPECT_THAT(process.standardError(), HasSubstr(nameOfThisProcess()));
    EXPECT_THAT(process.standardError(), HasSubstr("The helper ended with exit status 75"));
}

}  // namespace
}  // namespace brindle::test

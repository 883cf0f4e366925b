#include "backend/EarlierWorker.h"
#include "exchange/WorkerProcessFile.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <limits>
#include <string>
#include <utility>

#include "support/BackendParts.h"
#include "support/ChildProcesses.h"
#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/Processes.h"
#include "support/Waiting.h"
#include "system/ChildProcess.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using std::chrono::hours;
using std::chrono::milliseconds;
using test::BackendParts;

class ProcessIdentifierTests : public testing::TestWithParam<std::pair<std::string, std::optional<pid_t>>> {};

TEST_P(ProcessIdentifierTests, IsASignedDecimalNumberOf32Bits) {
    EXPECT_EQ(parsedProcessIdentifier(GetParam().first), GetParam().second) << '"' << GetParam().first << '"';
}

using Parsed = std::pair<std::string, std::optional<pid_t>>;
INSTANTIATE_TEST_SUITE_P(
    Texts, ProcessIdentifierTests,
    testing::Values(Parsed{"1", 1}, Parsed{"12345", 12345}, Parsed{" 42\n", 42}, Parsed{"\u00A042\u2028", 42},
                    Parsed{"+42", 42}, Parsed{"-42", -42}, Parsed{"0", 0}, Parsed{"-0", 0}, Parsed{"007", 7},
                    Parsed{"2147483647", std::numeric_limits<pid_t>::max()},
                    Parsed{"-2147483648", std::numeric_limits<pid_t>::min()},
                    Parsed{"2147483648", std::nullopt}, Parsed{"-2147483649", std::nullopt},
                    Parsed{"99999999999999999999", std::nullopt}, Parsed{"", std::nullopt},
                    Parsed{" ", std::nullopt}, Parsed{"+", std::nullopt}, Parsed{"-", std::nullopt},
                    Parsed{"+-1", std::nullopt}, Parsed{"++1", std::nullopt}, Parsed{"-+1", std::nullopt},
                    Parsed{"--1", std::nullopt}, Parsed{"abc", std::nullopt}, Parsed{"12a", std::nullopt},
                    Parsed{"a12", std::nullopt}, Parsed{"1 2", std::nullopt}, Parsed{"1.5", std::nullopt},
                    Parsed{"0x10", std::nullopt}, Parsed{"1e3", std::nullopt}, Parsed{"+ 1", std::nullopt},
                    Parsed{"\u0661", std::nullopt}, Parsed{std::string("1\0", 2), std::nullopt}));

/// A process that does nothing and has just begun.
class Sleeper {
  public:
    explicit Sleeper(Environment environment = {{"HOME", "/nowhere"}})
        : process_(
              {.executable = "/bin/sleep", .arguments = {"1000"}, .environment = std::move(environment)}) {
        // Before that the system knows no environment of it.
        test::waitUntil([this] { return test::isSetUp(identifier()); }, "the program to be set up");
    }

    pid_t identifier() const { return process_.processIdentifier(); }
    bool hasEnded() const { return process_.hasEnded(); }
    int endingSignal() const { return process_.waitForEnd().number; }

  private:
    ChildProcess process_;
};

class EarlierWorkerTests : public testing::Test {
  protected:
    /// Clears up after a "worker.pid" that was written that long ago.
    void clearUp(pid_t process, milliseconds age = milliseconds{0}) {
        const auto& file = parts_.directory.workerPIDFile;
        test::writeFileAtomically(file, std::to_string(process));
        fs::last_write_time(file, fs::last_write_time(file) - age);
        endEarlierWorker(parts_.directory, parts_.files, parts_.clock);
        EXPECT_FALSE(fs::exists(file));
    }
    /// Whoever is signalled is also waited for.
    bool isAnybodySignalled() const { return !parts_.clock.sleeps().empty(); }
    /// It was asked to end before it was made to.
    void expectEnd(const Sleeper& worker) const {
        EXPECT_TRUE(isAnybodySignalled());
        test::waitUntil([&] { return worker.hasEnded(); }, "the end of the earlier worker");
        EXPECT_EQ(worker.endingSignal(), SIGTERM);
    }
    /// An environment that names a data directory.
    static Environment environmentFor(const std::string& directory) {
        return {{"HOME", "/nowhere"}, {std::string(environment_key::data_directory), directory}};
    }

    BackendParts parts_;
};

TEST_F(EarlierWorkerTests, ProcessThatWroteTheFileIsEnded) {
    const Sleeper worker;
    clearUp(worker.identifier());
    expectEnd(worker);
}

TEST_F(EarlierWorkerTests, ProcessThatBeganLongAfterTheFileIsSpared) {
    const Sleeper stranger;
    clearUp(stranger.identifier(), hours{1});
    EXPECT_FALSE(isAnybodySignalled());
}

TEST_F(EarlierWorkerTests, ProcessThatSeemsToHaveBegunAMomentAfterTheFileIsEnded) {
    const Sleeper worker;
    clearUp(worker.identifier(), milliseconds{1500});
    expectEnd(worker);
}

TEST_F(EarlierWorkerTests, ProcessThatWasStartedForTheDirectoryIsEndedHoweverYoung) {
    const Sleeper worker(environmentFor(parts_.directory.path));
    clearUp(worker.identifier(), hours{1});
    expectEnd(worker);
}

TEST_F(EarlierWorkerTests, DirectoryMayBeWrittenInAnotherWay) {
    const Sleeper worker(environmentFor(" " + parts_.directory.path + "/../data/\n"));
    clearUp(worker.identifier(), hours{1});
    expectEnd(worker);
}

TEST_F(EarlierWorkerTests, DirectoryMayBeNamedThroughALink) {
    const auto link = parts_.home.path() / "link";
    fs::create_directory_symlink(parts_.directory.path, link);
    const Sleeper worker(environmentFor(link));
    clearUp(worker.identifier(), hours{1});
    expectEnd(worker);
}

TEST_F(EarlierWorkerTests, ProcessThatWasStartedForAnotherDirectoryIsSpared) {
    const Sleeper stranger(environmentFor(parts_.home.path()));
    clearUp(stranger.identifier(), hours{1});
    EXPECT_FALSE(isAnybodySignalled());
}

TEST_F(EarlierWorkerTests, OldProcessOfAnotherDirectoryIsEndedAsItsNumberStandsInTheFile) {
    const Sleeper worker(environmentFor(parts_.home.path()));
    clearUp(worker.identifier());
    expectEnd(worker);
}

/// The real file system, where "worker.pid" is somebody else's.
class FileOfAnother final : public test::ForwardingFileManager {
  public:
    FileOfAnother(FileManager& next, std::string path)
        : ForwardingFileManager(next), path_(std::move(path)) {}

    std::optional<FileAttributes> attributes(const std::string& path) override {
        auto found = ForwardingFileManager::attributes(path);
        if (found && path == path_) ++found->owner;
        return found;
    }

  private:
    std::string path_;
};

TEST_F(EarlierWorkerTests, ProcessThatSomebodyElseHasNamedIsSpared) {
    const Sleeper stranger(environmentFor(parts_.directory.path));
    const auto& path = parts_.directory.workerPIDFile;
    test::writeFileAtomically(path, std::to_string(stranger.identifier()));
    FileOfAnother files(parts_.files, path);
    endEarlierWorker(parts_.directory, files, parts_.clock);
    EXPECT_FALSE(isAnybodySignalled());
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(EarlierWorkerTests, ItselfIsSpared) {
    EXPECT_EQ(test::statusOfChild([this] {
                  clearUp(::getpid());
                  return isAnybodySignalled() ? 1 : 0;
              }),
              0);
}

TEST_F(EarlierWorkerTests, ParentIsSpared) {
    // The test itself would end.
    EXPECT_EQ(test::statusOfChild([this, parent = ::getpid()] {
                  clearUp(parent);
                  return isAnybodySignalled() ? 1 : 0;
              }),
              0);
}

}  // namespace
}  // namespace brindle

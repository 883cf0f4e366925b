#include "backend/DataDirectoryLock.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "exchange/EnvironmentKeys.h"
#include "support/FaultInjectingFileManager.h"
#include "support/Files.h"
#include "support/MemoryStreams.h"
#include "support/Pipes.h"
#include "support/TemporaryDirectory.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using test::namesIn;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// Every look at it takes a second, in which something may happen.
class BusyClock final : public Clock {
  public:
    std::chrono::system_clock::time_point now() const override { return {}; }
    std::chrono::nanoseconds sinceBoot() const override {
        if (passed_ == eventTime_) event_();
        return passed_++;
    }
    void sleep(std::chrono::milliseconds /*duration*/) const override {}

    void letHappen(seconds after, std::function<void()> event) {
        eventTime_ = after;
        event_ = std::move(event);
    }
    seconds passed() const { return passed_; }

  private:
    mutable seconds passed_{0};
    seconds eventTime_{-1};
    std::function<void()> event_;
};

class DataDirectoryLockTests : public testing::Test {
  protected:
    std::optional<Descriptor> lock() {
        return lockDataDirectory({.directory = directory_,
                                  .fileManager = files_,
                                  .clock = clock_,
                                  .input = input_.reading.get(),
                                  .endRequest = endRequest_.get(),
                                  .parentProcessIdentifier = parent_});
    }
    /// Lets another helper have the directory.
    void letItBeTaken() {
        fs::create_directories(directory_.path);
        other_ = files_.lockDirectory(directory_.path);
    }
    std::string refusal() {
        try {
            lock();
        } catch (const DataDirectoryTaken& taken) {
            return taken.what();
        }
        return "taken all the same";
    }
    bool isLockOfThePath(const Descriptor& lock) const {
        struct stat locked {};
        struct stat named {};
        return ::fstat(lock.get(), &locked) == 0 && ::stat(directory_.path.c_str(), &named) == 0 &&
               locked.st_ino == named.st_ino;
    }

    test::TemporaryDirectory home_;
    test::FaultInjectingFileManager files_;
    DataDirectory directory_{
        {{std::string(environment_key::data_directory), (home_.path() / "data").string()}},
        files_,
        "whatsapp"};
    BusyClock clock_;
    test::PipeEnds input_ = test::makePipe();
    Descriptor endRequest_{::eventfd(0, EFD_CLOEXEC)};
    pid_t parent_ = ::getppid();
    Descriptor other_;
};

TEST_F(DataDirectoryLockTests, FreeDirectoryIsTakenAtOnceAndNothingIsMadeInIt) {
    const auto lock = this->lock();
    ASSERT_TRUE(lock);
    EXPECT_TRUE(isLockOfThePath(*lock));
    EXPECT_EQ(clock_.passed(), seconds(1));
    EXPECT_THAT(namesIn(home_.path()), ElementsAre("data"));
    EXPECT_THAT(namesIn(directory_.path), IsEmpty());
}

TEST_F(DataDirectoryLockTests, DirectoryOfAnotherIsRefusedAfterFiveSeconds) {
    letItBeTaken();
    EXPECT_EQ(refusal(),
              "Another helper uses the data directory \"" + directory_.path +
                  "\", so this one cannot start; end that one or set BRINDLE_MANAGED_BRIDGE_DATA_DIR to "
                  "another directory.");
    EXPECT_GE(clock_.passed(), seconds(5));
    EXPECT_THAT(namesIn(directory_.path), IsEmpty());
}

TEST_F(DataDirectoryLockTests, DirectoryOfOneThatEndsMeanwhileIsTaken) {
    letItBeTaken();
    clock_.letHappen(seconds(3), [this] { other_.reset(); });
    const auto lock = this->lock();
    ASSERT_TRUE(lock);
    EXPECT_TRUE(isLockOfThePath(*lock));
}

TEST_F(DataDirectoryLockTests, DirectoryThatIsReplacedMeanwhileIsTaken) {
    letItBeTaken();
    clock_.letHappen(seconds(2), [this] { fs::rename(directory_.path, home_.path() / "old"); });
    const auto lock = this->lock();
    ASSERT_TRUE(lock);
    EXPECT_TRUE(isLockOfThePath(*lock));
}

TEST_F(DataDirectoryLockTests, DirectoryThatIsReplacedWhileItIsTakenIsTakenAnew) {
    files_.set({.operation = 1, .code = ESTALE, .action = "lock"});
    const auto lock = this->lock();
    ASSERT_TRUE(lock);
    EXPECT_TRUE(isLockOfThePath(*lock));
    EXPECT_THAT(files_.failures(), ElementsAre("lock " + directory_.path));
}

TEST_F(DataDirectoryLockTests, LinkLeadsToTheSameLock) {
    fs::create_directories(home_.path() / "real");
    fs::create_directory_symlink(home_.path() / "real", directory_.path);
    other_ = files_.lockDirectory(home_.path() / "real");
    EXPECT_THAT(refusal(), HasSubstr("Another helper"));
}

class NoLocksTests : public DataDirectoryLockTests, public testing::WithParamInterface<int> {};

TEST_P(NoLocksTests, FileSystemWithoutLocksIsNoReasonToRefuse) {
    files_.set({.operation = 1, .code = GetParam(), .action = "lock"});
    const auto lock = this->lock();
    ASSERT_TRUE(lock);
    EXPECT_FALSE(lock->isOpen());
    EXPECT_TRUE(files_.wasMet());
}

INSTANTIATE_TEST_SUITE_P(Codes, NoLocksTests,
                         testing::Values(ENOLCK, EOPNOTSUPP, ENOSYS, EACCES, EBADF, EMFILE));

TEST_F(DataDirectoryLockTests, DirectoryThatCannotBeMadeIsAFailureOfTheFileSystem) {
    test::writeFileAtomically(directory_.path, "");
    EXPECT_THROW(lock(), FileSystemFailure);
}

/// While another helper has the directory.
class DataDirectoryWaitTests : public DataDirectoryLockTests {
  protected:
    void SetUp() override { letItBeTaken(); }
    /// The wait ended because this process is to end, as soon as it was to.
    void expectEnd() {
        EXPECT_FALSE(lock());
        EXPECT_EQ(clock_.passed(), seconds(1));
    }
};

TEST_F(DataDirectoryWaitTests, EndsWithTheInput) {
    input_.writing.reset();
    expectEnd();
}

TEST_F(DataDirectoryWaitTests, EndsWithAnEmptyFileAsInput) {
    input_.reading = test::memoryFileWith("");
    expectEnd();
}

TEST_F(DataDirectoryWaitTests, EndsWithTheNullDeviceAsInput) {
    input_.reading = Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    expectEnd();
}

TEST_F(DataDirectoryWaitTests, EndsWithAnInputThatCannotBeRead) {
    input_.reading = Descriptor(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    expectEnd();
}

TEST_F(DataDirectoryWaitTests, EndsWhenTheEndIsRequested) {
    endRequest_ = Descriptor(::eventfd(1, EFD_CLOEXEC));
    test::put(input_.writing, "request\n");
    expectEnd();
}

TEST_F(DataDirectoryWaitTests, EndsWhenTheParentIsGone) {
    parent_ = ::getpid();
    expectEnd();
}

TEST_F(DataDirectoryWaitTests, EndsWithTheInputThoughOnlyLater) {
    clock_.letHappen(seconds(2), [this] { input_.writing.reset(); });
    EXPECT_FALSE(lock());
    EXPECT_EQ(clock_.passed(), seconds(3));
}

TEST_F(DataDirectoryWaitTests, DoesNotEndBecauseARequestHasCome) {
    test::put(input_.writing, "request\n");
    EXPECT_THAT(refusal(), HasSubstr("Another helper"));
    EXPECT_GE(clock_.passed(), seconds(5));
}

TEST_F(DataDirectoryWaitTests, RequestsThatEndWithTheInputAreReportedAsNotCarriedOut) {
    test::put(input_.writing, "request\n");
    input_.writing.reset();
    EXPECT_EQ(refusal(), "The input ended while another helper used the data directory \"" + directory_.path +
                             "\", so its requests were not carried out; send them again.");
    EXPECT_EQ(clock_.passed(), seconds(1));
}

}  // namespace
}  // namespace brindle

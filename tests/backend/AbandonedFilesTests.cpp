#include "backend/AbandonedFiles.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "support/BackendParts.h"
#include "support/Files.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using std::chrono::hours;
using std::chrono::seconds;
using test::BackendParts;
using test::namesIn;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class AbandonedFilesTests : public testing::Test {
  protected:
    std::string put(const std::string& directory, const std::string& name, std::chrono::nanoseconds age) {
        const auto path = directory + "/" + name;
        test::writeFileAtomically(path, "half");
        // The clock of the test stands at another time than the one of the file system.
        const auto now = std::chrono::file_clock::from_sys(parts_.clock.now());
        fs::last_write_time(path, now - age);
        return path;
    }
    void finish() {
        while (abandoned_.step()) {
        }
    }
    void look() {
        abandoned_.begin();
        finish();
    }
    void lookAgain() {
        abandoned_.lookAgain();
        finish();
    }

    BackendParts parts_;
    const DataDirectory& directory_ = parts_.directory;
    AbandonedFiles abandoned_{
        {.directory = parts_.directory, .fileManager = parts_.files, .clock = parts_.clock}};
};

TEST_F(AbandonedFilesTests, OldOnesGoAtOnceWhereverRecordsAreWritten) {
    for (const auto& directory : {directory_.inbound, directory_.outbound, directory_.runtime}) {
        put(directory, ".brindle-a1B2c3", seconds{61});
    }
    look();
    EXPECT_THAT(namesIn(directory_.inbound), IsEmpty());
    EXPECT_THAT(namesIn(directory_.outbound), IsEmpty());
    EXPECT_THAT(namesIn(directory_.runtime), testing::Not(Contains(".brindle-a1B2c3")));
    EXPECT_FALSE(abandoned_.hasSuspects());
}

TEST_F(AbandonedFilesTests, YoungOnesStayUntilTheSecondLook) {
    const auto file = put(directory_.inbound, ".brindle-a1B2c3", seconds{60});
    look();
    EXPECT_TRUE(fs::exists(file));
    EXPECT_TRUE(abandoned_.hasSuspects());
    lookAgain();
    EXPECT_FALSE(fs::exists(file));
    EXPECT_FALSE(abandoned_.hasSuspects());
}

TEST_F(AbandonedFilesTests, OneThatSeemsToComeFromTheFutureGoesAtTheSecondLook) {
    const auto file = put(directory_.outbound, ".brindle-a1B2c3", -hours{1000});
    look();
    EXPECT_TRUE(fs::exists(file));
    lookAgain();
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(AbandonedFilesTests, OneThatIsWrittenToInBetweenStays) {
    const auto file = put(directory_.inbound, ".brindle-a1B2c3", seconds{1});
    look();
    fs::last_write_time(file, fs::last_write_time(file) + seconds{1});
    lookAgain();
    EXPECT_TRUE(fs::exists(file));
}

TEST_F(AbandonedFilesTests, OneThatIsTouchedInBetweenStaysThoughItsTimeIsSetBack) {
    const auto file = put(directory_.inbound, ".brindle-a1B2c3", seconds{1});
    look();
    parts_.files.pretendStatusChange(file, parts_.clock.now() + hours{1});
    lookAgain();
    EXPECT_TRUE(fs::exists(file));
}

TEST_F(AbandonedFilesTests, AnotherOneOfTheSameNameStays) {
    const auto file = put(directory_.inbound, ".brindle-a1B2c3", seconds{1});
    look();
    put(directory_.inbound, ".brindle-a1B2c3", seconds{1});
    lookAgain();
    EXPECT_TRUE(fs::exists(file));
}

TEST_F(AbandonedFilesTests, OneThatComesAfterTheFirstLookStays) {
    put(directory_.inbound, ".brindle-a1B2c3", seconds{1});
    look();
    const auto file = put(directory_.inbound, ".brindle-D4e5F6", seconds{100});
    lookAgain();
    EXPECT_THAT(namesIn(directory_.inbound), ElementsAre(".brindle-D4e5F6"));
}

TEST_F(AbandonedFilesTests, OtherFilesStayHoweverOld) {
    for (const char* name : {".brindle-a1B2c", ".brindle-a1B2c3d", ".brindle", ".other-a1B2c3",
                             "brindle-a1B2c3", "record.json", ".hidden.json"}) {
        put(directory_.inbound, name, hours{1000});
    }
    fs::create_directory(directory_.inbound + "/.brindle-direct");
    fs::last_write_time(directory_.inbound + "/.brindle-direct", fs::file_time_type() - hours{1000});
    const auto before = namesIn(directory_.inbound);
    look();
    lookAgain();
    EXPECT_EQ(namesIn(directory_.inbound), before);
}

TEST_F(AbandonedFilesTests, StepIsSmallHoweverManyFilesThereAre) {
    for (int count = 100; count < 300; ++count) {
        put(directory_.inbound, ".brindle-aaa" + std::to_string(count), hours{1});
    }
    abandoned_.begin();
    auto before = namesIn(directory_.inbound).size();
    while (abandoned_.step()) {
        EXPECT_LE(before - namesIn(directory_.inbound).size(), 32U);
        before = namesIn(directory_.inbound).size();
    }
    EXPECT_THAT(namesIn(directory_.inbound), IsEmpty());
}

TEST_F(AbandonedFilesTests, EndsWhateverFails) {
    for (int operation = 1;; ++operation) {
        using Fault = test::FaultInjectingFileManager;
        for (const auto persistence : {Fault::Persistence::once, Fault::Persistence::fromThenOn}) {
            put(directory_.inbound, ".brindle-a1B2c3", hours{1});
            put(directory_.outbound, ".brindle-a1B2c3", seconds{1});
            parts_.files.set({.operation = operation, .persistence = persistence, .code = EIO});
            look();
            lookAgain();
            if (!parts_.files.wasMet()) return;
            parts_.files.clear();
        }
    }
}

}  // namespace
}  // namespace brindle

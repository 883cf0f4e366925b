#include "backend/Retention.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "exchange/EnvironmentKeys.h"
#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/TextForms.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using test::BackendParts;
using test::namesIn;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

Environment withDays(const std::string& value) {
    return {{std::string(environment_key::retention_days), value}};
}

TEST(RetentionSettingTests, DeliveredRecordsAreKeptForThreeDaysAndRefusedOnesForThirty) {
    for (const auto& environment : {Environment{}, withDays(""), withDays(" \n")}) {
        const auto setting = retentionSetting(environment);
        ASSERT_TRUE(setting.periods);
        EXPECT_EQ(setting.periods->delivered, days{3});
        EXPECT_EQ(setting.periods->refused, days{30});
        EXPECT_EQ(setting.problem, "");
    }
}

TEST(RetentionSettingTests, DaysOfDeliveredRecordsAreSetAndRefusedOnesAreKeptTenTimesAsLong) {
    for (const auto& [text, number] : {std::pair{"1", 1}, {" 7\n", 7}, {"007", 7}, {"36500", 36500}}) {
        const auto setting = retentionSetting(withDays(text));
        ASSERT_TRUE(setting.periods) << text;
        EXPECT_EQ(setting.periods->delivered, days{number});
        EXPECT_EQ(setting.periods->refused, days{number * 10});
        EXPECT_EQ(setting.problem, "");
    }
}

TEST(RetentionSettingTests, NoDaysMeanThatEverythingIsKept) {
    EXPECT_FALSE(retentionSetting(withDays("0")).periods);
    EXPECT_EQ(retentionSetting(withDays("0")).problem, "");
}

TEST(RetentionSettingTests, AnythingElseIsReportedAndMeansTheDefault) {
    for (const std::string text : {"-1", "-0", "+1", "36501", "99999999999999999999", "1.5", "1e3", "0x1",
                                   "1 2", "three", "\u0661", "1d"}) {
        const auto setting = retentionSetting(withDays(text));
        ASSERT_TRUE(setting.periods) << text;
        EXPECT_EQ(setting.periods->delivered, days{3});
        EXPECT_EQ(setting.problem,
                  "BRINDLE_MANAGED_BRIDGE_RETENTION_DAYS is \"" + text +
                      "\", which is no whole number from 0 to 36500; delivered records are kept "
                      "for 3 days and refused ones for 30.");
    }
}

class RetentionTests : public testing::Test {
  protected:
    explicit RetentionTests(Environment environment = {}) : parts_(std::move(environment)) {}

    Retention::Uses uses() {
        return {.environment = parts_.environment,
                .directory = parts_.directory,
                .fileManager = parts_.files,
                .clock = parts_.clock,
                .log = parts_.log,
                .isNeeded = [this](const std::string& path) { return path == needed_; }};
    }
    /// Leaves a file that arrived that long ago.
    void put(const std::string& directory, const std::string& name, std::chrono::nanoseconds age,
             const std::string& content = "{}") {
        const auto path = directory + "/" + name;
        test::writeFileAtomically(path, content);
        parts_.files.pretendStatusChange(path, parts_.clock.now() - age);
    }
    void sweep(Retention& retention) {
        retention.begin();
        while (retention.step()) {
        }
    }
    void sweep() {
        Retention retention(uses());
        sweep(retention);
    }
    std::vector<std::string> log() const { return test::linesOf(parts_.streams.text().error); }

    BackendParts parts_;
    const DataDirectory& directory_ = parts_.directory;
    /// The path of a record that may be needed again.
    std::string needed_;
};

TEST_F(RetentionTests, DeliveredRecordsGoAfterThreeDays) {
    for (const auto& directory : {directory_.processed, directory_.workerProcessedOutbound}) {
        put(directory, "old.json", days{3} + seconds{1});
        put(directory, "young.json", days{3});
    }
    sweep();
    EXPECT_THAT(namesIn(directory_.processed), ElementsAre("young.json"));
    EXPECT_THAT(namesIn(directory_.workerProcessedOutbound), ElementsAre("young.json"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(RetentionTests, RecordThatMayBeNeededAgainStays) {
    put(directory_.processed, "old.json", days{4});
    put(directory_.processed, "unread.json", days{4});
    needed_ = directory_.processed + "/unread.json";
    sweep();
    EXPECT_THAT(namesIn(directory_.processed), ElementsAre("unread.json"));
}

TEST_F(RetentionTests, RefusedRecordsGoAfterThirtyDays) {
    for (const auto& directory : {directory_.rejected, directory_.workerRejectedOutbound}) {
        put(directory, "old.json", days{30} + seconds{1});
        put(directory, "young.json", days{30});
    }
    sweep();
    EXPECT_THAT(namesIn(directory_.rejected), ElementsAre("young.json"));
    EXPECT_THAT(namesIn(directory_.workerRejectedOutbound), ElementsAre("young.json"));
}

TEST_F(RetentionTests, RecordsThatWaitAreNeverTouched) {
    put(directory_.inbound, "a.json", days{40000});
    put(directory_.outbound, "b.json", days{40000});
    put(directory_.runtime, "c.json", days{40000});
    sweep();
    EXPECT_TRUE(fs::exists(directory_.inbound + "/a.json"));
    EXPECT_TRUE(fs::exists(directory_.outbound + "/b.json"));
    EXPECT_TRUE(fs::exists(directory_.runtime + "/c.json"));
}

TEST_F(RetentionTests, OnlyRecordsGo) {
    put(directory_.processed, "a.txt", days{100});
    put(directory_.processed, ".hidden.json", days{100});
    put(directory_.processed, "UPPER.JSON", days{100});
    put(directory_.processed, "old.json", days{100});
    const auto pretend = [&](const std::string& name) {
        parts_.files.pretendStatusChange(directory_.processed + "/" + name, parts_.clock.now() - days{100});
    };
    fs::create_directories(directory_.processed + "/directory.json");
    pretend("directory.json");
    ASSERT_EQ(::mkfifo((directory_.processed + "/fifo.json").c_str(), 0600), 0);
    pretend("fifo.json");
    fs::create_symlink("a.txt", directory_.processed + "/link.json");
    pretend("link.json");
    sweep();
    EXPECT_THAT(namesIn(directory_.processed), ElementsAre(".hidden.json", "UPPER.JSON", "a.txt",
                                                           "directory.json", "fifo.json", "link.json"));
}

TEST_F(RetentionTests, RecordFromTheFutureStays) {
    put(directory_.processed, "a.json", -days{100});
    sweep();
    EXPECT_THAT(namesIn(directory_.processed), ElementsAre("a.json"));
}

TEST_F(RetentionTests, StepIsSmallHoweverManyFilesThereAre) {
    constexpr int files = 1000;
    for (int count = 0; count < files; ++count)
        put(directory_.processed, std::to_string(count) + ".json", days{4});
    Retention retention(uses());
    retention.begin();
    const auto remaining = [&] { return namesIn(directory_.processed).size(); };
    std::size_t before = remaining();
    while (retention.step()) {
        EXPECT_LE(before - remaining(), 32U);
        before = remaining();
    }
    EXPECT_EQ(remaining(), 0U);
}

TEST_F(RetentionTests, SweepIsPostponedWhenTheClockWasSet) {
    put(directory_.processed, "a.json", hours{1});
    Retention retention(uses());
    parts_.clock.turnTo(parts_.clock.now() + days{400});
    sweep(retention);
    EXPECT_THAT(namesIn(directory_.processed), SizeIs(1));
    parts_.clock.pass(hours{1});
    sweep(retention);
    EXPECT_THAT(namesIn(directory_.processed), IsEmpty());
}

TEST_F(RetentionTests, SweepIsAbandonedWhenTheClockIsSetMeanwhile) {
    for (int count = 0; count < 100; ++count)
        put(directory_.processed, std::to_string(count) + ".json", hours{1});
    Retention retention(uses());
    retention.begin();
    EXPECT_TRUE(retention.step());
    parts_.clock.turnTo(parts_.clock.now() + days{400});
    EXPECT_FALSE(retention.step());
    EXPECT_THAT(namesIn(directory_.processed), SizeIs(100));
}

TEST_F(RetentionTests, ClockThatIsCorrectedALittlePostponesNothing) {
    put(directory_.processed, "a.json", days{4});
    Retention retention(uses());
    parts_.clock.turnTo(parts_.clock.now() - seconds{50});
    sweep(retention);
    EXPECT_THAT(namesIn(directory_.processed), IsEmpty());
}

TEST_F(RetentionTests, LongSleepOfTheMachinePostponesNothing) {
    put(directory_.processed, "a.json", days{2});
    Retention retention(uses());
    parts_.clock.pass(hours{48});
    sweep(retention);
    EXPECT_THAT(namesIn(directory_.processed), IsEmpty());
}

TEST_F(RetentionTests, FailureIsLoggedOnceASweepAndTheRestGoes) {
    for (const char* name : {"a.json", "b.json", "c.json"}) put(directory_.processed, name, days{4});
    put(directory_.rejected, "d.json", days{40});
    for (const auto& each : {directory_.workerProcessedOutbound, directory_.workerRejectedOutbound}) {
        fs::remove_all(each);
        std::ofstream(each) << "in the directory's place";
    }
    Retention retention(uses());
    sweep(retention);
    EXPECT_THAT(namesIn(directory_.processed), IsEmpty());
    EXPECT_THAT(namesIn(directory_.rejected), IsEmpty());
    EXPECT_THAT(log(), ElementsAre("[ManagedWhatsAppBackend] failed to remove old records: Cannot list \"" +
                                   directory_.workerProcessedOutbound + "\": Not a directory."));
    sweep(retention);
    EXPECT_THAT(log(), SizeIs(2));
}

TEST_F(RetentionTests, RecordThatCannotBeRemovedIsReported) {
    put(directory_.processed, "a.json", days{4});
    parts_.files.set({.operation = 1, .code = EACCES, .action = "remove"});
    sweep();
    ASSERT_TRUE(parts_.files.wasMet());
    EXPECT_THAT(log(), ElementsAre(HasSubstr("failed to remove old records: Cannot remove \"" +
                                             directory_.processed + "/a.json\": Permission denied.")));
}

TEST_F(RetentionTests, RecordThatSomebodyElseHasRemovedIsNothingToReport) {
    put(directory_.processed, "a.json", days{4});
    parts_.files.set({.operation = 1, .code = ENOENT, .action = "remove"});
    sweep();
    ASSERT_TRUE(parts_.files.wasMet());
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(RetentionTests, DirectoryThatHasVanishedIsNothingToReport) {
    put(directory_.processed, "a.json", days{4});
    fs::remove_all(directory_.rejected);
    sweep();
    EXPECT_THAT(namesIn(directory_.processed), IsEmpty());
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(RetentionTests, EndsWhateverFails) {
    for (int operation = 1;; ++operation) {
        using Fault = test::FaultInjectingFileManager;
        for (const auto persistence : {Fault::Persistence::once, Fault::Persistence::fromThenOn}) {
            put(directory_.processed, "a.json", days{4});
            put(directory_.rejected, "b.json", days{4});
            parts_.files.set({.operation = operation, .persistence = persistence, .code = EIO});
            sweep();
            if (!parts_.files.wasMet()) return;
            parts_.files.clear();
            sweep();
            EXPECT_THAT(namesIn(directory_.processed), IsEmpty());
            EXPECT_THAT(namesIn(directory_.rejected), ElementsAre("b.json"));
        }
    }
}

/// A file system on which ten records of a page each are a tenth.
class FullMemoryTests : public RetentionTests {
  protected:
    static constexpr std::uintmax_t tenth_records = 10;

    void SetUp() override {
        put(directory_.processed, "probe.json", days{0});
        const auto bytes = parts_.files.attributes(directory_.processed + "/probe.json")->allocatedBytes;
        fs::remove(directory_.processed + "/probe.json");
        if (bytes == 0) GTEST_SKIP() << "This file system does not tell what a small file takes.";
        parts_.files.pretendFileSystemBytes(bytes * tenth_records * 10);
    }
    void putDelivered(const std::string& directory, int first, int count) {
        for (int age = first; age < first + count; ++age) {
            put(directory, std::to_string(age) + "-minutes.json", minutes{age});
        }
    }
};

TEST_F(FullMemoryTests, DeliveredRecordsMayTakeATenth) {
    putDelivered(directory_.processed, 10, 10);
    sweep();
    EXPECT_THAT(namesIn(directory_.processed), SizeIs(10));
}

TEST_F(FullMemoryTests, OldestDeliveredRecordsGoFirstBeyondATenth) {
    putDelivered(directory_.processed, 10, 6);
    putDelivered(directory_.workerProcessedOutbound, 16, 7);
    sweep();
    EXPECT_THAT(namesIn(directory_.processed), SizeIs(6));
    EXPECT_THAT(
        namesIn(directory_.workerProcessedOutbound),
        UnorderedElementsAre("16-minutes.json", "17-minutes.json", "18-minutes.json", "19-minutes.json"));
}

TEST_F(FullMemoryTests, RecordThatMayBeNeededAgainStays) {
    putDelivered(directory_.processed, 10, 12);
    needed_ = directory_.processed + "/21-minutes.json";
    sweep();
    EXPECT_TRUE(fs::exists(needed_));
    EXPECT_FALSE(fs::exists(directory_.processed + "/20-minutes.json"));
}

TEST_F(FullMemoryTests, OldestGoWithinAStepHoweverManyGo) {
    putDelivered(directory_.processed, 0, 200);
    Retention retention(uses());
    retention.begin();
    auto before = namesIn(directory_.processed).size();
    while (retention.step()) {
        const auto now = namesIn(directory_.processed).size();
        EXPECT_LE(before - now, 32U);
        before = now;
    }
    EXPECT_THAT(namesIn(directory_.processed), SizeIs(10));
    EXPECT_TRUE(fs::exists(directory_.processed + "/9-minutes.json"));
}

TEST_F(FullMemoryTests, RefusedRecordsDoNotCount) {
    putDelivered(directory_.processed, 10, 10);
    putDelivered(directory_.rejected, 10, 30);
    sweep();
    EXPECT_THAT(namesIn(directory_.processed), SizeIs(10));
    EXPECT_THAT(namesIn(directory_.rejected), SizeIs(30));
}

TEST_F(FullMemoryTests, FileSystemWithoutABoundIsNeverFull) {
    parts_.files.pretendFileSystemBytes(0);
    putDelivered(directory_.processed, 10, 30);
    sweep();
    EXPECT_THAT(namesIn(directory_.processed), SizeIs(30));
}

class KeepingEverythingTests : public RetentionTests {
  protected:
    KeepingEverythingTests() : RetentionTests(withDays("0")) {}
};

TEST_F(KeepingEverythingTests, NothingGoesHoweverOldOrLarge) {
    parts_.files.pretendFileSystemBytes(1);
    put(directory_.processed, "a.json", days{40000});
    sweep();
    EXPECT_THAT(namesIn(directory_.processed), ElementsAre("a.json"));
}

class WrongRetentionSettingTests : public RetentionTests {
  protected:
    WrongRetentionSettingTests() : RetentionTests(withDays("many\n\nlines")) {}
};

TEST_F(WrongRetentionSettingTests, IsLoggedOnce) {
    Retention retention(uses());
    EXPECT_THAT(log(), IsEmpty());
    sweep(retention);
    sweep(retention);
    EXPECT_THAT(
        log(),
        ElementsAre(HasSubstr("BRINDLE_MANAGED_BRIDGE_RETENTION_DAYS is \"many??lines\", which is no")));
}

}  // namespace
}  // namespace brindle

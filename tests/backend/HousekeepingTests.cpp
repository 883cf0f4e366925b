#include "backend/Housekeeping.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>

#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using std::chrono::days;
using std::chrono::hours;
using std::chrono::milliseconds;
using test::BackendParts;
using test::waitUntil;

/// With an hour of a few milliseconds and a minute of one.
class HousekeepingTests : public testing::Test {
  protected:
    void TearDown() override { endQueue(); }
    /// The queue ends before anything that its work uses.
    void endQueue() {
        queue_.stop(test::must_happen_deadline);
        queue_.join();
    }
    std::string putRecord(const std::string& name, std::chrono::nanoseconds age) {
        const auto path = parts_.directory.processed + "/" + name;
        test::writeFileAtomically(path, "{}");
        parts_.files.pretendStatusChange(path, parts_.clock.now() - age);
        return path;
    }
    std::string putUnfinishedFile(const std::string& name, std::chrono::nanoseconds age) {
        const auto path = parts_.directory.inbound + "/" + name;
        test::writeFileAtomically(path, "half");
        fs::last_write_time(path, std::chrono::file_clock::from_sys(parts_.clock.now()) - age);
        return path;
    }
    void waitForRemoval(const std::string& path) {
        waitUntil([&] { return !fs::exists(path); }, "the removal of " + path);
    }

    BackendParts parts_;
    std::atomic<int> beats_ = 0;
    SerialQueue queue_{"queue"};
    Housekeeping housekeeping_{uses({.firstSweep = milliseconds{1},
                                     .sweepInterval = milliseconds{5},
                                     .secondLook = milliseconds{1},
                                     .stepInterval = milliseconds{1}})};

    Housekeeping::Uses uses(const Housekeeping::Schedule& schedule) {
        return {.environment = parts_.environment,
                .directory = parts_.directory,
                .fileManager = parts_.files,
                .clock = parts_.clock,
                .log = parts_.log,
                .isNeeded = [](const std::string&) { return false; },
                .queue = queue_,
                .schedule = schedule};
    }
};

TEST_F(HousekeepingTests, SweepsAgainAndAgain) {
    const auto first = putRecord("a.json", days{4});
    housekeeping_.start();
    waitForRemoval(first);
    waitForRemoval(putRecord("b.json", days{4}));
    waitForRemoval(putRecord("c.json", days{4}));
}

TEST_F(HousekeepingTests, LooksAtUnfinishedFilesTwice) {
    const auto old = putUnfinishedFile(".brindle-a1B2c3", hours{1});
    const auto young = putUnfinishedFile(".brindle-D4e5F6", milliseconds{1});
    housekeeping_.start();
    waitForRemoval(old);
    waitForRemoval(young);
}

TEST_F(HousekeepingTests, LetsTheOtherWorkOfTheQueueInBetween) {
    for (int count = 0; count < 2000; ++count) putRecord(std::to_string(count) + ".json", days{4});
    const RepeatingTimer other(queue_, milliseconds{1}, milliseconds{1}, [&] { ++beats_; });
    housekeeping_.start();
    waitUntil([&] { return fs::is_empty(parts_.directory.processed); }, "the end of a long sweep");
    // Every step takes its turn with the other work: 2000 files are more than sixty steps.
    EXPECT_GE(beats_, 30);
}

/// More than the files of one step.
constexpr int many = 200;

TEST_F(HousekeepingTests, OneSweepIsFinishedHoweverManyRecordsAreOld) {
    for (int count = 0; count < many; ++count) putRecord(std::to_string(count) + ".json", days{4});
    Housekeeping housekeeping(uses({.firstSweep = milliseconds{1},
                                    .sweepInterval = hours{1},
                                    .secondLook = hours{1},
                                    .stepInterval = milliseconds{1}}));
    housekeeping.start();
    waitUntil([&] { return fs::is_empty(parts_.directory.processed); }, "the end of the sweep");
    endQueue();
}

TEST_F(HousekeepingTests, FirstLookAtUnfinishedFilesIsFinishedWithoutAnySweep) {
    for (int count = 0; count < many; ++count)
        putUnfinishedFile(".brindle-aaa" + std::to_string(100 + count), hours{1});
    Housekeeping housekeeping(uses({.firstSweep = hours{1},
                                    .sweepInterval = hours{1},
                                    .secondLook = hours{1},
                                    .stepInterval = milliseconds{1}}));
    housekeeping.start();
    waitUntil([&] { return fs::is_empty(parts_.directory.inbound); }, "the end of the look");
    endQueue();
}

TEST_F(HousekeepingTests, SecondLookAtUnfinishedFilesComesWithoutAnySweep) {
    const auto young = putUnfinishedFile(".brindle-D4e5F6", milliseconds{1});
    Housekeeping housekeeping(uses({.firstSweep = hours{1},
                                    .sweepInterval = hours{1},
                                    .secondLook = milliseconds{1},
                                    .stepInterval = milliseconds{1}}));
    housekeeping.start();
    waitForRemoval(young);
    endQueue();
}

TEST(HousekeepingScheduleTests, FirstSweepComesWithinTwoSecondsAndThenOneAnHour) {
    const Housekeeping::Schedule schedule;
    EXPECT_LT(schedule.firstSweep, std::chrono::seconds{2});
    EXPECT_EQ(schedule.sweepInterval, hours{1});
    EXPECT_EQ(schedule.secondLook, std::chrono::minutes{1});
}

}  // namespace
}  // namespace brindle

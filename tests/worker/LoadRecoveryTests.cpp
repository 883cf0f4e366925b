#include "worker/LoadRecovery.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>

#include "support/TestClock.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class LoadRecoveryTests : public testing::Test {
  protected:
    bool isDueAt(milliseconds time) {
        clock_.passUntil(time);
        return recovery_.isReloadDue();
    }

    static constexpr auto started = test::TestClock::boot_time_at_start;

    test::TestClock clock_;
    LoadRecovery recovery_{clock_};
};

TEST_F(LoadRecoveryTests, CountsFromItsConstruction) {
    EXPECT_EQ(recovery_.pageLoadIssuedAt(), started);
    EXPECT_EQ(recovery_.launchRecoveryAttemptCount(), 0);
    EXPECT_EQ(recovery_.lastRecoveryAttemptAt(), std::nullopt);
    EXPECT_FALSE(isDueAt(milliseconds(11'999)));
    EXPECT_TRUE(isDueAt(milliseconds(12'000)));
}

TEST_F(LoadRecoveryTests, ReloadsAreNumberedAndDueTwelveSecondsApart) {
    ASSERT_TRUE(isDueAt(seconds(20)));
    EXPECT_EQ(recovery_.countReload(), 1);
    EXPECT_FALSE(isDueAt(milliseconds(31'999)));
    EXPECT_TRUE(isDueAt(seconds(32)));
    EXPECT_EQ(recovery_.countReload(), 2);
    EXPECT_FALSE(isDueAt(seconds(3600)));
}

TEST_F(LoadRecoveryTests, NewLoadBeginsTheCountingAnew) {
    recovery_.countReload();
    recovery_.countReload();
    clock_.passUntil(seconds(99));
    recovery_.beginAnew();
    EXPECT_EQ(recovery_.pageLoadIssuedAt(), started + seconds(99));
    EXPECT_EQ(recovery_.launchRecoveryAttemptCount(), 0);
    EXPECT_EQ(recovery_.lastRecoveryAttemptAt(), std::nullopt);
    EXPECT_FALSE(isDueAt(seconds(110)));
    EXPECT_TRUE(isDueAt(seconds(111)));
}

TEST_F(LoadRecoveryTests, WhoeverSetsTheClockBackPutsNoReloadOff) {
    clock_.turnTo(test::TestClock::start - std::chrono::hours(24));
    EXPECT_TRUE(isDueAt(seconds(12)));
    recovery_.countReload();
    clock_.turnTo(test::TestClock::start - std::chrono::hours(48));
    EXPECT_TRUE(isDueAt(seconds(24)));
}

TEST_F(LoadRecoveryTests, WhoeverSetsTheClockForwardHurriesNoReload) {
    clock_.turnTo(test::TestClock::start + std::chrono::hours(24));
    EXPECT_FALSE(isDueAt(milliseconds(11'999)));
    EXPECT_TRUE(isDueAt(seconds(12)));
    recovery_.countReload();
    clock_.turnTo(test::TestClock::start + std::chrono::hours(48));
    EXPECT_FALSE(isDueAt(milliseconds(23'999)));
}

}  // namespace
}  // namespace brindle

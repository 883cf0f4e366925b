#include "system/Clock.h"

#include <gtest/gtest.h>

#include "support/TextForms.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;

std::string textAfterEpoch(system_clock::duration time) {
    return iso8601(system_clock::time_point(time));
}

TEST(ClockTests, ShowsUtcWithWholeSeconds) {
    EXPECT_EQ(textAfterEpoch(seconds{1767605400}), "2026-01-05T09:30:00Z");
    EXPECT_EQ(textAfterEpoch(seconds{0}), "1970-01-01T00:00:00Z");
}

TEST(ClockTests, NeverShowsASecondThatHasNotBegun) {
    EXPECT_EQ(textAfterEpoch(milliseconds{1767605400999}), "2026-01-05T09:30:00Z");
    EXPECT_EQ(textAfterEpoch(seconds{1767605401} - system_clock::duration{1}), "2026-01-05T09:30:00Z");
}

TEST(ClockTests, FloorsTimesBefore1970) {
    EXPECT_EQ(textAfterEpoch(milliseconds{-1}), "1969-12-31T23:59:59Z");
    EXPECT_EQ(textAfterEpoch(seconds{-1}), "1969-12-31T23:59:59Z");
    EXPECT_EQ(textAfterEpoch(milliseconds{-1001}), "1969-12-31T23:59:58Z");
}

TEST(ClockTests, KnowsLeapDays) {
    EXPECT_EQ(textAfterEpoch(seconds{1709164800}), "2024-02-29T00:00:00Z");
    EXPECT_EQ(textAfterEpoch(seconds{4107542400}), "2100-03-01T00:00:00Z");
}

TEST(ClockTests, IsIndependentOfTheTimeZone) {
    const char* const before = ::getenv("TZ");
    const std::string original = before == nullptr ? "" : before;
    ::setenv("TZ", "America/New_York", 1);
    ::tzset();
    EXPECT_EQ(textAfterEpoch(seconds{1767605400}), "2026-01-05T09:30:00Z");
    before == nullptr ? ::unsetenv("TZ") : ::setenv("TZ", original.c_str(), 1);
    ::tzset();
}

TEST(ClockTests, SystemClockTellsTheSystemsTime) {
    const SystemClock clock;
    const auto before = system_clock::now();
    const auto between = clock.now();
    const auto after = system_clock::now();
    EXPECT_LE(before, between);
    EXPECT_LE(between, after);
    EXPECT_TRUE(test::isTimestamp(iso8601(between)));
}

TEST(ClockTests, SystemClockSleepsAtLeastAsLongAsAsked) {
    const auto before = std::chrono::steady_clock::now();
    SystemClock().sleep(milliseconds{5});
    EXPECT_GE(std::chrono::steady_clock::now() - before, milliseconds{5});
}

TEST(ClockTests, TimeSinceTheSystemWasStartedNeverGoesBack) {
    const SystemClock clock;
    const auto before = clock.sinceBoot();
    clock.sleep(milliseconds{1});
    EXPECT_GE(clock.sinceBoot(), before + milliseconds{1});
}

}  // namespace
}  // namespace brindle

#include "console/Timestamps.h"

#include <gtest/gtest.h>

#include "system/Clock.h"

namespace brindle::console {
namespace {

TEST(Timestamps, AreReadAsTheyAreWritten) {
    for (const std::string text : {"2026-01-05T09:30:00Z", "1999-12-31T23:59:59Z"}) {
        const auto time = parsedTimestamp(text);
        ASSERT_TRUE(time);
        EXPECT_EQ(iso8601(*time), text);
    }
}

TEST(Timestamps, AreNothingElse) {
    for (const auto* text : {"", "soon", "2026-01-05", "2026-01-05T09:30:00", "2026-01-05T09:30:00Z ",
                             "9999-12-31T23:59:59Z", "0001-01-01T00:00:00Z"}) {
        EXPECT_FALSE(parsedTimestamp(text)) << text;
    }
}

TEST(ShortDuration, TakesTheLargestUnitThatFits) {
    EXPECT_EQ(shortDuration(std::chrono::seconds(119)), "119 s");
    EXPECT_EQ(shortDuration(std::chrono::minutes(119)), "119 min");
    EXPECT_EQ(shortDuration(std::chrono::hours(47)), "47 h");
    EXPECT_EQ(shortDuration(std::chrono::hours(49)), "2 d");
}

}  // namespace
}  // namespace brindle::console

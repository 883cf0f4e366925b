#include "console/Wait.h"

#include <gtest/gtest.h>

namespace brindle::console {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;

Wait::Condition condition(bool needsPolling) {
    return {.isFulfilled = [] { return false; },
            .subject = "a sign",
            .remark = [] { return std::string("; there is a hint"); },
            .obstacle = {},
            .needsPolling = needsPolling};
}

TEST(Wait, InVainNamesWhatWasExpectedHowLongAndWhatIsThereInstead) {
    EXPECT_EQ(Wait(condition(true), milliseconds(1500)).failure(),
              "Expected a sign, which did not come within 1.5 s; there is a hint.");
}

TEST(Wait, InVainNeedsNoRemark) {
    const Wait wait({.isFulfilled = [] { return false; }, .subject = "a sign", .remark = {}, .obstacle = {}},
                    milliseconds(100));
    EXPECT_EQ(wait.failure(), "Expected a sign, which did not come within 0.1 s.");
}

TEST(Wait, InVainIsOneLineWhateverWasExpected) {
    const Wait wait({.isFulfilled = [] { return false; }, .subject = "a\nb", .remark = {}, .obstacle = {}},
                    milliseconds(100));
    EXPECT_EQ(wait.failure(), "Expected a?b, which did not come within 0.1 s.");
}

TEST(Wait, GivenUpNamesWhatIsInItsWay) {
    auto blocked = condition(true);
    EXPECT_EQ(Wait(blocked, hours(1)).obstacle(), "");
    blocked.obstacle = [] { return std::string("nobody is there"); };
    const Wait wait(blocked, hours(1));
    EXPECT_EQ(wait.failure(wait.obstacle()), "Expected a sign, which cannot come: nobody is there.");
}

TEST(Wait, TellsAPersonThatItWaits) {
    EXPECT_EQ(Wait(condition(true), milliseconds(1500)).announcement(),
              "Waiting up to 1.5 s for a sign; Ctrl-C ends the wait.");
}

TEST(Wait, IsOverOnceItsTimeHasPassed) {
    EXPECT_TRUE(Wait(condition(false), milliseconds(0)).isOver());
    EXPECT_FALSE(Wait(condition(false), hours(1)).isOver());
}

TEST(Wait, LooksAgainAndAgainOnlyForWhatNoEnvelopeTells) {
    EXPECT_EQ(Wait(condition(true), hours(1)).pollTimeout(), Wait::status_interval.count());
    EXPECT_GT(Wait(condition(false), hours(1)).pollTimeout(), Wait::status_interval.count());
    EXPECT_EQ(Wait(condition(true), milliseconds(0)).pollTimeout(), 0);
}

}  // namespace
}  // namespace brindle::console

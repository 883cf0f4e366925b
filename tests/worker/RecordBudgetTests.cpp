#include "worker/RecordBudget.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>

#include "support/TestClock.h"
#include "support/Units.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t half_bytes = RecordBudget::budget_bytes / 2;

class RecordBudgetTests : public testing::Test {
  protected:
    test::TestClock clock_;
    RecordBudget budget_{clock_};
};

TEST_F(RecordBudgetTests, IsThirtyTwoMebibytesAMinute) {
    EXPECT_EQ(RecordBudget::budget_bytes, 32 * test::mebibyte);
    EXPECT_TRUE(budget_.take(half_bytes));
    EXPECT_TRUE(budget_.take(half_bytes));
    EXPECT_FALSE(budget_.take(1));
}

TEST_F(RecordBudgetTests, WhatDoesNotFitTakesNothing) {
    EXPECT_FALSE(budget_.take(2 * half_bytes + 1));
    EXPECT_TRUE(budget_.take(2 * half_bytes));
}

TEST_F(RecordBudgetTests, EveryFileTakesWholeBlocks) {
    for (std::size_t files = 0; files < RecordBudget::budget_bytes / 4096; ++files) {
        ASSERT_TRUE(budget_.take(1)) << files;
    }
    EXPECT_FALSE(budget_.take(1));
}

TEST_F(RecordBudgetTests, ComesBackAMinuteAfterItWasTaken) {
    EXPECT_TRUE(budget_.take(half_bytes));
    clock_.pass(seconds(30));
    EXPECT_TRUE(budget_.take(half_bytes));
    clock_.pass(seconds(29));
    EXPECT_FALSE(budget_.take(1));
    clock_.pass(seconds(2));
    EXPECT_TRUE(budget_.take(half_bytes));
    EXPECT_FALSE(budget_.take(1));
    clock_.pass(seconds(30));
    EXPECT_TRUE(budget_.take(half_bytes));
}

TEST_F(RecordBudgetTests, NoMinuteHoldsMoreWhereverItBegins) {
    // The last moment of one second and the first of another lie hardly apart.
    clock_.pass(milliseconds(999));
    EXPECT_TRUE(budget_.take(2 * half_bytes));
    clock_.pass(milliseconds(59'002));
    EXPECT_FALSE(budget_.take(1));
    clock_.pass(seconds(2));
    EXPECT_TRUE(budget_.take(1));
}

TEST_F(RecordBudgetTests, ClockThatPeopleSetChangesNothing) {
    EXPECT_TRUE(budget_.take(2 * half_bytes));
    clock_.turnTo(clock_.now() + std::chrono::hours(1));
    EXPECT_FALSE(budget_.take(1));
    clock_.turnTo(clock_.now() - std::chrono::hours(2));
    clock_.pass(seconds(62));
    EXPECT_TRUE(budget_.take(1));
}

TEST_F(RecordBudgetTests, FileThatFitsIntoNoMinuteIsTold) {
    EXPECT_TRUE(RecordBudget::canEverTake(RecordBudget::budget_bytes));
    EXPECT_FALSE(RecordBudget::canEverTake(RecordBudget::budget_bytes + 1));
}

}  // namespace
}  // namespace brindle

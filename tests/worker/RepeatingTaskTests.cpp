#include "worker/RepeatingTask.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/ScriptedHost.h"
#include "support/WantOfMemory.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class RepeatingTaskTests : public testing::Test {
  protected:
    Task<> work() {
        log_.emplace_back("begun");
        Answer<int> answer;
        answers_.push_back(answer.callback());
        co_await answer;
        log_.emplace_back("done");
    }
    Task<> failingWork() {
        log_.emplace_back("begun");
        throw std::runtime_error("No luck.");
        co_return;
    }
    Task<> shortWork() {
        log_.emplace_back("begun");
        co_return;
    }
    RepeatingTask every(milliseconds interval, std::function<Task<>()> work) {
        return {host_, {.interval = interval, .tolerance = milliseconds(200)}, std::move(work)};
    }

    test::TestClock clock_;
    test::ScriptedHost host_{clock_};
    std::vector<std::string> log_;
    std::vector<std::function<void(int)>> answers_;
};

TEST_F(RepeatingTaskTests, FirstRunComesAfterOneInterval) {
    const auto repeating = every(milliseconds(1500), [this] { return shortWork(); });
    EXPECT_THAT(host_.repeatingTimers, ElementsAre(Pair(milliseconds(1500), milliseconds(200))));
    host_.advance(milliseconds(1499));
    EXPECT_THAT(log_, IsEmpty());
    host_.advance(milliseconds(1));
    EXPECT_EQ(log_.size(), 1U);
}

TEST_F(RepeatingTaskTests, RunsAtEveryTick) {
    const auto repeating = every(milliseconds(1000), [this] { return shortWork(); });
    host_.advance(milliseconds(5000));
    EXPECT_EQ(log_.size(), 5U);
}

TEST_F(RepeatingTaskTests, TickIsLeftOutWhileTheTaskWaits) {
    const auto repeating = every(milliseconds(1000), [this] { return work(); });
    host_.advance(milliseconds(10'000));
    EXPECT_THAT(log_, ElementsAre("begun"));
    EXPECT_EQ(answers_.size(), 1U);
}

TEST_F(RepeatingTaskTests, NextTickAfterTheAnswerRunsAgain) {
    const auto repeating = every(milliseconds(1000), [this] { return work(); });
    host_.advance(milliseconds(2500));
    answers_.at(0)(1);
    EXPECT_THAT(log_, ElementsAre("begun", "done"));
    host_.advance(milliseconds(499));
    EXPECT_EQ(log_.size(), 2U);
    host_.advance(milliseconds(1));
    EXPECT_THAT(log_, ElementsAre("begun", "done", "begun"));
}

TEST_F(RepeatingTaskTests, OthersGoOnWhileOneWaits) {
    const auto waiting = every(milliseconds(1000), [this] { return work(); });
    const auto going = every(milliseconds(1000), [this] { return shortWork(); });
    host_.advance(milliseconds(3000));
    EXPECT_EQ(log_.size(), 4U);
    EXPECT_EQ(answers_.size(), 1U);
}

TEST_F(RepeatingTaskTests, FailureIsLoggedAndTheNextTickRuns) {
    const auto repeating = every(milliseconds(1000), [this] { return failingWork(); });
    host_.advance(milliseconds(2000));
    EXPECT_EQ(log_.size(), 2U);
    EXPECT_THAT(host_.log, ElementsAre("A task of the worker failed: No luck.",
                                       "A task of the worker failed: No luck."));
}

TEST_F(RepeatingTaskTests, WantOfMemoryCostsOneRunAtMost) {
    const auto repeating = every(milliseconds(1000), [this] { return shortWork(); });
    bool wasMet = true;
    int piece = 1;
    for (; wasMet; ++piece) {
        {
            test::WantOfMemory want(piece, test::WantOfMemory::Persistence::fromThenOn);
            host_.advance(milliseconds(1000));
            wasMet = want.end();
        }
        const auto before = log_.size();
        host_.advance(milliseconds(1000));
        EXPECT_EQ(log_.size(), before + 1) << piece;
    }
    EXPECT_GT(piece, 2);
}

TEST_F(RepeatingTaskTests, TickWithoutMemoryIsLogged) {
    const auto repeating = every(milliseconds(1000), [this] { return shortWork(); });
    {
        const test::WantOfMemory want(1);
        host_.advance(milliseconds(1000));
    }
    EXPECT_THAT(host_.log, ElementsAre("A task of the worker failed: There is not enough memory."));
}

TEST_F(RepeatingTaskTests, DestroyedItTicksNoMoreAndGivesUpItsTask) {
    {
        const auto repeating = every(milliseconds(1000), [this] { return work(); });
        host_.advance(milliseconds(1000));
    }
    answers_.at(0)(1);
    host_.advance(milliseconds(5000));
    EXPECT_THAT(log_, ElementsAre("begun"));
    EXPECT_EQ(host_.runningTimers(), 0U);
}

}  // namespace
}  // namespace brindle

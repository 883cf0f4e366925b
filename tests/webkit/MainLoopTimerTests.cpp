#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "support/EnginePage.h"

namespace brindle::test {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

/// The clock of the timers, in the microseconds that they count in.
microseconds now() {
    return std::chrono::floor<microseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

class MainLoopTimer : public testing::Test {
  protected:
    EnginePage page_;
    WebWorkerHost& host_ = page_.host();
};

TEST_F(MainLoopTimer, OnceFiresOneTime) {
    int once = 0;
    int repeated = 0;
    const auto timer = host_.once(milliseconds(1), [&] { ++once; });
    const auto other = host_.repeat(milliseconds(2), milliseconds(0), [&] { ++repeated; });
    page_.runUntil([&] { return repeated >= 5; }, "the other timer repeats");
    EXPECT_EQ(once, 1);
}

TEST_F(MainLoopTimer, OnceNeverFiresFromWithinTheCall) {
    bool fired = false;
    const auto timer = host_.once(milliseconds(0), [&] { fired = true; });
    EXPECT_FALSE(fired);
    page_.runUntil([&] { return fired; }, "the timer fires");
}

TEST_F(MainLoopTimer, NeverFiresEarly) {
    const auto start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::duration passed{};
    bool fired = false;
    const auto timer = host_.repeat(milliseconds(30), milliseconds(20), [&] {
        if (!fired) passed = std::chrono::steady_clock::now() - start;
        fired = true;
    });
    page_.runUntil([&] { return fired; }, "the timer fires");
    EXPECT_GE(passed, milliseconds(30));
}

TEST_F(MainLoopTimer, MayBeDestroyedInItsOwnTick) {
    int ticks = 0;
    std::unique_ptr<HostTimer> timer;
    timer = host_.repeat(milliseconds(1), milliseconds(0), [&] {
        ++ticks;
        timer.reset();
    });
    int others = 0;
    const auto other = host_.repeat(milliseconds(1), milliseconds(0), [&] { ++others; });
    page_.runUntil([&] { return others >= 5; }, "the other timer repeats");
    EXPECT_EQ(ticks, 1);
}

TEST_F(MainLoopTimer, ActionThatFailsLeavesTheLoopRunning) {
    int ticks = 0;
    const auto timer = host_.repeat(milliseconds(1), milliseconds(0), [&] {
        ++ticks;
        throw std::bad_alloc();
    });
    page_.runUntil([&] { return ticks >= 3; }, "the timer fires again and again");
}

TEST_F(MainLoopTimer, OneThatIsLateFiresOnceAndKeepsItsRhythm) {
    constexpr milliseconds interval(400);
    std::vector<microseconds> ticks;
    // The rhythm begins somewhere in between.
    const auto before = now();
    const auto timer = host_.repeat(interval, milliseconds(0), [&] { ticks.push_back(now()); });
    const auto after = now();
    // Whoever runs the loop is busy until the first tick is two and a half intervals late.
    std::this_thread::sleep_for(interval * 7 / 2);
    const auto next = (now() - after) / interval + 1;
    page_.runUntil([&] { return ticks.size() >= 2; }, "the timer fires twice");
    EXPECT_GE(ticks[1], before + next * interval) << "a tick that was missed has been made up for";
    // On a busy machine some ticks are late, but hardly all of them; a new rhythm is met by none.
    constexpr std::size_t most_ticks = 25;
    const auto lastIsOnTime = [&] {
        return (ticks.back() - before) % interval < interval / 4 + (after - before);
    };
    page_.runUntil([&] { return lastIsOnTime() || ticks.size() >= most_ticks; }, "a tick in the rhythm");
    EXPECT_TRUE(lastIsOnTime()) << "none of " << most_ticks << " ticks came in the rhythm of the first";
}

TEST_F(MainLoopTimer, TimersOfOneToleranceWakeTogether) {
    constexpr milliseconds period(400);
    constexpr milliseconds tolerance(200);
    const auto runFor = [&](milliseconds duration) {
        bool passed = false;
        const auto pause = host_.once(duration, [&] { passed = true; });
        page_.runUntil([&] { return passed; }, "a while has passed");
    };
    int firstTicks = 0;
    int secondTicks = 0;
    std::unique_ptr<HostTimer> first;
    std::unique_ptr<HostTimer> second;
    // Due at different times between the same multiples of the tolerance, so moved to the same one. A machine
    // that takes longer over the two starts gets another go.
    constexpr milliseconds apart = tolerance / 2;
    const auto nextMultiple = [&](microseconds time) {
        return (time + tolerance - microseconds(1)) / tolerance;
    };
    microseconds begin{};
    do {
        second.reset();
        first.reset();
        while (now() % tolerance > tolerance / 4) runFor(milliseconds(1));
        begin = now();
        first = host_.repeat(period, tolerance, [&] { ++firstTicks; });
        runFor(apart);
        second = host_.repeat(period, tolerance, [&] { ++secondTicks; });
    } while (nextMultiple(begin) != nextMultiple(now()));
    firstTicks = 0;
    secondTicks = 0;
    // Between two turns of the loop. A long pause in the middle of a turn sets the two apart for one period.
    constexpr int enough_in_a_row = 4;
    constexpr int most_wake_ups = 60;
    int wakeUps = 0;
    int sharedInARow = 0;
    const auto look = [&] {
        if (firstTicks + secondTicks > 0) {
            ++wakeUps;
            sharedInARow = firstTicks == 1 && secondTicks == 1 ? sharedInARow + 1 : 0;
        }
        firstTicks = 0;
        secondTicks = 0;
        return sharedInARow == enough_in_a_row || wakeUps == most_wake_ups;
    };
    page_.runUntil(look, "the timers fire");
    EXPECT_EQ(sharedInARow, enough_in_a_row) << "in " << wakeUps << " wake-ups";
}

}  // namespace
}  // namespace brindle::test

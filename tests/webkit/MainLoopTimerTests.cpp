#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "support/EnginePage.h"

namespace brindle::test {
namespace {

using std::chrono::milliseconds;

class MainLoopTimer : public testing::Test {
  protected:
    EnginePage page;
    WebWorkerHost& host = page.host();
};

TEST_F(MainLoopTimer, OnceFiresOneTime) {
    int once = 0;
    int repeated = 0;
    const auto timer = host.once(milliseconds(1), [&] { ++once; });
    const auto other = host.repeat(milliseconds(2), milliseconds(0), [&] { ++repeated; });
    page.runUntil([&] { return repeated >= 5; }, "the other timer repeats");
    EXPECT_EQ(once, 1);
}

TEST_F(MainLoopTimer, OnceNeverFiresFromWithinTheCall) {
    bool fired = false;
    const auto timer = host.once(milliseconds(0), [&] { fired = true; });
    EXPECT_FALSE(fired);
    page.runUntil([&] { return fired; }, "the timer fires");
}

TEST_F(MainLoopTimer, NeverFiresEarly) {
    const auto start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::duration passed{};
    bool fired = false;
    const auto timer = host.repeat(milliseconds(30), milliseconds(20), [&] {
        if (!fired) passed = std::chrono::steady_clock::now() - start;
        fired = true;
    });
    page.runUntil([&] { return fired; }, "the timer fires");
    EXPECT_GE(passed, milliseconds(30));
}

TEST_F(MainLoopTimer, MayBeDestroyedInItsOwnTick) {
    int ticks = 0;
    std::unique_ptr<HostTimer> timer;
    timer = host.repeat(milliseconds(1), milliseconds(0), [&] {
        ++ticks;
        timer.reset();
    });
    int others = 0;
    const auto other = host.repeat(milliseconds(1), milliseconds(0), [&] { ++others; });
    page.runUntil([&] { return others >= 5; }, "the other timer repeats");
    EXPECT_EQ(ticks, 1);
}

TEST_F(MainLoopTimer, TimersOfOneToleranceWakeTogether) {
    // Due at different times, but moved to the same multiples of the tolerance.
    const auto period = milliseconds(400);
    int wakeUps = 0;
    int ticks = 0;
    std::chrono::steady_clock::time_point last;
    const auto tick = [&] {
        ++ticks;
        const auto now = std::chrono::steady_clock::now();
        if (now - last > milliseconds(50)) ++wakeUps;
        last = now;
    };
    const auto first = host.repeat(period, milliseconds(200), tick);
    bool later = false;
    const auto offset = host.once(milliseconds(10), [&] { later = true; });
    page.runUntil([&] { return later; }, "a while has passed");
    const auto second = host.repeat(period, milliseconds(200), tick);
    page.runUntil([&] { return ticks >= 8; }, "both timers have fired four times");
    EXPECT_LE(wakeUps, 6);
}

}  // namespace
}  // namespace brindle::test

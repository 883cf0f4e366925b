#include "system/SerialQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "support/LoweredLimit.h"
#include "support/Pipes.h"
#include "support/Waiting.h"
#include "text/Failure.h"

namespace brindle {
namespace {

using test::makePipe;

using std::chrono::milliseconds;
using test::waitUntil;

/// Waits until everything posted before has run.
void flush(SerialQueue& queue) {
    std::promise<void> reached;
    queue.post([&] { reached.set_value(); });
    reached.get_future().wait();
}

TEST(SerialQueueTests, KeepsItsLabel) {
    EXPECT_EQ(SerialQueue("a.b.poll").label(), "a.b.poll");
}

TEST(SerialQueueTests, WantOfDescriptorsIsASentence) {
    const test::LoweredLimit limit(RLIMIT_NOFILE, 0);
    try {
        const SerialQueue queue("queue");
        FAIL() << "a queue needs descriptors";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.what(),
                  std::string("Cannot prepare the work in the background: Too many open files."));
    }
}

TEST(SerialQueueTests, RunsWorkInOrder) {
    SerialQueue queue("queue");
    std::vector<int> order;
    for (int i = 0; i < 100; ++i) queue.post([&order, i] { order.push_back(i); });
    flush(queue);
    ASSERT_EQ(order.size(), 100U);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(SerialQueueTests, RunsWorkOnOneThreadOfItsOwn) {
    SerialQueue queue("queue");
    std::thread::id first;
    std::thread::id second;
    queue.post([&] { first = std::this_thread::get_id(); });
    queue.post([&] { second = std::this_thread::get_id(); });
    flush(queue);
    EXPECT_EQ(first, second);
    EXPECT_NE(first, std::this_thread::get_id());
}

TEST(SerialQueueTests, TakesWorkFromAnyThread) {
    SerialQueue queue("queue");
    int count = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 100; ++j) queue.post([&count] { ++count; });
        });
    }
    for (auto& thread : threads) thread.join();
    flush(queue);
    EXPECT_EQ(count, 400);
}

TEST(SerialQueueTests, StopOfAnIdleQueueIsInTime) {
    SerialQueue queue("queue");
    EXPECT_TRUE(queue.stop(test::must_happen_deadline));
    queue.join();
}

TEST(SerialQueueTests, StopTellsWhenTheRunningPieceGoesOn) {
    SerialQueue queue("queue");
    std::promise<void> begun;
    std::promise<void> released;
    bool ended = false;
    queue.post([&] {
        begun.set_value();
        released.get_future().wait();
        ended = true;
    });
    begun.get_future().wait();
    EXPECT_FALSE(queue.stop(milliseconds{0}));
    released.set_value();
    queue.join();
    EXPECT_TRUE(ended);
}

TEST(SerialQueueTests, NothingBeginsAfterStop) {
    SerialQueue queue("queue");
    std::promise<void> begun;
    std::promise<void> released;
    bool ran = false;
    queue.post([&] {
        begun.set_value();
        released.get_future().wait();
    });
    queue.post([&] { ran = true; });
    begun.get_future().wait();
    queue.stop(milliseconds{0});
    queue.post([&] { ran = true; });
    released.set_value();
    queue.join();
    EXPECT_FALSE(ran);
}

TEST(SerialQueueTests, DestructionWaitsForTheRunningPiece) {
    std::promise<void> begun;
    std::promise<void> released;
    std::atomic<bool> ended = false;
    std::thread releaser;
    {
        SerialQueue queue("queue");
        queue.post([&] {
            begun.set_value();
            released.get_future().wait();
            ended = true;
        });
        begun.get_future().wait();
        releaser = std::thread([&] { released.set_value(); });
    }
    EXPECT_TRUE(ended);
    releaser.join();
}

TEST(SerialQueueTests, GoesOnAfterWorkThatThrows) {
    SerialQueue queue("queue");
    queue.post([] { throw std::bad_alloc(); });
    bool ran = false;
    queue.post([&] { ran = true; });
    flush(queue);
    EXPECT_TRUE(ran);
}

TEST(RepeatingTimerTests, FiresAgainAndAgainOnItsQueue) {
    SerialQueue queue("queue");
    std::thread::id queueThread;
    queue.post([&] { queueThread = std::this_thread::get_id(); });
    flush(queue);
    std::atomic<int> beats = 0;
    std::atomic<bool> elsewhere = false;
    const RepeatingTimer timer(queue, milliseconds{1}, milliseconds{1}, [&] {
        if (std::this_thread::get_id() != queueThread) elsewhere = true;
        ++beats;
    });
    waitUntil([&] { return beats >= 5; }, "five beats");
    EXPECT_FALSE(elsewhere);
}

TEST(RepeatingTimerTests, IsNeverEarly) {
    SerialQueue queue("queue");
    const auto begin = std::chrono::steady_clock::now();
    std::promise<std::chrono::steady_clock::time_point> beat;
    bool answered = false;
    const RepeatingTimer timer(queue, milliseconds{30}, milliseconds{1}, [&] {
        if (!std::exchange(answered, true)) beat.set_value(std::chrono::steady_clock::now());
    });
    EXPECT_GE(beat.get_future().get() - begin, milliseconds{30});
}

TEST(RepeatingTimerTests, BeatsThatTheQueueWasTooBusyForAreLeftOut) {
    SerialQueue queue("queue");
    std::atomic<int> beats = 0;
    const auto begin = std::chrono::steady_clock::now();
    constexpr milliseconds interval{10};
    const RepeatingTimer timer(queue, interval, interval, [&] {
        // The first beat is held up until ten more were due.
        if (++beats > 1) return;
        waitUntil([&] { return std::chrono::steady_clock::now() - begin > interval * 11; }, "ten intervals");
    });
    waitUntil([&] { return beats >= 5; }, "five beats");
    // Caught up with, the fifth would come at once.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, interval * (11 + 3));
}

TEST(RepeatingTimerTests, NeverFiresAfterItsDestruction) {
    SerialQueue queue("queue");
    std::atomic<int> beats = 0;
    auto timer = std::make_unique<RepeatingTimer>(queue, milliseconds{1}, milliseconds{1}, [&] { ++beats; });
    waitUntil([&] { return beats >= 1; }, "a beat");
    timer.reset();
    flush(queue);
    const int before = beats;
    std::atomic<int> otherBeats = 0;
    const RepeatingTimer other(queue, milliseconds{1}, milliseconds{1}, [&] { ++otherBeats; });
    waitUntil([&] { return otherBeats >= 10; }, "ten beats of another timer");
    EXPECT_EQ(beats, before);
}

TEST(RepeatingTimerTests, MayBeDestroyedByItsOwnHandler) {
    SerialQueue queue("queue");
    std::unique_ptr<RepeatingTimer> timer;
    std::promise<void> destroyed;
    // Created on the queue, so that the handler finds it in its place.
    queue.post([&] {
        timer = std::make_unique<RepeatingTimer>(queue, milliseconds{1}, milliseconds{1}, [&] {
            timer.reset();
            destroyed.set_value();
        });
    });
    destroyed.get_future().wait();
    flush(queue);
    EXPECT_EQ(timer, nullptr);
}

TEST(RepeatingTimerTests, MayOutliveTheWorkOfAStoppedQueue) {
    SerialQueue queue("queue");
    std::atomic<int> beats = 0;
    {
        const RepeatingTimer timer(queue, milliseconds{1}, milliseconds{1}, [&] { ++beats; });
        waitUntil([&] { return beats >= 1; }, "a beat");
        queue.stop(test::must_happen_deadline);
        queue.join();
    }
    EXPECT_GE(beats, 1);
}

// What a handler uses, its descriptor above all, outlives the queue, which takes its interest back on its own
// thread.

TEST(ReadinessWatchTests, CallsWheneverThereIsSomethingToRead) {
    auto ends = makePipe();
    std::string received;
    std::promise<void> finished;
    SerialQueue queue("queue");
    const ReadinessWatch watch(queue, ends.reading.get(), Readiness::readable, [&] {
        char byte = 0;
        if (::read(ends.reading.get(), &byte, 1) == 1) received += byte;
        if (received.size() < 3) return true;
        finished.set_value();
        return false;
    });
    for (const char c : {'a', 'b', 'c'}) EXPECT_EQ(::write(ends.writing.get(), &c, 1), 1);
    finished.get_future().wait();
    EXPECT_EQ(received, "abc");
}

TEST(ReadinessWatchTests, CallsWhenTheOtherEndIsClosed) {
    auto ends = makePipe();
    std::promise<ssize_t> called;
    SerialQueue queue("queue");
    const ReadinessWatch watch(queue, ends.reading.get(), Readiness::readable, [&] {
        char byte = 0;
        called.set_value(::read(ends.reading.get(), &byte, 1));
        return false;
    });
    ends.writing.reset();
    EXPECT_EQ(called.get_future().get(), 0);
}

TEST(ReadinessWatchTests, EndsWhenTheHandlerAnswersFalse) {
    auto ends = makePipe();
    std::atomic<int> calls = 0;
    SerialQueue queue("queue");
    const ReadinessWatch watch(queue, ends.reading.get(), Readiness::readable, [&] {
        ++calls;
        return false;
    });
    EXPECT_EQ(::write(ends.writing.get(), "ab", 2), 2);
    waitUntil([&] { return calls >= 1; }, "a call");
    std::atomic<int> beats = 0;
    const RepeatingTimer timer(queue, milliseconds{1}, milliseconds{1}, [&] { ++beats; });
    waitUntil([&] { return beats >= 5; }, "five beats of a timer");
    EXPECT_EQ(calls, 1);
}

TEST(ReadinessWatchTests, IsSilentAfterItsDestruction) {
    auto ends = makePipe();
    std::atomic<int> calls = 0;
    SerialQueue queue("queue");
    auto watch = std::make_unique<ReadinessWatch>(queue, ends.reading.get(), Readiness::readable, [&] {
        ++calls;
        return true;
    });
    watch.reset();
    flush(queue);
    EXPECT_EQ(::write(ends.writing.get(), "a", 1), 1);
    std::atomic<int> beats = 0;
    const RepeatingTimer timer(queue, milliseconds{1}, milliseconds{1}, [&] { ++beats; });
    waitUntil([&] { return beats >= 5; }, "five beats of a timer");
    EXPECT_EQ(calls, 0);
}

TEST(ReadinessWatchTests, LeavesTheDescriptorToItsOwner) {
    auto ends = makePipe();
    SerialQueue queue("queue");
    {
        const ReadinessWatch watch(queue, ends.reading.get(), Readiness::readable, [] { return false; });
    }
    flush(queue);
    char byte = 0;
    EXPECT_EQ(::write(ends.writing.get(), "a", 1), 1);
    EXPECT_EQ(::read(ends.reading.get(), &byte, 1), 1);
}

TEST(ReadinessWatchTests, WatchesOnOnceItIsResumed) {
    auto ends = makePipe();
    std::atomic<int> calls = 0;
    SerialQueue queue("queue");
    ReadinessWatch watch(queue, ends.reading.get(), Readiness::readable, [&] {
        ++calls;
        return false;
    });
    EXPECT_EQ(::write(ends.writing.get(), "a", 1), 1);
    waitUntil([&] { return calls == 1; }, "a call");
    watch.resume();
    waitUntil([&] { return calls == 2; }, "another call");
}

TEST(ReadinessWatchTests, ResumedWhileItWatchesItCallsOnce) {
    auto ends = makePipe();
    std::atomic<int> calls = 0;
    SerialQueue queue("queue");
    ReadinessWatch watch(queue, ends.reading.get(), Readiness::readable, [&] {
        ++calls;
        return false;
    });
    watch.resume();
    flush(queue);
    EXPECT_EQ(::write(ends.writing.get(), "a", 1), 1);
    waitUntil([&] { return calls >= 1; }, "a call");
    std::atomic<int> beats = 0;
    const RepeatingTimer timer(queue, milliseconds{1}, milliseconds{1}, [&] { ++beats; });
    waitUntil([&] { return beats >= 5; }, "five beats of a timer");
    EXPECT_EQ(calls, 1);
}

TEST(ReadinessWatchTests, CallsOnceAFullPipeTakesMore) {
    auto ends = makePipe();
    test::fill(ends.writing);
    std::atomic<int> calls = 0;
    SerialQueue queue("queue");
    ReadinessWatch watch(queue, ends.writing.get(), Readiness::writable, [&] {
        ++calls;
        return false;
    });
    flush(queue);
    EXPECT_EQ(calls, 0);
    test::readSome(ends.reading);
    waitUntil([&] { return calls == 1; }, "a call");
    test::fill(ends.writing);
    watch.resume();
    flush(queue);
    EXPECT_EQ(calls, 1);
    ends.reading.reset();
    waitUntil([&] { return calls == 2; }, "a call for the reader that has gone");
}

}  // namespace
}  // namespace brindle

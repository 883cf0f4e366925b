#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/Pipes.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"
#include "system/ChildProcess.h"
#include "system/DepartureWatch.h"
#include "system/FileManager.h"
#include "system/LineReader.h"
#include "system/OutputStream.h"

/// Signals whose handler does not ask for interrupted calls to go on hit every wait; none of them is noticed.
namespace brindle {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr int storm_signal = SIGUSR1;
constexpr int interruptions_to_survive = 50;

std::atomic<int>& hits() {
    static std::atomic<int> count = 0;
    return count;
}

/// Sends one signal after the other to the thread that made it.
class SignalStorm {
  public:
    SignalStorm() {
        hits() = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++hits(); };
        ::sigaction(storm_signal, &action, &before_);
        thread_ = std::thread([this, target = ::pthread_self()] {
            while (!isOver_) {
                ::pthread_kill(target, storm_signal);
                const timespec pause{.tv_sec = 0, .tv_nsec = 100'000};
                ::nanosleep(&pause, nullptr);
            }
        });
    }
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;
    ~SignalStorm() {
        isOver_ = true;
        thread_.join();
        // Takes back one that has not been delivered yet.
        ::signal(storm_signal, SIG_IGN);
        ::sigaction(storm_signal, &before_, nullptr);
    }

    /// Waits, on another thread than the one that is hit.
    static void rage() {
        const int enough = hits() + interruptions_to_survive;
        test::waitUntil([&] { return hits() >= enough; }, "signals");
    }

  private:
    struct sigaction before_ {};
    std::atomic<bool> isOver_ = false;
    std::thread thread_;
};

TEST(InterruptionTests, ReaderOfLinesWaitsOn) {
    const SignalStorm storm;
    auto input = test::makePipe();
    std::thread writer([&] {
        SignalStorm::rage();
        test::put(input.writing, "one\n");
        SignalStorm::rage();
        input.writing.reset();
    });
    LineReader reader(input.reading.get(), -1);
    std::vector<std::string> lines;
    while (const auto line = reader.next()) lines.emplace_back(*line);
    writer.join();
    EXPECT_THAT(lines, ElementsAre("one"));
}

TEST(InterruptionTests, WriterWaitsForASlowReaderAndLosesNothing) {
    const SignalStorm storm;
    auto pipe = test::makeSmallPipe();
    std::string got;
    std::thread reader([&] {
        SignalStorm::rage();
        got = test::readAll(pipe.reading);
    });
    const std::string text(std::size_t{1} << 20U, 'x');
    {
        DepartureWatch watch;
        OutputStream stream(pipe.writing.get(), "standard output", watch);
        stream.write(text);
    }
    pipe.writing.reset();
    reader.join();
    EXPECT_EQ(got.size(), text.size());
}

TEST(InterruptionTests, FilesAreWrittenAndReadWhole) {
    const SignalStorm storm;
    const test::TemporaryDirectory home;
    PosixFileManager files;
    const auto directory = (home.path() / "a" / "b").string();
    const std::string content(std::size_t{1} << 20U, 'x');
    int rounds = 0;
    for (const int enough = interruptions_to_survive; hits() < enough; ++rounds) {
        files.createDirectory(directory);
        files.writeFileAtomically(directory + "/file", content, Durability::disk);
        ASSERT_EQ(files.readFile(directory + "/file").size(), content.size());
        files.moveItem(directory + "/file", directory + "/moved");
        EXPECT_THAT(files.visibleEntries(directory), SizeIs(1));
        EXPECT_TRUE(files.lockDirectory(directory).isOpen());
        files.removeItem(directory + "/moved");
    }
    EXPECT_GT(rounds, 0);
}

TEST(InterruptionTests, EndOfAChildIsWaitedFor) {
    const SignalStorm storm;
    ChildProcess child({.executable = "/bin/sh",
                        .arguments = {"-c", "read -r word; exit 7"},
                        .standardInput = ChildProcess::StandardInput::pipe});
    std::thread friendOfTheChild([&] {
        SignalStorm::rage();
        child.standardInput().reset();
    });
    EXPECT_EQ(child.waitForEnd().number, 7);
    friendOfTheChild.join();
}

}  // namespace
}  // namespace brindle

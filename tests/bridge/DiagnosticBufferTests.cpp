#include "bridge/DiagnosticBuffer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/Pipes.h"
#include "support/TextForms.h"
#include "support/Waiting.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;
using test::linesOf;
using testing::ElementsAre;
using testing::StartsWith;

constexpr std::size_t line_bytes = 1024;
/// So many lines wait before one is dropped: a buffer full, and the one that has begun.
constexpr std::size_t most_lines = DiagnosticBuffer::capacity_bytes / line_bytes + 1;

/// A line that begins with such a word.
std::string lineOf(const std::string& word) {
    std::string line = word + " ";
    line.resize(line_bytes - 1, '.');
    return line.append("\n");
}

class DiagnosticBufferTests : public testing::Test {
  protected:
    void SetUp() override { handler_ = ::signal(SIGPIPE, SIG_IGN); }
    void TearDown() override {
        queue_.stop(milliseconds{0});
        queue_.join();
        buffer_.stopUsingQueue();
        ::signal(SIGPIPE, handler_);
    }

    void write(const std::string& word, DiagnosticSource source) { buffer_.write(lineOf(word), source); }
    /// Lets nothing more be written at once.
    void fillPipe() { filled_ = test::fill(ends_.writing); }
    /// Adds lines of the worker until one is dropped for want of room.
    void fillBuffer() {
        for (std::size_t i = 0; i <= most_lines; ++i) write("worker", DiagnosticSource::worker);
    }
    /// The lines behind the filling, up to the one that begins with these words.
    std::vector<std::string> readUpTo(const std::string& words) {
        std::string all;
        while (all.size() < filled_) all += test::readSome(ends_.reading);
        all.replace(0, filled_, "\n");
        for (;;) {
            const auto found = all.find("\n" + words);
            const auto end = found == std::string::npos ? found : all.find('\n', found + 1);
            if (end != std::string::npos) return linesOf(all.substr(1, end));
            all += test::readSome(ends_.reading);
        }
    }

    test::PipeEnds ends_ = test::makePipe();
    std::size_t filled_ = 0;
    DepartureWatch watch_;
    SharedOutput error_{ends_.writing.get(), "standard error", watch_};
    SerialQueue queue_{"queue"};
    DiagnosticBuffer buffer_{error_, ends_.writing.get()};

  private:
    sighandler_t handler_ = nullptr;
};

TEST_F(DiagnosticBufferTests, WritesAtOnceWhileSomebodyReads) {
    buffer_.write("one\n", DiagnosticSource::backend);
    buffer_.write("two\n", DiagnosticSource::worker);
    EXPECT_EQ(test::readSome(ends_.reading), "one\ntwo\n");
}

TEST_F(DiagnosticBufferTests, WhatWaitsComesInItsOrderOnceItIsRead) {
    buffer_.useQueue(queue_);
    fillPipe();
    write("one", DiagnosticSource::backend);
    write("two", DiagnosticSource::worker);
    write("three", DiagnosticSource::backend);
    const auto lines = readUpTo("three");
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_THAT(lines, ElementsAre(StartsWith("one"), StartsWith("two"), StartsWith("three")));
}

TEST_F(DiagnosticBufferTests, BufferTakesMuchBeforeItDropsAnything) {
    buffer_.useQueue(queue_);
    fillPipe();
    for (std::size_t i = 0; i < most_lines; ++i) write("worker", DiagnosticSource::worker);
    std::size_t seen = 0;
    while (seen < filled_ + most_lines * line_bytes) seen += test::readSome(ends_.reading).size();
    EXPECT_FALSE(buffer_.isCongested());
}

TEST_F(DiagnosticBufferTests, OneLineTellsHowManyWereDropped) {
    buffer_.useQueue(queue_);
    fillPipe();
    fillBuffer();
    write("worker", DiagnosticSource::worker);
    const auto lines = readUpTo("[ManagedWhatsAppBackend] dropped ");
    std::size_t dropped = 0;
    for (const auto& line : lines) {
        if (line.starts_with("[ManagedWhatsAppBackend] dropped ")) {
            EXPECT_EQ(dropped, 0U);
            dropped = std::stoul(line.substr(std::string("[ManagedWhatsAppBackend] dropped ").size()));
            EXPECT_TRUE(line.ends_with(
                " lines of diagnostics because nobody read standard error; read it all the time to get every line."))
                << line;
        } else {
            EXPECT_EQ(line.size(), line_bytes - 1) << "a line is whole";
        }
    }
    EXPECT_EQ(dropped, 2U);
}

TEST_F(DiagnosticBufferTests, LinesOfTheWorkerMakeRoomForThoseOfTheBackend) {
    buffer_.useQueue(queue_);
    fillPipe();
    fillBuffer();
    for (int i = 0; i < 10; ++i) write("backend", DiagnosticSource::backend);
    write("last", DiagnosticSource::backend);
    const auto lines = readUpTo("last");
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.starts_with("backend "); }),
              10);
}

TEST_F(DiagnosticBufferTests, LongLineOfTheBackendTakesTheRoomOfManyOfTheWorker) {
    buffer_.useQueue(queue_);
    fillPipe();
    fillBuffer();
    buffer_.write("backend " + std::string(8 * line_bytes - 9, '.') + "\n", DiagnosticSource::backend);
    const auto lines = readUpTo("[ManagedWhatsAppBackend] dropped ");
    EXPECT_TRUE(lines.back().starts_with("[ManagedWhatsAppBackend] dropped 9 lines")) << lines.back();
}

/// One gap is easier to read around than many.
TEST_F(DiagnosticBufferTests, LinesOfTheWorkerAreMissedUntilThereIsRoomForMany) {
    fillPipe();
    fillBuffer();
    const std::size_t room = 8 * line_bytes;
    std::string received;
    const auto read = [&](std::size_t bytes) {
        const auto had = received.size();
        received.resize(had + bytes);
        ASSERT_EQ(::read(ends_.reading.get(), received.data() + had, bytes), static_cast<ssize_t>(bytes));
    };
    read(room);
    // The first of these lets go on what waits, so that there is room for the second.
    for (int i = 0; i < 2; ++i) write("late", DiagnosticSource::worker);
    buffer_.useQueue(queue_);
    write("backend", DiagnosticSource::backend);
    while (received.find("\n[ManagedWhatsAppBackend] dropped ") == std::string::npos ||
           !received.ends_with('\n'))
        received += test::readSome(ends_.reading);
    EXPECT_EQ(received.find("late"), std::string::npos);
    const auto gap = received.find("[ManagedWhatsAppBackend] dropped ");
    EXPECT_THAT(received.substr(gap), StartsWith("[ManagedWhatsAppBackend] dropped 3 lines"));
    EXPECT_EQ(received.find("[ManagedWhatsAppBackend] dropped ", gap + 1), std::string::npos);
}

TEST_F(DiagnosticBufferTests, LinesOfTheBackendAreDroppedWhenTheyAloneAreTooMany) {
    fillPipe();
    for (std::size_t i = 0; i < most_lines + 7; ++i) write("backend", DiagnosticSource::backend);
    buffer_.useQueue(queue_);
    write("worker", DiagnosticSource::worker);
    const auto lines = readUpTo("[ManagedWhatsAppBackend] dropped ");
    EXPECT_TRUE(lines.back().starts_with("[ManagedWhatsAppBackend] dropped 8 lines")) << lines.back();
}

TEST_F(DiagnosticBufferTests, IsCongestedWhileMuchWaits) {
    fillPipe();
    EXPECT_FALSE(buffer_.isCongested());
    for (std::size_t i = 0; i <= DiagnosticBuffer::congestion_bytes / line_bytes + 1; ++i)
        write("worker", DiagnosticSource::worker);
    EXPECT_TRUE(buffer_.isCongested());
}

TEST_F(DiagnosticBufferTests, NobodyWaitsForHimWhoWritesToTheSameStream) {
    const MutexHold turn(error_.turn);
    buffer_.write("one\n", DiagnosticSource::backend);
    EXPECT_EQ(error_.stream.written(), 0U);
}

TEST_F(DiagnosticBufferTests, WhatWaitsForAnotherWriterComesAfterHim) {
    buffer_.useQueue(queue_);
    {
        const MutexHold turn(error_.turn);
        buffer_.write("one\n", DiagnosticSource::backend);
    }
    EXPECT_EQ(test::readSome(ends_.reading), "one\n");
}

TEST_F(DiagnosticBufferTests, WaitsForNothingOnceTheReaderHasGone) {
    buffer_.useQueue(queue_);
    fillPipe();
    write("one", DiagnosticSource::backend);
    ends_.reading.reset();
    write("two", DiagnosticSource::backend);
    buffer_.finish(test::must_happen_deadline);
    EXPECT_FALSE(buffer_.isCongested());
}

TEST_F(DiagnosticBufferTests, LastChanceIsTakenByAReaderThatReads) {
    fillPipe();
    write("one", DiagnosticSource::backend);
    std::string all;
    std::thread reader([&] {
        while (all.size() < filled_ + line_bytes) all += test::readSome(ends_.reading);
    });
    buffer_.finish(test::must_happen_deadline);
    reader.join();
    EXPECT_THAT(all.substr(filled_), StartsWith("one"));
}

TEST_F(DiagnosticBufferTests, LastChanceEnds) {
    fillPipe();
    write("one", DiagnosticSource::backend);
    buffer_.finish(milliseconds{1});
    EXPECT_EQ(error_.stream.written(), 0U);
}

}  // namespace
}  // namespace brindle

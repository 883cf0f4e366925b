#include "system/OutputStream.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>
#include <thread>

#include "support/ChildProcesses.h"
#include "support/Pipes.h"
#include "support/Waiting.h"
#include "system/FileSystemFailure.h"
#include "system/Processes.h"

namespace brindle {
namespace {

using test::fill;
using test::makePipe;
using test::makeStreamConnection;
using test::readAll;
using test::readSome;
using Ends = test::PipeEnds;

const std::string stream_name = "standard error";
constexpr std::size_t more_than_any_buffer = std::size_t{3} << 20U;

int flagsOf(const Descriptor& end) {
    return ::fcntl(end.get(), F_GETFL);
}

std::string numbered(std::size_t size) {
    std::string text;
    for (std::size_t i = 0; text.size() < size; ++i) text += std::to_string(i) + "\n";
    return text;
}

class OutputStreamTests : public testing::Test {
  protected:
    void SetUp() override { handler_ = ::signal(SIGPIPE, SIG_IGN); }
    void TearDown() override { ::signal(SIGPIPE, handler_); }

    /// What arrives at the other end of a text that is larger than the stream's buffer.
    std::string transmitted(Ends ends, const std::string& text) {
        return transmitted(std::move(ends), text, watch_);
    }
    static std::string transmitted(Ends ends, const std::string& text, DepartureWatch& watch) {
        std::string received;
        {
            const std::jthread reader(
                [&received, end = std::move(ends.reading)] { received = readAll(end); });
            // Closed before the reader is waited for, also when the write fails.
            const Descriptor writing = std::move(ends.writing);
            OutputStream(writing.get(), stream_name, watch).write(text);
        }
        return received;
    }

    DepartureWatch watch_;

  private:
    sighandler_t handler_ = nullptr;
};

TEST_F(OutputStreamTests, WritesWholeTextToPipe) {
    const auto text = numbered(more_than_any_buffer);
    EXPECT_TRUE(transmitted(makePipe(), text) == text);
}

TEST_F(OutputStreamTests, WritesWholeTextToNonblockingPipe) {
    const auto text = numbered(more_than_any_buffer);
    auto ends = makePipe();
    ::fcntl(ends.writing.get(), F_SETFL, flagsOf(ends.writing) | O_NONBLOCK);
    EXPECT_TRUE(transmitted(std::move(ends), text) == text);
}

TEST_F(OutputStreamTests, WritesWholeTextToSocket) {
    const auto text = numbered(more_than_any_buffer);
    EXPECT_TRUE(transmitted(makeStreamConnection(), text) == text);
}

TEST_F(OutputStreamTests, WritesWholeTextToNonblockingSocket) {
    const auto text = numbered(more_than_any_buffer);
    auto ends = makeStreamConnection();
    ::fcntl(ends.writing.get(), F_SETFL, flagsOf(ends.writing) | O_NONBLOCK);
    EXPECT_TRUE(transmitted(std::move(ends), text) == text);
}

TEST_F(OutputStreamTests, WritesWholeTextToFile) {
    const auto text = numbered(more_than_any_buffer);
    const Descriptor file(::memfd_create("output", MFD_CLOEXEC));
    OutputStream stream(file.get(), stream_name, watch_);
    stream.write(text);
    stream.write("end");
    ASSERT_EQ(::lseek(file.get(), 0, SEEK_SET), 0);
    EXPECT_TRUE(readAll(file) == text + "end");
}

TEST_F(OutputStreamTests, WritesWholeTextToTerminal) {
    Descriptor terminal(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(::grantpt(terminal.get()), 0);
    ASSERT_EQ(::unlockpt(terminal.get()), 0);
    std::array<char, 128> name{};
    ASSERT_EQ(::ptsname_r(terminal.get(), name.data(), name.size()), 0);
    Descriptor line(::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(line.isOpen());
    termios settings{};
    ASSERT_EQ(::tcgetattr(line.get(), &settings), 0);
    ::cfmakeraw(&settings);
    ASSERT_EQ(::tcsetattr(line.get(), TCSANOW, &settings), 0);
    const auto text = numbered(100'000);
    std::string received;
    std::thread reader([&] {
        while (received.size() < text.size()) received += readSome(terminal);
    });
    OutputStream(line.get(), stream_name, watch_).write(text);
    reader.join();
    EXPECT_TRUE(received == text);
}

TEST_F(OutputStreamTests, LeavesTheSharedDescriptionAsItIs) {
    for (auto* make : {&makePipe, &makeStreamConnection}) {
        for (const int nonblocking : {0, O_NONBLOCK}) {
            const auto ends = make();
            ::fcntl(ends.writing.get(), F_SETFL, flagsOf(ends.writing) | nonblocking);
            const int before = flagsOf(ends.writing);
            OutputStream(ends.writing.get(), stream_name, watch_).write("text");
            EXPECT_EQ(flagsOf(ends.writing), before);
            EXPECT_EQ(readSome(ends.reading), "text");
        }
    }
}

TEST_F(OutputStreamTests, WritesNothingForEmptyText) {
    const auto ends = makePipe();
    fill(ends.writing);
    EXPECT_NO_THROW(OutputStream(ends.writing.get(), stream_name, watch_).write(""));
}

TEST_F(OutputStreamTests, WaitsWhileThePipeIsFull) {
    auto ends = makePipe();
    const auto filled = fill(ends.writing);
    std::thread writer([&] {
        OutputStream(ends.writing.get(), stream_name, watch_).write("after");
        ends.writing.reset();
    });
    const auto received = readAll(ends.reading);
    writer.join();
    EXPECT_EQ(received, std::string(filled, '-') + "after");
}

TEST_F(OutputStreamTests, BrokenPipeIsAFailure) {
    auto ends = makePipe();
    ends.reading.reset();
    OutputStream stream(ends.writing.get(), stream_name, watch_);
    try {
        stream.write("text");
        ADD_FAILURE() << "written";
    } catch (const FileSystemFailure& failure) {
        EXPECT_EQ(failure.code(), EPIPE);
        EXPECT_STREQ(failure.what(), "Cannot write to \"standard error\": Broken pipe.");
    }
}

TEST_F(OutputStreamTests, BrokenPipeIsNoticedWhileWaiting) {
    auto ends = makePipe();
    fill(ends.writing);
    std::thread closer([&] { ends.reading.reset(); });
    EXPECT_THROW(OutputStream(ends.writing.get(), stream_name, watch_).write("text"), FileSystemFailure);
    closer.join();
}

TEST_F(OutputStreamTests, BrokenSocketIsAFailureWithoutASignal) {
    ::signal(SIGPIPE, SIG_DFL);
    auto ends = makeStreamConnection();
    ends.reading.reset();
    EXPECT_THROW(OutputStream(ends.writing.get(), stream_name, watch_).write("text"), FileSystemFailure);
}

TEST_F(OutputStreamTests, FullDeviceIsAFailure) {
    const Descriptor device(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(device.isOpen());
    try {
        OutputStream(device.get(), stream_name, watch_).write("text");
        ADD_FAILURE() << "written";
    } catch (const FileSystemFailure& failure) {
        EXPECT_EQ(failure.code(), ENOSPC);
    }
}

TEST_F(OutputStreamTests, DescriptorThatIsNotOpenForWritingIsAFailure) {
    const Descriptor readOnly(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_THROW(OutputStream(readOnly.get(), stream_name, watch_).write("text"), FileSystemFailure);
    EXPECT_THROW(OutputStream(1'000'000, stream_name, watch_).write("text"), FileSystemFailure);
}

TEST_F(OutputStreamTests, GivesUpWhenTheReaderHasClosedItsOtherEnd) {
    auto output = makePipe();
    auto sign = makePipe();
    watch_.addSign(sign.reading.get(), false);
    fill(output.writing);
    sign.writing.reset();
    EXPECT_THROW(OutputStream(output.writing.get(), stream_name, watch_).write("text"), OutputAbandoned);
}

TEST_F(OutputStreamTests, GivesUpWhenASocketSignIsShutDown) {
    auto output = makeStreamConnection();
    auto sign = makeStreamConnection();
    watch_.addSign(sign.reading.get(), false);
    fill(output.writing);
    ASSERT_EQ(::shutdown(sign.writing.get(), SHUT_WR), 0);
    EXPECT_THROW(OutputStream(output.writing.get(), stream_name, watch_).write("text"), OutputAbandoned);
}

TEST_F(OutputStreamTests, GivesUpWhenASignBecomesReadable) {
    auto output = makePipe();
    const Descriptor sign(::eventfd(0, EFD_CLOEXEC));
    watch_.addSign(sign.get(), true);
    fill(output.writing);
    std::thread departure([&] { ::eventfd_write(sign.get(), 1); });
    EXPECT_THROW(OutputStream(output.writing.get(), stream_name, watch_).write("text"), OutputAbandoned);
    departure.join();
}

TEST_F(OutputStreamTests, SignOfDepartureDoesNotMatterWhileTheReaderReads) {
    const auto text = numbered(more_than_any_buffer);
    // A reader that a busy machine lets wait for the whole grace does not read; hardly every time.
    constexpr int attempts = 5;
    std::optional<std::string> received;
    for (int attempt = 0; attempt < attempts && !received; ++attempt) {
        DepartureWatch watch;
        auto sign = makePipe();
        watch.addSign(sign.reading.get(), false);
        sign.writing.reset();
        try {
            received = transmitted(makePipe(), text, watch);
        } catch (const OutputAbandoned&) {
        }
    }
    EXPECT_TRUE(received == text);
}

TEST_F(OutputStreamTests, AbandoningEndsAWaitingWriter) {
    auto output = makePipe();
    fill(output.writing);
    std::thread abandoner([&] { watch_.abandonOutput(); });
    EXPECT_THROW(OutputStream(output.writing.get(), stream_name, watch_).write("text"), OutputAbandoned);
    abandoner.join();
}

TEST_F(OutputStreamTests, AbandonedOutputIsStillWrittenWhereNobodyHasToWait) {
    const auto ends = makePipe();
    watch_.abandonOutput();
    OutputStream(ends.writing.get(), stream_name, watch_).write("goodbye");
    EXPECT_EQ(readSome(ends.reading), "goodbye");
}

TEST_F(OutputStreamTests, NothingFollowsATextThatWasGivenUp) {
    auto ends = makePipe();
    watch_.abandonOutput();
    {
        OutputStream stream(ends.writing.get(), stream_name, watch_);
        EXPECT_THROW(stream.write(numbered(more_than_any_buffer)), OutputAbandoned);
        readSome(ends.reading);
        EXPECT_THROW(stream.write("next"), OutputAbandoned);
    }
    ends.writing.reset();
    EXPECT_THAT(readAll(ends.reading), testing::Not(testing::HasSubstr("next")));
}

TEST_F(OutputStreamTests, EveryStreamOfAWatchIsAbandonedTogether) {
    auto first = makePipe();
    auto second = makePipe();
    fill(first.writing);
    fill(second.writing);
    const Descriptor sign(::eventfd(1, EFD_CLOEXEC));
    watch_.addSign(sign.get(), true);
    EXPECT_THROW(OutputStream(first.writing.get(), stream_name, watch_).write("text"), OutputAbandoned);
    EXPECT_THROW(OutputStream(second.writing.get(), stream_name, watch_).write("text"), OutputAbandoned);
}

TEST_F(OutputStreamTests, DepartureIsOverAfterItsGrace) {
    auto sign = makePipe();
    watch_.addSign(sign.reading.get(), false);
    EXPECT_FALSE(watch_.isDepartureOver());
    sign.writing.reset();
    EXPECT_FALSE(watch_.isDepartureOver()) << "the grace has only begun";
    test::waitUntil([&] { return watch_.isDepartureOver(); }, "the grace is over");
}

TEST_F(OutputStreamTests, AbandonedOutputIsDescribedForPeople) {
    EXPECT_STREQ(OutputAbandoned().what(), "The parent has stopped reading and closed its end.");
}

TEST_F(OutputStreamTests, TextThatTheReaderDoesNotTakeGoesOnLater) {
    const auto ends = makePipe();
    OutputStream stream(ends.writing.get(), stream_name, watch_);
    const auto text = numbered(more_than_any_buffer);
    EXPECT_FALSE(stream.begin(text));
    std::string received;
    do {
        received += readSome(ends.reading);
    } while (!stream.goOn());
    EXPECT_EQ(stream.written(), text.size());
    while (received.size() < text.size()) received += readSome(ends.reading);
    EXPECT_TRUE(received == text);
}

TEST_F(OutputStreamTests, TextThatTheReaderTakesIsWrittenAtOnce) {
    for (auto* make : {&makePipe, &makeStreamConnection}) {
        const auto ends = make();
        OutputStream stream(ends.writing.get(), stream_name, watch_);
        EXPECT_TRUE(stream.begin("text"));
        EXPECT_EQ(readSome(ends.reading), "text");
    }
}

TEST_F(OutputStreamTests, WaitingTextFollowsTheOneThatHasBegun) {
    auto ends = makePipe();
    const auto text = numbered(more_than_any_buffer);
    std::string received;
    std::thread reader;
    {
        const Descriptor writing = std::move(ends.writing);
        OutputStream stream(writing.get(), stream_name, watch_);
        EXPECT_FALSE(stream.begin(text));
        reader = std::thread([&] { received = readAll(ends.reading); });
        stream.write("next");
    }
    reader.join();
    EXPECT_TRUE(received == text + "next");
}

TEST_F(OutputStreamTests, TakesMoreUnlessThePipeIsFull) {
    auto ends = makePipe();
    const OutputStream stream(ends.writing.get(), stream_name, watch_);
    EXPECT_TRUE(stream.takesMore());
    fill(ends.writing);
    EXPECT_FALSE(stream.takesMore());
    ends.reading.reset();
    EXPECT_TRUE(stream.takesMore()) << "the next write tells that nobody reads";
}

TEST_F(OutputStreamTests, NothingFollowsABegunTextThatFailed) {
    auto ends = makePipe();
    OutputStream stream(ends.writing.get(), stream_name, watch_);
    EXPECT_FALSE(stream.begin(numbered(more_than_any_buffer)));
    EXPECT_FALSE(stream.isBroken());
    ends.reading.reset();
    EXPECT_THROW(stream.goOn(), OutputFailure);
    EXPECT_TRUE(stream.isBroken());
    EXPECT_THROW(stream.write("next"), OutputFailure);
    EXPECT_THROW(stream.begin("next"), OutputFailure);
}

TEST_F(OutputStreamTests, PipeTellsWhatWasReadAlsoAfterItsReaderHasGone) {
    auto ends = makePipe();
    OutputStream stream(ends.writing.get(), stream_name, watch_);
    stream.write("read ");
    EXPECT_EQ(stream.taken(), 0U);
    EXPECT_EQ(readSome(ends.reading), "read ");
    stream.write("unread");
    EXPECT_EQ(stream.taken(), 5U);
    EXPECT_FALSE(stream.hasLostReader(std::chrono::milliseconds{0}));
    ends.reading.reset();
    EXPECT_TRUE(stream.hasLostReader(std::chrono::milliseconds{0}));
    EXPECT_EQ(stream.taken(), 5U);
    EXPECT_EQ(stream.written(), 11U);
}

TEST_F(OutputStreamTests, WhatASocketOrAFileTookCountsAsRead) {
    auto ends = makeStreamConnection();
    OutputStream stream(ends.writing.get(), stream_name, watch_);
    stream.write("unread");
    EXPECT_EQ(stream.taken(), 6U);
    ends.reading.reset();
    EXPECT_FALSE(stream.hasLostReader(std::chrono::milliseconds{0}));
    const Descriptor file(::memfd_create("output", MFD_CLOEXEC));
    OutputStream written(file.get(), stream_name, watch_);
    written.write("text");
    EXPECT_EQ(written.taken(), 4U);
}

/// How a write fails in a file that takes no more than `limit` bytes; 0 when it succeeds.
int codeOfWrite(OutputStream& stream, std::string_view text, rlim_t limit) {
    const rlimit size{.rlim_cur = limit, .rlim_max = RLIM_INFINITY};
    if (::setrlimit(RLIMIT_FSIZE, &size) != 0) return -1;
    try {
        stream.write(text);
        return 0;
    } catch (const FileSystemFailure& failure) {
        return failure.code();
    }
}

TEST_F(OutputStreamTests, NothingFollowsATextThatFailedInItsMiddle) {
    const Descriptor file(::memfd_create("output", MFD_CLOEXEC));
    EXPECT_EQ(test::statusOfChild([&] {
                  ignoreSignalsOfFailedWrites();
                  OutputStream stream(file.get(), stream_name, watch_);
                  if (codeOfWrite(stream, "half a line\n", 4) != EFBIG) return 1;
                  return codeOfWrite(stream, "next\n", RLIM_INFINITY) == EFBIG ? 0 : 2;
              }),
              0);
    ASSERT_EQ(::lseek(file.get(), 0, SEEK_SET), 0);
    EXPECT_EQ(readAll(file), "half");
}

TEST_F(OutputStreamTests, TextMayFollowOneThatFailedAtItsStart) {
    const Descriptor file(::memfd_create("output", MFD_CLOEXEC));
    EXPECT_EQ(test::statusOfChild([&] {
                  ignoreSignalsOfFailedWrites();
                  OutputStream stream(file.get(), stream_name, watch_);
                  if (codeOfWrite(stream, "one\n", 4) != 0) return 1;
                  if (codeOfWrite(stream, "lost\n", 4) != EFBIG) return 2;
                  return codeOfWrite(stream, "two\n", RLIM_INFINITY);
              }),
              0);
    ASSERT_EQ(::lseek(file.get(), 0, SEEK_SET), 0);
    EXPECT_EQ(readAll(file), "one\ntwo\n");
}

TEST_F(OutputStreamTests, OutputThatCannotBeWaitedForIsAFailure) {
    for (const bool isPipe : {true, false}) {
        const auto ends = isPipe ? makePipe() : makeStreamConnection();
        fill(ends.writing);
        EXPECT_EQ(test::statusOfChild([&] {
                      OutputStream stream(ends.writing.get(), stream_name, watch_);
                      if (!test::limitDescriptors(0)) return -1;
                      try {
                          stream.write("text");
                          return -2;
                      } catch (const FileSystemFailure& failure) {
                          return failure.code();
                      }
                  }),
                  EINVAL);
    }
}

TEST(DepartureWatchTests, AnotherParentThanTheRecordedOneIsASign) {
    DepartureWatch watch;
    // A process that lives, though it never was this one's parent.
    watch.addParent(::getpid());
    EXPECT_TRUE(watch.isDeparting());
}

TEST(DepartureWatchTests, LivingParentIsNoSign) {
    DepartureWatch watch;
    watch.addParent(::getppid());
    EXPECT_FALSE(watch.isDeparting());
}

TEST(DepartureWatchTests, FailsWhenNoDescriptorIsLeftToWakeWritersWith) {
    EXPECT_EQ(test::statusOfChild([] {
                  if (!test::limitDescriptors(0)) return 1;
                  try {
                      const DepartureWatch watch;
                      return 2;
                  } catch (const Failure& failure) {
                      const std::string words = failure.what();
                      return words.ends_with(": Too many open files.") ? 0 : 3;
                  }
              }),
              0);
}

}  // namespace
}  // namespace brindle

#include "system/LineReader.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcesses.h"
#include "support/Pipes.h"

namespace brindle {
namespace {

using test::makeNonBlockingPipe;
using test::makePieceByPieceConnection;
using test::makePipe;
using test::memoryFileWith;
using test::put;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> linesFrom(int descriptor) {
    LineReader reader(descriptor, -1);
    std::vector<std::string> lines;
    while (const auto line = reader.next()) lines.emplace_back(*line);
    return lines;
}

std::vector<std::string> linesIn(std::string_view content) {
    return linesFrom(memoryFileWith(content).get());
}

/// How much memory stands behind a line that begins where the reader's buffer begins.
std::size_t bufferSize(std::string_view line) {
    return ::malloc_usable_size(const_cast<char*>(line.data()));
}

TEST(LineReaderTests, DeliversLinesWithoutLineFeeds) {
    EXPECT_THAT(linesIn("one\ntwo\n"), ElementsAre("one", "two"));
}

TEST(LineReaderTests, LastLineWithoutLineFeedCounts) {
    EXPECT_THAT(linesIn("one\ntwo"), ElementsAre("one", "two"));
}

TEST(LineReaderTests, EmptyInputHasNoLine) {
    EXPECT_THAT(linesIn(""), IsEmpty());
}

TEST(LineReaderTests, EmptyLinesAreLines) {
    EXPECT_THAT(linesIn("\n\na\n\n"), ElementsAre("", "", "a", ""));
}

TEST(LineReaderTests, EndOfInputRepeats) {
    const auto file = memoryFileWith("a");
    LineReader reader(file.get(), -1);
    EXPECT_TRUE(reader.next().has_value());
    EXPECT_FALSE(reader.next().has_value());
    EXPECT_FALSE(reader.next().has_value());
}

TEST(LineReaderTests, RemovesOneCarriageReturnBeforeTheEnd) {
    EXPECT_THAT(linesIn("a\r\n\r\nb\r\r\nc\r"), ElementsAre("a", "", "b\r", "c"));
}

TEST(LineReaderTests, OnlyLineFeedEndsALine) {
    const std::string content = "a\rb\vc\fd\u0085e\u2028f\u2029g";
    EXPECT_THAT(linesIn(content + "\n"), ElementsAre(content));
}

TEST(LineReaderTests, KeepsNullBytes) {
    const std::string content("\0a\0", 3);
    EXPECT_THAT(linesIn(content + "\n" + content), ElementsAre(content, content));
}

TEST(LineReaderTests, KeepsBytesThatAreNotUtf8) {
    EXPECT_THAT(linesIn("\xFF\xC3\n\xA9"), ElementsAre("\xFF\xC3", "\xA9"));
}

TEST(LineReaderTests, DeliversLinesOfEveryLengthAroundBufferSizes) {
    for (const std::size_t size : {std::size_t{16} << 10U, std::size_t{32} << 10U,
                                   LineReader::kept_buffer_bytes, LineReader::kept_buffer_bytes * 2}) {
        for (std::size_t length = size - 3; length <= size + 3; ++length) {
            const std::string line(length, 'x');
            for (const std::string end : {"\n", "\r\n"}) {
                const auto lines = linesIn(line + end + "next" + end + line);
                ASSERT_EQ(lines.size(), 3U) << length;
                EXPECT_TRUE(lines[0] == line && lines[2] == line) << length;
                EXPECT_EQ(lines[1], "next") << length;
            }
        }
    }
}

TEST(LineReaderTests, DeliversManyLinesAcrossManyBuffers) {
    std::string content;
    std::vector<std::string> expected;
    for (std::size_t i = 0; i < 3000; ++i) {
        expected.emplace_back(i % 97, static_cast<char>('a' + i % 26));
        content += expected.back() + (i % 3 == 0 ? "\r\n" : "\n");
    }
    EXPECT_EQ(linesIn(content), expected);
}

TEST(LineReaderTests, PutsPiecesTogether) {
    auto [reading, writing] = makePieceByPieceConnection();
    for (const char c : std::string_view("ab\r\nc\rd\n\n\r\ne")) put(writing, {&c, 1});
    writing.reset();
    EXPECT_THAT(linesFrom(reading.get()), ElementsAre("ab", "c\rd", "", "", "e"));
}

TEST(LineReaderTests, TakesSeveralLinesOutOfOnePiece) {
    auto [reading, writing] = makePieceByPieceConnection();
    put(writing, "one\ntwo\nthr");
    put(writing, "ee\nfour");
    writing.reset();
    EXPECT_THAT(linesFrom(reading.get()), ElementsAre("one", "two", "three", "four"));
}

TEST(LineReaderTests, DeliversLineBeforeMoreInputComes) {
    auto [reading, writing] = makePipe();
    LineReader reader(reading.get(), -1);
    put(writing, "one\n");
    EXPECT_EQ(reader.next(), "one");
    put(writing, "two\n");
    EXPECT_EQ(reader.next(), "two");
}

TEST(LineReaderTests, WaitsForInputOfNonblockingDescriptor) {
    auto [reading, writing] = makeNonBlockingPipe();
    std::thread writer([end = std::move(writing)] {
        for (int i = 0; i < 100; ++i) put(end, i % 2 == 0 ? "ha" : "lf\n");
    });
    const auto lines = linesFrom(reading.get());
    writer.join();
    EXPECT_EQ(lines, std::vector<std::string>(50, "half"));
}

TEST(LineReaderTests, DeliversVeryLongLineWhole) {
    auto [reading, writing] = makePipe();
    std::string line(std::size_t{32} << 20U, 'x');
    for (std::size_t i = 0; i < line.size(); i += 4093) line[i] = static_cast<char>('a' + i % 26);
    std::thread writer([&line, end = std::move(writing)] { put(end, line + "\nshort"); });
    const auto lines = linesFrom(reading.get());
    writer.join();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0] == line);
    EXPECT_EQ(lines[1], "short");
}

TEST(LineReaderTests, LineMayBeTakenApartWhereItStands) {
    const auto file = memoryFileWith("  one two \nthree\n");
    LineReader reader(file.get(), -1);
    const auto line = reader.next();
    ASSERT_TRUE(line.has_value());
    const auto word = reader.writable(line->substr(2, 3));
    EXPECT_EQ(std::string_view(word.data(), word.size()), "one");
    word.front() = 'O';
    EXPECT_EQ(*line, "  One two ");
    EXPECT_EQ(reader.next(), "three");
}

TEST(LineReaderTests, GivesMemoryOfALargeLineBack) {
    constexpr std::size_t large = LineReader::kept_buffer_bytes * 8;
    auto [reading, writing] = makePieceByPieceConnection();
    LineReader reader(reading.get(), -1);
    const std::string piece(8192, 'x');
    std::thread writer([&piece, &end = writing] {
        for (std::size_t sent = 0; sent < large; sent += piece.size()) put(end, piece);
        put(end, "\n");
        put(end, "short\n");
    });
    const auto longLine = reader.next();
    ASSERT_TRUE(longLine.has_value());
    EXPECT_EQ(longLine->size(), large);
    EXPECT_GE(bufferSize(*longLine), large);
    const auto shortLine = reader.next();
    writer.join();
    ASSERT_EQ(shortLine, "short");
    EXPECT_LE(bufferSize(*shortLine), LineReader::kept_buffer_bytes + 4096);
}

TEST(LineReaderTests, KeepsWhatFollowedALargeLineWhenGivingMemoryBack) {
    const std::string large(LineReader::kept_buffer_bytes * 3 + 17, 'x');
    const std::string following = "one\ntwo\n" + std::string(5000, 'y') + "\nlast";
    const auto lines = linesIn(large + "\n" + following);
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_TRUE(lines[0] == large);
    EXPECT_EQ(lines[1], "one");
    EXPECT_EQ(lines[2], "two");
    EXPECT_EQ(lines[3], std::string(5000, 'y'));
    EXPECT_EQ(lines[4], "last");
}

TEST(LineReaderTests, InterruptEndsTheInput) {
    auto [reading, writing] = makePipe();
    const Descriptor interrupt(::eventfd(0, EFD_CLOEXEC));
    LineReader reader(reading.get(), interrupt.get());
    put(writing, "one\n");
    EXPECT_EQ(reader.next(), "one");
    std::thread interrupter([&] { ::eventfd_write(interrupt.get(), 1); });
    EXPECT_EQ(reader.next(), std::nullopt);
    interrupter.join();
}

TEST(LineReaderTests, LinesThatHadArrivedAreDeliveredAfterAnInterrupt) {
    auto [reading, writing] = makePipe();
    const Descriptor interrupt(::eventfd(0, EFD_CLOEXEC));
    LineReader reader(reading.get(), interrupt.get());
    put(writing, "one\ntwo\n");
    EXPECT_EQ(reader.next(), "one");
    ::eventfd_write(interrupt.get(), 1);
    put(writing, "three\n");
    EXPECT_EQ(reader.next(), "two");
    EXPECT_EQ(reader.next(), "three");
    EXPECT_EQ(reader.next(), std::nullopt);
}

TEST(LineReaderTests, LineThatAnInterruptCutsOffIsNotDelivered) {
    auto [reading, writing] = makePipe();
    const Descriptor interrupt(::eventfd(0, EFD_CLOEXEC));
    LineReader reader(reading.get(), interrupt.get());
    put(writing, "whole\nhal");
    ::eventfd_write(interrupt.get(), 1);
    EXPECT_EQ(reader.next(), "whole");
    EXPECT_EQ(reader.next(), std::nullopt);
    EXPECT_EQ(reader.next(), std::nullopt);
}

TEST(LineReaderTests, WhatComesAfterAnInterruptIsNotTaken) {
    auto [reading, writing] = makePipe();
    const Descriptor interrupt(::eventfd(1, EFD_CLOEXEC));
    LineReader reader(reading.get(), interrupt.get());
    put(writing, "one\n");
    EXPECT_EQ(reader.next(), "one");
    put(writing, "late\n");
    EXPECT_EQ(reader.next(), std::nullopt);
}

TEST(LineReaderTests, InputThatCannotBeReadHasEnded) {
    const Descriptor directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_THAT(linesFrom(directory.get()), IsEmpty());
    EXPECT_THAT(linesFrom(1'000'000), IsEmpty());
}

TEST(LineReaderTests, InputThatCannotBeWaitedForHasEnded) {
    EXPECT_EQ(test::statusOfChild([] {
                  const auto [reading, writing] = makePipe();
                  LineReader reader(reading.get(), -1);
                  put(writing, "one\n");
                  if (reader.next() != "one" || !test::limitDescriptors(0)) return 1;
                  return reader.next() ? 2 : 0;
              }),
              0);
}

}  // namespace
}  // namespace brindle

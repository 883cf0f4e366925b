#include "system/WriteInTime.h"

#include <gtest/gtest.h>
#include <limits.h>

#include <string>
#include <thread>

#include "support/LoweredLimit.h"
#include "support/Pipes.h"

namespace brindle {
namespace {

constexpr std::chrono::milliseconds no_patience{0};
constexpr std::chrono::hours much_patience{1};

TEST(WriteInTimeTests, WritesWhatIsTakenAtOnce) {
    const auto ends = test::makePipe();
    writeInTime(ends.writing.get(), "text\n", no_patience);
    EXPECT_EQ(test::readSome(ends.reading), "text\n");
}

TEST(WriteInTimeTests, DropsTheTextWhenTheReaderDoesNotRead) {
    auto ends = test::makePipe();
    const auto filled = test::fill(ends.writing);
    writeInTime(ends.writing.get(), "text\n", no_patience);
    writeInTime(ends.writing.get(), "text\n", std::chrono::milliseconds(1));
    ends.writing.reset();
    EXPECT_EQ(test::readAll(ends.reading).size(), filled);
}

TEST(WriteInTimeTests, WaitsForAReaderThatIsOnlySlow) {
    auto ends = test::makePipe();
    const auto filled = test::fill(ends.writing);
    std::jthread writer([&] {
        writeInTime(ends.writing.get(), "text\n", much_patience);
        ends.writing.reset();
    });
    EXPECT_EQ(test::readAll(ends.reading).substr(filled), "text\n");
}

TEST(WriteInTimeTests, WritesOfALongTextWhatAPipeTakesInOnePiece) {
    auto ends = test::makePipe();
    writeInTime(ends.writing.get(), std::string(PIPE_BUF + 1, 'x'), no_patience);
    ends.writing.reset();
    EXPECT_EQ(test::readAll(ends.reading).size(), std::size_t{PIPE_BUF});
}

TEST(WriteInTimeTests, WritesWhereAProcessMayHaveNoDescriptorsAnyMore) {
    const auto ends = test::makePipe();
    {
        const test::LoweredLimit limit(RLIMIT_NOFILE, 0);
        writeInTime(ends.writing.get(), "text\n", no_patience);
    }
    EXPECT_EQ(test::readSome(ends.reading), "text\n");
}

TEST(WriteInTimeTests, PassesOverADescriptorThatCannotBeWritten) {
    writeInTime(-1, "text\n", no_patience);
    writeInTime(test::memoryFileWith("").get(), "", no_patience);
}

}  // namespace
}  // namespace brindle

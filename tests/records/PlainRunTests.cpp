#include "records/PlainRun.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace brindle {
namespace {

/// What plainRun is to yield, found byte by byte.
PlainRun runByBytes(std::string_view text, std::string_view specials) {
    PlainRun run;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || specials.find(character) != std::string_view::npos) break;
        if (byte >= 0x80) run.isAscii = false;
        ++run.length;
    }
    return run;
}

class PlainRunTests : public testing::Test {
  protected:
    static void expectAsByBytes(std::string_view text) {
        const auto run = plainRun<'"', '\\', '/'>(text);
        const auto expected = runByBytes(text, "\"\\/");
        EXPECT_EQ(run.length, expected.length) << testing::PrintToString(text);
        EXPECT_EQ(run.isAscii, expected.isAscii) << testing::PrintToString(text);
    }
};

/// More than two blocks, so that each byte is in each place of a block, with and without a rest behind it.
constexpr std::size_t longest_bytes = 40;

TEST_F(PlainRunTests, TextWithoutAStopIsPlainToItsEnd) {
    for (std::size_t size = 0; size <= longest_bytes; ++size) {
        const auto run = plainRun<'"'>(std::string(size, 'a'));
        EXPECT_EQ(run.length, size);
        EXPECT_TRUE(run.isAscii);
    }
}

TEST_F(PlainRunTests, EveryByteInEveryPlaceIsWhatItIsAmongOthers) {
    for (std::size_t size = 1; size <= longest_bytes; ++size) {
        for (std::size_t place = 0; place < size; ++place) {
            for (int byte = 0; byte <= 0xFF; ++byte) {
                std::string text(size, 'a');
                text[place] = static_cast<char>(byte);
                expectAsByBytes(text);
            }
        }
    }
}

TEST_F(PlainRunTests, WhatStandsBehindTheStopChangesNothing) {
    for (std::size_t place = 0; place < longest_bytes; ++place) {
        for (std::size_t behind = place + 1; behind < longest_bytes; ++behind) {
            std::string text(longest_bytes, 'a');
            text[place] = '\\';
            text[behind] = '\xC3';
            expectAsByBytes(text);
            text[behind] = '"';
            expectAsByBytes(text);
        }
    }
}

TEST_F(PlainRunTests, WhatStandsBeforeTheStopIsLookedAt) {
    for (std::size_t place = 1; place < longest_bytes; ++place) {
        for (std::size_t before = 0; before < place; ++before) {
            std::string text(longest_bytes, 'a');
            text[place] = '\n';
            text[before] = '\xC3';
            expectAsByBytes(text);
        }
    }
}

}  // namespace
}  // namespace brindle

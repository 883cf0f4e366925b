#include "console/LineBuffer.h"

#include <gtest/gtest.h>

namespace brindle::console {
namespace {

TEST(LineBuffer, JoinsPiecesAndCutsLines) {
    LineBuffer lines;
    lines.append("on");
    EXPECT_EQ(lines.next(), std::nullopt);
    lines.append("e\ntwo\nthr");
    EXPECT_EQ(lines.next(), "one");
    EXPECT_EQ(lines.next(), "two");
    EXPECT_EQ(lines.next(), std::nullopt);
    lines.append("ee\n");
    EXPECT_EQ(lines.next(), "three");
    EXPECT_EQ(lines.next(), std::nullopt);
}

TEST(LineBuffer, KeepsEmptyLines) {
    LineBuffer lines;
    lines.append("\n\n");
    EXPECT_EQ(lines.next(), "");
    EXPECT_EQ(lines.next(), "");
    EXPECT_EQ(lines.next(), std::nullopt);
}

TEST(LineBuffer, GivesOutWhatHasNoLineFeedOnce) {
    LineBuffer lines;
    lines.append("one\ntwo");
    EXPECT_EQ(lines.next(), "one");
    EXPECT_EQ(lines.takeRest(), "two");
    EXPECT_EQ(lines.takeRest(), std::nullopt);
    lines.append("three\n");
    EXPECT_EQ(lines.next(), "three");
}

TEST(LineBuffer, GivesALineThatIsTooLongOutInPieces) {
    LineBuffer lines(4);
    lines.append("abcdefghij");
    EXPECT_EQ(lines.next(), "abcd");
    EXPECT_EQ(lines.next(), "efgh");
    EXPECT_EQ(lines.next(), std::nullopt);
    lines.append("kl\nabcd\n");
    EXPECT_EQ(lines.next(), "ijkl");
    EXPECT_EQ(lines.next(), "abcd");
    EXPECT_EQ(lines.next(), std::nullopt);
}

}  // namespace
}  // namespace brindle::console

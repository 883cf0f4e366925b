#include "console/Columns.h"

#include <gtest/gtest.h>

namespace brindle::console {
namespace {

TEST(Columns, AreFilledWithBlanks) {
    EXPECT_EQ(leftAligned("name", 6), "name  ");
    EXPECT_EQ(rightAligned("1 s", 6), "   1 s");
}

TEST(Columns, AreWidenedByALongerText) {
    EXPECT_EQ(leftAligned("long name", 6), "long name ");
    EXPECT_EQ(rightAligned("10000 s", 6), "10000 s");
}

TEST(Columns, KeepABlankBetweenATextThatFillsThemAndWhatFollows) {
    EXPECT_EQ(leftAligned("name", 4), "name ");
    EXPECT_EQ(leftAligned("name", 5), "name ");
}

}  // namespace
}  // namespace brindle::console

#include "console/Columns.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <string>

namespace brindle::console {
namespace {

TEST(Columns, AreCountedAsATerminalShowsThem) {
    // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread.
    const std::string before = ::setlocale(LC_CTYPE, nullptr);
    ASSERT_NE(::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    EXPECT_EQ(leftAligned("Zoë", 6), "Zoë   ");
    EXPECT_EQ(leftAligned("日本", 6), "日本  ");
    EXPECT_EQ(columnsOf("e\u0301"), 1U);
    ::setlocale(LC_CTYPE, before.c_str());
    // NOLINTEND(concurrency-mt-unsafe)
}

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

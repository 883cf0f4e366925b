#include "Table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>

namespace brindle::bench {
namespace {

using testing::HasSubstr;
using testing::Not;

Figure drain() {
    return {.name = "drain",
            .place = "tmpfs",
            .size = 1000,
            .unit = "us",
            .floor = {9, 10, 11},
            .helper = {17, 18, 19}};
}

TEST(Table, RatioIsThatOfTheMedians) {
    EXPECT_DOUBLE_EQ(ratioOf(drain()).value(), 1.8);
}

TEST(Table, RatioOfThePercentilesWhereTheFigureIsOne) {
    auto figure = drain();
    figure.statistic = Statistic::percentile99;
    figure.floor = {10, 10, 10};
    figure.helper = {10, 10, 10, 10, 30};
    EXPECT_GT(ratioOf(figure).value(), 2.5);
}

TEST(Table, NoRatioWithoutAFloor) {
    auto figure = drain();
    figure.floor.clear();
    EXPECT_FALSE(ratioOf(figure));
    figure.floor = {0};
    EXPECT_FALSE(ratioOf(figure));
}

TEST(Table, NoRatioWithoutTheHelper) {
    auto figure = drain();
    figure.helper.clear();
    EXPECT_FALSE(ratioOf(figure));
}

TEST(Table, NumbersKeepThreeDigits) {
    EXPECT_EQ(shortNumber(1234.5), "1234");
    EXPECT_EQ(shortNumber(12.345), "12.3");
    EXPECT_EQ(shortNumber(1.2345), "1.23");
    EXPECT_EQ(shortNumber(0.0204), "0.020");
}

TEST(Table, RowsAreAlignedBelowTheirHeader) {
    EXPECT_EQ(alignedTable({drain()}),
              "what   size  where  unit  floor   quartiles  helper   quartiles  ratio\n"
              "drain  1000  tmpfs  us     10.0  9.50..10.5    18.0  17.5..18.5   1.80\n");
}

TEST(Table, MissingValuesAreShownAsSuch) {
    auto figure = drain();
    figure.floor.clear();
    EXPECT_EQ(alignedTable({figure}),
              "what   size  where  unit  floor  quartiles  helper   quartiles  ratio\n"
              "drain  1000  tmpfs  us        -               18.0  17.5..18.5\n");
}

TEST(Table, PercentileIsNamed) {
    auto figure = drain();
    figure.statistic = Statistic::percentile99;
    EXPECT_THAT(alignedTable({figure}), HasSubstr("drain (99th percentile)"));
    EXPECT_THAT(described(figure), HasSubstr("drain (99th percentile) 1000 on tmpfs: helper 19.0 us"));
}

TEST(Table, DescriptionLeavesOutWhatIsMissing) {
    EXPECT_EQ(described(drain()), "drain 1000 on tmpfs: helper 18.0 us, floor 10.0 us, ratio 1.80");
    EXPECT_EQ(described({.name = "rest", .unit = "ms", .helper = {0.4}}), "rest: helper 0.400 ms");
}

TEST(Table, TabSeparatedRowsHaveAsManyFieldsAsTheHeader) {
    auto without = drain();
    without.floor.clear();
    const auto text = tabSeparated({drain(), without});
    const auto endOfHeader = text.find('\n');
    const auto endOfFirst = text.find('\n', endOfHeader + 1);
    const auto tabs = [&](std::size_t begin, std::size_t end) {
        return std::count(text.begin() + static_cast<std::ptrdiff_t>(begin),
                          text.begin() + static_cast<std::ptrdiff_t>(end), '\t');
    };
    EXPECT_EQ(tabs(0, endOfHeader), 12);
    EXPECT_EQ(tabs(endOfHeader, endOfFirst), 12);
    EXPECT_EQ(tabs(endOfFirst, text.size()), 12);
    EXPECT_THAT(text, HasSubstr("drain\ttmpfs\t1000\tus\t10.000000\t9.500000\t10.500000\t3\t18.000000"));
    EXPECT_THAT(text, HasSubstr("drain\ttmpfs\t1000\tus\t\t\t\t0\t18.000000"));
    EXPECT_THAT(text, Not(HasSubstr("-")));
}

}  // namespace
}  // namespace brindle::bench

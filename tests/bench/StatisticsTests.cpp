#include "Statistics.h"

#include <gtest/gtest.h>

#include <vector>

namespace brindle::bench {
namespace {

TEST(Statistics, QuantileLiesBetweenTwoSamplesInProportion) {
    const std::vector<double> samples{40, 10, 30, 20};
    EXPECT_DOUBLE_EQ(quantile(samples, 0), 10);
    EXPECT_DOUBLE_EQ(quantile(samples, 0.5), 25);
    EXPECT_DOUBLE_EQ(quantile(samples, 0.25), 17.5);
    EXPECT_DOUBLE_EQ(quantile(samples, 1), 40);
}

TEST(Statistics, QuantileOfOneSampleIsThatSample) {
    EXPECT_DOUBLE_EQ(quantile({7}, 0.99), 7);
}

TEST(Statistics, QuantileOfNothingIsZero) {
    EXPECT_DOUBLE_EQ(quantile({}, 0.5), 0);
}

TEST(Statistics, SummaryIsNotMovedByOneOutlier) {
    const auto summary = summarized({1, 2, 3, 4, 1000});
    EXPECT_EQ(summary.count, 5U);
    EXPECT_DOUBLE_EQ(summary.lowerQuartile, 2);
    EXPECT_DOUBLE_EQ(summary.median, 3);
    EXPECT_DOUBLE_EQ(summary.upperQuartile, 4);
    EXPECT_GT(summary.percentile99, 900);
}

}  // namespace
}  // namespace brindle::bench

#pragma once

#include <cstddef>
#include <vector>

namespace brindle::bench {

/// The value below which `share` of the samples lie, between two samples in proportion; 0 when there are
/// none.
double quantile(std::vector<double> samples, double share);

/// What a row of the table says about its samples.
struct Summary {
    std::size_t count = 0;
    double lowerQuartile = 0;
    double median = 0;
    double upperQuartile = 0;
    double percentile99 = 0;
};

Summary summarized(const std::vector<double>& samples);

}  // namespace brindle::bench

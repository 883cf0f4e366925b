#include "Statistics.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace brindle::bench {

double quantile(std::vector<double> samples, double share) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const double position = share * static_cast<double>(samples.size() - 1);
    const auto below = static_cast<std::size_t>(std::floor(position));
    const auto above = std::min(below + 1, samples.size() - 1);
    return std::lerp(samples[below], samples[above], position - std::floor(position));
}

Summary summarized(const std::vector<double>& samples) {
    return {.count = samples.size(),
            .lowerQuartile = quantile(samples, 0.25),
            .median = quantile(samples, 0.5),
            .upperQuartile = quantile(samples, 0.75),
            .percentile99 = quantile(samples, 0.99)};
}

}  // namespace brindle::bench

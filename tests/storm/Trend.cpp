#include "storm/Trend.h"

#include <algorithm>
#include <cstddef>

namespace brindle::test {

/// Least squares.
Quantity::Trend Quantity::trend() const {
    const auto first = static_cast<std::size_t>(static_cast<double>(samples.size()) * warm_up_share);
    const auto count = static_cast<double>(samples.size() - first);
    if (count < 2) return {};
    double sum = 0;
    double weighted = 0;
    for (std::size_t index = first; index < samples.size(); ++index) {
        sum += samples[index];
        weighted += samples[index] * static_cast<double>(index - first);
    }
    const double middle = (count - 1) / 2;
    const double slope = (weighted - sum * middle) / (count * (count * count - 1) / 12);
    const double mean = sum / count;
    return {.begin = mean - slope * middle, .end = mean + slope * middle};
}

bool Quantity::isFlat() const {
    const auto [begin, end] = trend();
    return end - begin <= std::max(tolerated, begin * toleratedShare);
}

}  // namespace brindle::test

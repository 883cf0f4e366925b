#pragma once

#include <string>
#include <vector>

namespace brindle::test {

/// A quantity that must not grow.
struct Quantity {
    std::string name;
    /// It may be that much greater at the end than after the warm-up, as a share of what it was then ...
    double toleratedShare = 0;
    /// ... or by this much, whichever is more.
    double tolerated = 0;
    std::vector<double> samples{};

    /// The straight line through the samples after the warm-up, at its beginning and at its end: one sample
    /// tells nothing.
    struct Trend {
        double begin = 0;
        double end = 0;
    };
    Trend trend() const;
    bool isFlat() const;
};

/// The share of the samples that belongs to the warm-up.
inline constexpr double warm_up_share = 0.2;

}  // namespace brindle::test

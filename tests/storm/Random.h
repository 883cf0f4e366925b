#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>

namespace brindle::test {

/// Everything that a storm leaves to chance, from one seed.
class Random {
  public:
    explicit Random(std::uint64_t seed) : engine_(seed) {}

    /// A number from 0 to `bound` - 1.
    std::int64_t below(std::int64_t bound) {
        return static_cast<std::int64_t>(engine_() % static_cast<std::uint64_t>(bound));
    }
    std::int64_t between(std::int64_t least, std::int64_t greatest) {
        return least + below(greatest - least + 1);
    }
    /// As often below as above the geometric mean, so that small numbers get their share.
    std::int64_t magnitude(std::int64_t least, std::int64_t greatest) {
        constexpr std::int64_t steps = 1'000'000;
        const double share = static_cast<double>(below(steps)) / steps;
        const auto low = static_cast<double>(least);
        return std::clamp(std::llround(low * std::pow(static_cast<double>(greatest) / low, share)),
                          static_cast<long long>(least), static_cast<long long>(greatest));
    }
    bool isOneIn(std::int64_t count) { return below(count) == 0; }
    bool hasPercent(std::int64_t percent) { return below(100) < percent; }

  private:
    std::mt19937_64 engine_;
};

}  // namespace brindle::test

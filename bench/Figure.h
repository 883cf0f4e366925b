#pragma once

#include <optional>
#include <string>
#include <vector>

namespace brindle::bench {

enum class Statistic { median, percentile99 };

/// One thing that was measured, on one file system and at one size.
struct Figure {
    std::string name{};
    /// The file system, or nothing where none plays a part.
    std::string place{};
    /// What the growth series count: records, bytes, messages. Nothing when it is no series.
    std::optional<double> size{};
    std::string unit{};
    /// Samples of the C program that does the same system calls; none when there is no such program.
    std::vector<double> floor{};
    std::vector<double> helper{};
    Statistic statistic = Statistic::median;
};

/// The helper's value as a multiple of the floor's; nothing where one is missing.
std::optional<double> ratioOf(const Figure& figure);

}  // namespace brindle::bench

#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace brindle::console {

/// The time that a record names: ISO 8601 in UTC with whole seconds, "2026-01-05T09:30:00Z". Nothing for
/// anything else, nor for other years than 1900 to 2200.
std::optional<std::chrono::system_clock::time_point> parsedTimestamp(std::string_view text);

/// A length of time for people, in the largest unit that fits: "3 s", "5 min", "2 h", "4 d".
std::string shortDuration(std::chrono::system_clock::duration duration);

}  // namespace brindle::console

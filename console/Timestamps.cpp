#include "console/Timestamps.h"

#include <time.h>

namespace brindle::console {
namespace {

/// What lies outside of these is no time of a record, and soon none that the clock can count.
constexpr int first_year = 1900;
constexpr int last_year = 2200;
/// tm counts its years from here.
constexpr int year_of_tm = 1900;

}  // namespace

std::optional<std::chrono::system_clock::time_point> parsedTimestamp(std::string_view text) {
    const std::string whole(text);
    tm parts{};
    const char* end = ::strptime(whole.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    if (end == nullptr || end != whole.c_str() + whole.size()) return std::nullopt;
    const int year = parts.tm_year + year_of_tm;
    if (year < first_year || year > last_year) return std::nullopt;
    return std::chrono::system_clock::from_time_t(::timegm(&parts));
}

std::string shortDuration(std::chrono::system_clock::duration duration) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    if (seconds < std::chrono::minutes(2)) return std::to_string(seconds.count()) + " s";
    if (seconds < std::chrono::hours(2)) return std::to_string(seconds / std::chrono::minutes(1)) + " min";
    if (seconds < std::chrono::hours(48)) return std::to_string(seconds / std::chrono::hours(1)) + " h";
    return std::to_string(seconds / std::chrono::hours(24)) + " d";
}

}  // namespace brindle::console

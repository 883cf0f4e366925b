#include "system/Clock.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <thread>

namespace brindle {

std::chrono::system_clock::time_point SystemClock::now() const {
    return std::chrono::system_clock::now();
}

std::chrono::nanoseconds SystemClock::sinceBoot() const {
    timespec time{};
    ::clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

void SystemClock::sleep(std::chrono::milliseconds duration) const {
    std::this_thread::sleep_for(duration);
}

std::string iso8601(std::chrono::system_clock::time_point time) {
    // Not gmtime_r, which reads the time zone's file to know what is not asked for. Floor, so that a time
    // just before a second never shows the next one.
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(std::chrono::floor<std::chrono::seconds>(time - day));
    std::array<char, 64> text{};
    const int length =
        std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02ld:%02ld:%02ldZ", int{date.year()},
                      unsigned{date.month()}, unsigned{date.day()}, long{clock.hours().count()},
                      long{clock.minutes().count()}, long{clock.seconds().count()});
    return std::string(text.data(), static_cast<std::size_t>(length));
}

}  // namespace brindle

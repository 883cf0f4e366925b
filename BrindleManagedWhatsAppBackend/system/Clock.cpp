#include "system/Clock.h"

#include <array>
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
    // Floor, so that a time just before a second never shows the next one.
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const std::time_t value = std::chrono::system_clock::to_time_t(seconds);
    std::tm parts{};
    gmtime_r(&value, &parts);
    std::array<char, 32> text{};
    const auto length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return std::string(text.data(), length);
}

}  // namespace brindle

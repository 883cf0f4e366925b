#pragma once

#include <chrono>
#include <string>

namespace brindle {

/// Where the system gets the time from; tests turn their own.
class Clock {
  public:
    virtual ~Clock() = default;
    /// The wall clock.
    virtual std::chrono::system_clock::time_point now() const = 0;
    /// Time since the system was started, sleep included (Linux CLOCK_BOOTTIME): unlike the wall clock,
    /// nobody sets it.
    virtual std::chrono::nanoseconds sinceBoot() const = 0;
    /// Blocks the calling thread.
    virtual void sleep(std::chrono::milliseconds duration) const = 0;
};

/// The real clock.
class SystemClock final : public Clock {
  public:
    std::chrono::system_clock::time_point now() const override;
    std::chrono::nanoseconds sinceBoot() const override;
    void sleep(std::chrono::milliseconds duration) const override;
};

/// ISO 8601 internet date-time (RFC 3339) in UTC with whole seconds: "2026-01-05T09:30:00Z".
std::string iso8601(std::chrono::system_clock::time_point time);

}  // namespace brindle

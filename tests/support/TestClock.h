#pragma once

#include <chrono>
#include <mutex>
#include <vector>

#include "system/Clock.h"

namespace brindle::test {

/// A clock that stands still until it is turned. Sleeping turns it instead of blocking and is kept on record.
class TestClock final : public Clock {
  public:
    using TimePoint = std::chrono::system_clock::time_point;

    /// 2026-01-05T09:30:00Z.
    static constexpr TimePoint start{std::chrono::seconds{1767605400}};
    /// How long the system runs by then.
    static constexpr std::chrono::nanoseconds boot_time_at_start = std::chrono::hours{1};

    TimePoint now() const override {
        const std::lock_guard hold(lock_);
        return now_;
    }
    void sleep(std::chrono::milliseconds duration) const override {
        const std::lock_guard hold(lock_);
        now_ += duration;
        sinceBoot_ += duration;
        sleeps_.push_back(duration);
    }
    std::chrono::nanoseconds sinceBoot() const override {
        const std::lock_guard hold(lock_);
        return sinceBoot_;
    }

    /// Lets time go by, on the wall clock and since the system was started.
    void pass(std::chrono::milliseconds duration) {
        const std::lock_guard hold(lock_);
        now_ += duration;
        sinceBoot_ += duration;
    }
    /// The same, until so much has gone by since the start.
    void passUntil(std::chrono::milliseconds sinceStart) {
        const std::lock_guard hold(lock_);
        now_ += boot_time_at_start + sinceStart - sinceBoot_;
        sinceBoot_ = boot_time_at_start + sinceStart;
    }
    /// Sets the wall clock alone, as people do.
    void turnTo(TimePoint time) {
        const std::lock_guard hold(lock_);
        now_ = time;
    }
    std::vector<std::chrono::milliseconds> sleeps() const {
        const std::lock_guard hold(lock_);
        return sleeps_;
    }

  private:
    mutable std::mutex lock_;
    mutable TimePoint now_ = start;
    mutable std::chrono::nanoseconds sinceBoot_ = boot_time_at_start;
    mutable std::vector<std::chrono::milliseconds> sleeps_;
};

}  // namespace brindle::test

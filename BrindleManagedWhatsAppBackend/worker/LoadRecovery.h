#pragma once

#include <chrono>
#include <optional>

#include "system/Clock.h"

namespace brindle {

/// Counts how long a page has had to render, and how often it has been reloaded because it did not. Every new
/// load of the page begins the counting anew; a reload does not.
class LoadRecovery {
  public:
    /// Since the system was started: whoever sets the wall clock neither hurries a reload nor puts it off.
    using TimePoint = std::chrono::nanoseconds;

    /// Counts from now, as if a load had just been issued. `clock` outlives it.
    explicit LoadRecovery(const Clock& clock) : clock_(clock), pageLoadIssuedAt_(clock.sinceBoot()) {}

    /// A load of the page is issued now.
    void beginAnew();
    /// Whether a page that still shows neither a code nor a session is to be reloaded now.
    bool isReloadDue() const;
    /// The page is reloaded now. Answers the number of that reload since the load, from 1.
    int countReload();

    TimePoint pageLoadIssuedAt() const { return pageLoadIssuedAt_; }
    int launchRecoveryAttemptCount() const { return launchRecoveryAttemptCount_; }
    std::optional<TimePoint> lastRecoveryAttemptAt() const { return lastRecoveryAttemptAt_; }

  private:
    const Clock& clock_;
    TimePoint pageLoadIssuedAt_;
    int launchRecoveryAttemptCount_ = 0;
    std::optional<TimePoint> lastRecoveryAttemptAt_;
};

}  // namespace brindle

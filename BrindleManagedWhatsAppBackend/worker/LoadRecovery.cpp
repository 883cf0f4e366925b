#include "worker/LoadRecovery.h"

namespace brindle {
namespace {

/// How long a page may render before it is loaded again.
constexpr std::chrono::seconds render_time_limit{12};
constexpr int most_reloads_per_load = 2;

}  // namespace

void LoadRecovery::beginAnew() {
    pageLoadIssuedAt_ = clock_.sinceBoot();
    launchRecoveryAttemptCount_ = 0;
    lastRecoveryAttemptAt_.reset();
}

bool LoadRecovery::isReloadDue() const {
    const auto now = clock_.sinceBoot();
    if (now - pageLoadIssuedAt_ < render_time_limit) return false;
    if (lastRecoveryAttemptAt_ && now - *lastRecoveryAttemptAt_ < render_time_limit) return false;
    return launchRecoveryAttemptCount_ < most_reloads_per_load;
}

int LoadRecovery::countReload() {
    lastRecoveryAttemptAt_ = clock_.sinceBoot();
    return ++launchRecoveryAttemptCount_;
}

}  // namespace brindle

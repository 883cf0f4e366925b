#include "backend/BackendState.h"

namespace brindle {

void BackendState::setConnected(bool connected) {
    const std::lock_guard hold(stateLock_);
    isConnected_ = connected;
}

bool BackendState::isConnected() const {
    const std::lock_guard hold(stateLock_);
    return isConnected_;
}

void BackendState::setActiveScope(std::optional<BridgeScope> scope) {
    const std::lock_guard hold(stateLock_);
    activeScope_ = std::move(scope);
}

std::optional<BridgeScope> BackendState::activeScope() const {
    const std::lock_guard hold(stateLock_);
    return activeScope_;
}

void BackendState::setWorkerState(ManagedWhatsAppWorkerLaunchSnapshot worker) {
    const std::lock_guard hold(stateLock_);
    workerConfiguredExecutablePath_ = std::move(worker.configuredExecutablePath);
    workerFallbackState_ = std::move(worker.state);
    workerFallbackDetail_ = std::move(worker.detail);
    workerProcessRunning_ = worker.processRunning;
}

std::optional<std::string> BackendState::workerConfiguredExecutablePath() const {
    const std::lock_guard hold(stateLock_);
    return workerConfiguredExecutablePath_;
}

ManagedWhatsAppRuntimeStateSnapshot BackendState::takeSnapshot() const {
    const std::lock_guard hold(stateLock_);
    return {.isConnected = isConnected_,
            .activeScope = activeScope_,
            .workerLaunchSnapshot = {.configuredExecutablePath = workerConfiguredExecutablePath_,
                                     .state = workerFallbackState_,
                                     .detail = workerFallbackDetail_,
                                     .processRunning = workerProcessRunning_}};
}

}  // namespace brindle

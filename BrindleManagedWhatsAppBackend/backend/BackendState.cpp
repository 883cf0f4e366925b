#include "backend/BackendState.h"

namespace brindle {

void BackendState::setConnected(bool connected) {
    const MutexHold hold(stateLock_);
    isConnected_ = connected;
}

bool BackendState::isConnected() const {
    const MutexHold hold(stateLock_);
    return isConnected_;
}

void BackendState::setActiveScope(std::optional<BridgeScope> scope) {
    const MutexHold hold(stateLock_);
    activeScope_ = std::move(scope);
}

std::optional<BridgeScope> BackendState::activeScope() const {
    const MutexHold hold(stateLock_);
    return activeScope_;
}

void BackendState::setWorkerState(ManagedWhatsAppWorkerLaunchSnapshot worker) {
    const MutexHold hold(stateLock_);
    workerConfiguredExecutablePath_ = std::move(worker.configuredExecutablePath);
    workerFallbackState_ = std::move(worker.state);
    workerFallbackDetail_ = std::move(worker.detail);
    workerProcessRunning_ = worker.processRunning;
}

std::optional<std::string> BackendState::workerConfiguredExecutablePath() const {
    const MutexHold hold(stateLock_);
    return workerConfiguredExecutablePath_;
}

ManagedWhatsAppRuntimeStateSnapshot BackendState::takeSnapshot() const {
    const MutexHold hold(stateLock_);
    return {.isConnected = isConnected_,
            .activeScope = activeScope_,
            .workerLaunchSnapshot = {.configuredExecutablePath = workerConfiguredExecutablePath_,
                                     .state = workerFallbackState_,
                                     .detail = workerFallbackDetail_,
                                     .processRunning = workerProcessRunning_}};
}

}  // namespace brindle

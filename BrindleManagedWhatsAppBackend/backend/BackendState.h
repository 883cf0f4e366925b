#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "bridge/BridgeMessages.h"
#include "exchange/ExchangeWords.h"
#include "system/Mutex.h"

namespace brindle {

/// A consistent copy of what is known of the worker process.
struct ManagedWhatsAppWorkerLaunchSnapshot {
    /// The launch description of the configured worker; absent when there is none.
    std::optional<std::string> configuredExecutablePath;
    std::string state;
    std::optional<std::string> detail;
    bool processRunning = false;
};

/// A consistent copy of the backend's whole state.
struct ManagedWhatsAppRuntimeStateSnapshot {
    bool isConnected = false;
    std::optional<BridgeScope> activeScope;
    ManagedWhatsAppWorkerLaunchSnapshot workerLaunchSnapshot;
};

/// What people are told of the worker when none is configured.
inline constexpr std::string_view no_worker_detail = "No managed WhatsApp worker configured.";

/// The backend's connection, scope and worker state, touched only under its lock, which is never held across
/// I/O. Every operation is callable from any thread.
class BackendState {
  public:
    void setConnected(bool connected);
    bool isConnected() const;
    void setActiveScope(std::optional<BridgeScope> scope);
    std::optional<BridgeScope> activeScope() const;
    /// Assigns all four worker fields in one hold of the lock.
    void setWorkerState(ManagedWhatsAppWorkerLaunchSnapshot worker);
    std::optional<std::string> workerConfiguredExecutablePath() const;
    ManagedWhatsAppRuntimeStateSnapshot takeSnapshot() const;

  private:
    mutable Mutex stateLock_;
    bool isConnected_ BRINDLE_GUARDED_BY(stateLock_) = false;
    std::optional<BridgeScope> activeScope_ BRINDLE_GUARDED_BY(stateLock_);
    std::optional<std::string> workerConfiguredExecutablePath_ BRINDLE_GUARDED_BY(stateLock_);
    bool workerProcessRunning_ BRINDLE_GUARDED_BY(stateLock_) = false;
    std::string workerFallbackState_ BRINDLE_GUARDED_BY(stateLock_){worker_state::not_configured};
    std::optional<std::string> workerFallbackDetail_ BRINDLE_GUARDED_BY(stateLock_){no_worker_detail};
};

}  // namespace brindle

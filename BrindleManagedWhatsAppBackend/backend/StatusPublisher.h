#pragma once

#include <optional>
#include <string>

#include "backend/BackendState.h"
#include "backend/DiagnosticLog.h"
#include "exchange/DataDirectory.h"
#include "exchange/ExchangeRecords.h"
#include "system/Clock.h"
#include "system/FileManager.h"
#include "system/Mutex.h"

namespace brindle {

/// The text that names a listening scope to people.
std::string activeScopeDescription(const BridgeScope& scope);

/// Publishes the backend's state as "runtime-status.json" and "worker-control.json". Callable from any
/// thread.
class StatusPublisher {
  public:
    /// What it works with; all of it outlives the publisher.
    struct Uses {
        const std::string& platform;
        const DataDirectory& directory;
        FileManager& fileManager;
        const Clock& clock;
        const BackendState& state;
        const DiagnosticLog& log;
    };

    explicit StatusPublisher(const Uses& uses) : uses_(uses) {}

    /// Writes the runtime status and then, whatever came of it, the worker control record. Failures are
    /// logged.
    void writeRuntimeStatus() noexcept;

  private:
    // What is wrong with the worker's status is handed out rather than logged, so that no lock is held while
    // logging.
    void writeStatus(std::string& workerProblem);
    void writeWorkerControl();
    std::optional<ManagedWhatsAppWorkerStatusRecord> workerStatus(
        const ManagedWhatsAppWorkerLaunchSnapshot& worker, std::string& problem);
    ManagedWhatsAppRuntimeStatusRecord statusRecord(const ManagedWhatsAppRuntimeStateSnapshot& snapshot,
                                                    std::string& workerProblem);

    Uses uses_;
    // Held from taking a snapshot to having written it, so that an older snapshot never replaces a newer one:
    // the last status of an ending backend stays the last.
    Mutex writeLock_;
};

}  // namespace brindle

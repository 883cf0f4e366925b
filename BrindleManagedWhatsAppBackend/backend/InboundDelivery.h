#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "backend/BackendState.h"
#include "backend/DiagnosticLog.h"
#include "bridge/ManagedWhatsAppBackendEmitter.h"
#include "exchange/DataDirectory.h"
#include "exchange/ExchangeRecords.h"
#include "system/Clock.h"
#include "system/FileManager.h"
#include "system/OutputStream.h"

namespace brindle {

/// True when a message belongs to what is listened to. Texts compare exactly.
bool belongsToScope(const ManagedWhatsAppInboundRecord& record, const BridgeScope& scope);

/// Delivers the records that a worker leaves in "inbound" to the parent. Callable from any thread.
class InboundDelivery {
  public:
    /// What it works with; all of it outlives the delivery.
    struct Uses {
        const DataDirectory& directory;
        FileManager& fileManager;
        const Clock& clock;
        const BackendState& state;
        ManagedWhatsAppBackendEmitter& emitter;
        DepartureWatch& departureWatch;
        const DiagnosticLog& log;
    };

    explicit InboundDelivery(const Uses& uses) : uses_(uses) {}

    /// Delivers every record that belongs to the active scope, in order of file names, and files it away.
    /// Does nothing while disconnected, without a scope or during a self-test. Failures are logged. A drain
    /// that is under way is waited for.
    void drainInboundDirectory() noexcept;
    /// The same, but nothing when a drain is under way: the poller is back soon anyway.
    void drainUnlessUnderWay() noexcept;
    /// A drain that is under way ends behind the file it is at; later ones do nothing.
    void stop() noexcept { isStopped_ = true; }

  private:
    void drain() noexcept;
    void deliverAll();
    std::vector<std::string> recordNames();
    void deliverOrReject(const std::string& name, const BridgeScope& scope);
    void deliver(const std::string& name, const BridgeScope& scope);
    BridgeInboundMessageEvent eventFor(ManagedWhatsAppInboundRecord record, const std::string& name);
    void fileAway(const std::string& name, const std::string& directory);

    Uses uses_;
    /// Two drains over one backlog would overtake each other and deliver messages out of order or twice.
    std::mutex drainLock_;
    std::atomic<bool> isStopped_ = false;
};

}  // namespace brindle

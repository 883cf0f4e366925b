#pragma once

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "backend/BackendContext.h"
#include "exchange/ExchangeRecords.h"

namespace brindle {

/// True when a message belongs to what is listened to. Texts compare exactly.
bool belongsToScope(const ManagedWhatsAppInboundRecord& record, const BridgeScope& scope);

/// Delivers the records that a worker leaves in "inbound" to the parent. Callable from any thread.
class InboundDelivery {
  public:
    explicit InboundDelivery(const BackendContext& context) : context_(context) {}

    /// Delivers every record that belongs to the active scope, in order of file names, and files it away.
    /// Does nothing while disconnected, without a scope or during a self-test. Failures are logged.
    void drainInboundDirectory() noexcept;

  private:
    class Claim;

    std::vector<std::string> recordNames();
    void deliverOrReject(const std::string& name, const BridgeScope& scope);
    void deliver(const std::string& name, const BridgeScope& scope);
    BridgeInboundMessageEvent eventFor(ManagedWhatsAppInboundRecord record, const std::string& name);
    void moveToDirectory(const std::string& name, const std::string& directory);

    const BackendContext& context_;
    std::mutex claimsLock_;
    /// Files that a drain is at this moment reading, delivering or moving. A drain that meets another one's
    /// file passes it by; without this, two drains over a long backlog would deliver the same messages twice.
    std::set<std::string> claims_;
};

}  // namespace brindle

#pragma once

#include "exchange/ExchangeRecords.h"
#include "worker/WorkerContext.h"

namespace brindle {

/// Follows "worker-control.json", by which the backend says what to watch.
class WorkerControl {
  public:
    explicit WorkerControl(const WorkerContext& context) : context_(context) {}

    /// Takes the file over into the state. A missing or undecodable file means that nothing is watched; a
    /// record for another platform changes nothing. Never fails outward.
    void refreshControl() noexcept;

  private:
    /// False when the record is for another platform.
    bool takeRecord();
    void takeScope(const ManagedWhatsAppWorkerControlScope& scope);
    void forgetWatchedChat();

    const WorkerContext& context_;
};

}  // namespace brindle

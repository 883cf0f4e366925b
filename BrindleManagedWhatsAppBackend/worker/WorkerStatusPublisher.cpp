#include "worker/WorkerStatusPublisher.h"

#include <utility>

#include "exchange/ExchangeRecords.h"

namespace brindle {

void WorkerStatusPublisher::writeStatus() const noexcept {
    try {
        ManagedWhatsAppWorkerStatusRecord record;
        record.state = state_.workerState;
        record.displayName = state_.displayName;
        record.detail = state_.workerDetail;
        record.lastHeartbeatISO8601 = iso8601(clock_.now());
        record.supportsLiveCapture = true;
        record.supportsOutbound = false;
        writeRecord(fileManager_, statusFile_, record, Durability::process);
    } catch (const std::exception& error) {
        log_.failure("Failed to write worker status", error);
    }
}

void WorkerStatusPublisher::publish(std::string_view workerState, std::string workerDetail) const noexcept {
    state_.workerState = workerState;
    state_.workerDetail = std::move(workerDetail);
    writeStatus();
}

void WorkerStatusPublisher::publishWithoutAccount(std::string_view workerState,
                                                  std::string workerDetail) const noexcept {
    state_.displayName.reset();
    publish(workerState, std::move(workerDetail));
}

}  // namespace brindle

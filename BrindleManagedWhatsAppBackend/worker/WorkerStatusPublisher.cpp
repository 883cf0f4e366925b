#include "worker/WorkerStatusPublisher.h"

#include <utility>

#include "exchange/ExchangeRecords.h"

namespace brindle {

void WorkerStatusPublisher::writeStatus() const noexcept {
    try {
        ManagedWhatsAppWorkerStatusRecord record;
        record.state = context_.state.workerState;
        record.displayName = context_.state.displayName;
        record.detail = context_.state.workerDetail;
        record.lastHeartbeatISO8601 = iso8601(context_.clock.now());
        record.supportsLiveCapture = true;
        record.supportsOutbound = false;
        writeRecord(context_.fileManager, context_.directory.workerStatusFile, record, Durability::process);
    } catch (const std::exception& error) {
        context_.logError("Failed to write worker status: " + descriptionOf(error));
    }
}

void WorkerStatusPublisher::publish(std::string_view workerState, std::string workerDetail) const noexcept {
    context_.state.workerState = workerState;
    context_.state.workerDetail = std::move(workerDetail);
    writeStatus();
}

void WorkerStatusPublisher::publishWithoutAccount(std::string_view workerState,
                                                  std::string workerDetail) const noexcept {
    context_.state.displayName.reset();
    publish(workerState, std::move(workerDetail));
}

}  // namespace brindle

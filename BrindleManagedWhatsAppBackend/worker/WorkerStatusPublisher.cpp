#include "worker/WorkerStatusPublisher.h"

#include "exchange/ExchangeRecords.h"
#include "text/WithoutFailing.h"

namespace brindle {

void WorkerStatusPublisher::writeStatus() const noexcept {
    withoutFailing([this] { write(); }, [this](const std::exception& error) { logFailure(error); });
}

void WorkerStatusPublisher::publish(std::string_view workerState,
                                    std::string_view workerDetail) const noexcept {
    withoutFailing(
        [&] {
            state_.workerState = workerState;
            state_.workerDetail = workerDetail;
            write();
        },
        [this](const std::exception& error) { logFailure(error); });
}

void WorkerStatusPublisher::publishWithoutAccount(std::string_view workerState,
                                                  std::string_view workerDetail) const noexcept {
    state_.displayName.reset();
    publish(workerState, workerDetail);
}

void WorkerStatusPublisher::write() const {
    ManagedWhatsAppWorkerStatusRecord record;
    record.state = state_.workerState;
    record.displayName = state_.displayName;
    record.detail = state_.workerDetail;
    record.lastHeartbeatISO8601 = iso8601(clock_.now());
    record.supportsLiveCapture = true;
    record.supportsOutbound = false;
    writeRecord(fileManager_, statusFile_, record, Durability::process);
}

void WorkerStatusPublisher::logFailure(const std::exception& error) const noexcept {
    log_.failure("Failed to write worker status", error);
}

}  // namespace brindle

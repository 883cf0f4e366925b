#include "backend/StatusPublisher.h"

#include <errno.h>

#include "backend/BackendIdentity.h"
#include "exchange/ExchangeWords.h"
#include "system/FileSystemFailure.h"
#include "text/WithoutFailing.h"

namespace brindle {
namespace {

std::string titled(std::string_view kind, std::string_view title, std::string_view id) {
    std::string text(kind);
    return text.append(" ").append(title).append(" [").append(id).append("]");
}

struct ScopeDescriber {
    std::string operator()(const BridgeConversationScope& scope) const {
        return titled("Conversation", scope.title, scope.id);
    }
    std::string operator()(const BridgeChannelScope& scope) const {
        return titled("Channel", scope.title, scope.id);
    }
    std::string operator()(const BridgeThreadScope& scope) const {
        return titled("Thread", scope.title.value_or(scope.id), scope.id);
    }
    std::string operator()(const BridgeTestOnlyScope& scope) const { return "Self-test " + scope.title; }
};

void takeOver(ManagedWhatsAppRuntimeStatusRecord& record, ManagedWhatsAppWorkerStatusRecord worker) {
    record.workerState = std::move(worker.state);
    record.workerDisplayName = std::move(worker.displayName);
    record.workerDetail = std::move(worker.detail);
    record.workerLastHeartbeatISO8601 = std::move(worker.lastHeartbeatISO8601);
    record.workerContactQRLink = std::move(worker.contactQRLink);
    record.workerSupportsLiveCapture = worker.supportsLiveCapture;
    record.workerSupportsOutbound = worker.supportsOutbound;
}

}  // namespace

std::string activeScopeDescription(const BridgeScope& scope) {
    return std::visit(ScopeDescriber(), scope);
}

void StatusPublisher::writeRuntimeStatus() noexcept {
    std::string workerProblem;
    withoutFailing([&] { writeStatus(workerProblem); },
                   [this](const std::exception& error) {
                       uses_.log.write("failed to write runtime status: " + descriptionOf(error));
                   });
    withoutFailing([&] {
        if (!workerProblem.empty()) uses_.log.write("failed to decode worker status: " + workerProblem);
    });
    withoutFailing([this] { writeWorkerControl(); },
                   [this](const std::exception& error) {
                       uses_.log.write("failed to write worker control: " + descriptionOf(error));
                   });
}

void StatusPublisher::writeStatus(std::string& workerProblem) {
    const MutexHold hold(writeLock_);
    const auto record = statusRecord(uses_.state.takeSnapshot(), workerProblem);
    writeRecord(uses_.fileManager, uses_.directory.runtimeStatusFile, record, Durability::process);
}

void StatusPublisher::writeWorkerControl() {
    const MutexHold hold(writeLock_);
    const auto snapshot = uses_.state.takeSnapshot();
    ManagedWhatsAppWorkerControlRecord record;
    record.platform = uses_.platform;
    if (snapshot.activeScope)
        record.activeScope = ManagedWhatsAppWorkerControlScope::from(*snapshot.activeScope);
    record.updatedAtISO8601 = iso8601(uses_.clock.now());
    writeRecord(uses_.fileManager, uses_.directory.workerControlFile, record, Durability::process);
}

std::optional<ManagedWhatsAppWorkerStatusRecord> StatusPublisher::workerStatus(
    const ManagedWhatsAppWorkerLaunchSnapshot& worker, std::string& problem) {
    if (!worker.processRunning) return std::nullopt;
    try {
        return readRecord<ManagedWhatsAppWorkerStatusRecord>(uses_.fileManager,
                                                             uses_.directory.workerStatusFile);
    } catch (const FileSystemFailure& error) {
        // A worker that has not written its status yet is nothing to report, also when it does so just now.
        if (error.code() == ENOENT || !uses_.fileManager.fileExists(uses_.directory.workerStatusFile))
            return std::nullopt;
        problem = descriptionOf(error);
    } catch (const std::exception& error) {
        problem = descriptionOf(error);
    }
    return std::nullopt;
}

ManagedWhatsAppRuntimeStatusRecord StatusPublisher::statusRecord(
    const ManagedWhatsAppRuntimeStateSnapshot& snapshot, std::string& workerProblem) {
    const auto& worker = snapshot.workerLaunchSnapshot;
    ManagedWhatsAppRuntimeStatusRecord record;
    record.platform = uses_.platform;
    record.backendVersion = backend_version;
    record.dataDirectoryPath = uses_.directory.path;
    record.connectionState =
        snapshot.isConnected ? connection_word::connected : connection_word::disconnected;
    if (snapshot.activeScope) record.activeScopeDescription = activeScopeDescription(*snapshot.activeScope);
    record.workerConfiguredExecutablePath = worker.configuredExecutablePath;
    record.workerProcessRunning = worker.processRunning;
    record.workerState = worker.state;
    record.workerDetail = worker.detail;
    if (auto status = workerStatus(worker, workerProblem)) takeOver(record, std::move(*status));
    record.updatedAtISO8601 = iso8601(uses_.clock.now());
    return record;
}

}  // namespace brindle

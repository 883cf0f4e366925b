#pragma once

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "backend/DiagnosticLog.h"
#include "backend/InboundDelivery.h"
#include "backend/StatusPublisher.h"
#include "backend/WorkerSupervisor.h"
#include "exchange/EnvironmentKeys.h"
#include "support/FaultInjectingFileManager.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/MemoryStreams.h"
#include "support/TemporaryDirectory.h"
#include "support/TestClock.h"
#include "support/TextForms.h"

namespace brindle::test {

/// The message events among the envelopes of an output.
inline std::vector<Json> inboundEventsIn(const std::string& output) {
    std::vector<Json> events;
    for (const auto& line : linesOf(output)) {
        const auto envelope = Json::parse(line);
        if (envelope.contains("inboundEvent")) events.push_back(envelope["inboundEvent"]["_0"]["event"]);
    }
    return events;
}

/// What the parts of the backend work with: a real data directory, a file manager that can be told to fail, a
/// clock that stands still, and streams whose text is kept.
struct BackendParts {
    explicit BackendParts(brindle::Environment settings = {}) : environment(std::move(settings)) {
        directory.createForBackend(files);
    }

    /// Leaves a record in "inbound" as a worker does.
    void putInbound(const std::string& name, const std::string& content) const {
        test::writeFileAtomically(directory.inbound + "/" + name, content);
    }
    Json runtimeStatus() const { return readJsonFile(directory.runtimeStatusFile); }
    Json workerControl() const { return readJsonFile(directory.workerControlFile); }

    StatusPublisher::Uses forPublisher() {
        return {.platform = platform,
                .directory = directory,
                .fileManager = files,
                .clock = clock,
                .state = state,
                .log = log};
    }
    InboundDelivery::Uses forDelivery() { return forDelivery(files); }
    InboundDelivery::Uses forDelivery(FileManager& fileManager) {
        return {.directory = directory,
                .fileManager = fileManager,
                .clock = clock,
                .state = state,
                .emitter = emitter,
                .departureWatch = departureWatch,
                .log = log,
                .queue = queue};
    }
    WorkerSupervisor::Uses forSupervisor(StatusPublisher& publisher, SerialQueue& where) {
        return {.platform = platform,
                .environment = environment,
                .directory = directory,
                .fileManager = files,
                .clock = clock,
                .state = state,
                .publisher = publisher,
                .emitter = emitter,
                .log = log,
                .queue = where};
    }

    TemporaryDirectory home;
    std::string platform = "whatsapp";
    brindle::Environment environment;
    FaultInjectingFileManager files;
    TestClock clock;
    BackendState state;
    DataDirectory directory{
        {{std::string(environment_key::data_directory), (home.path() / "data").string()}}, files, platform};
    MemoryStreams streams;
    DepartureWatch departureWatch;
    ManagedWhatsAppBackendEmitter emitter{streams.output(), streams.error(), departureWatch};
    DiagnosticLog log{emitter};
    SerialQueue queue{"queue"};
};

/// An inbound record as a worker writes it.
inline Json inboundRecord(const std::string& messageId, const std::string& conversationId = "room",
                          const std::string& conversationTitle = "Room") {
    return {{"messageId", messageId},
            {"conversationId", conversationId},
            {"conversationTitle", conversationTitle},
            {"senderId", "s-1"},
            {"senderDisplayName", "Sam"},
            {"text", "Hello"},
            {"timestampISO8601", "2026-01-05T09:00:00Z"},
            {"isDirectMessage", false},
            {"rawReference", "raw-" + messageId}};
}

}  // namespace brindle::test

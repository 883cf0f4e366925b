#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bridge/BridgeMessages.h"
#include "records/Record.h"
#include "system/FileManager.h"

/// The records that cross the data directory, one JSON file each.
namespace brindle {

/// "worker-status.json": written by the worker, read by the backend.
struct ManagedWhatsAppWorkerStatusRecord {
    std::string state;
    std::optional<std::string> displayName;
    std::optional<std::string> detail;
    std::optional<std::string> lastHeartbeatISO8601;
    std::optional<std::string> contactQRLink;
    bool supportsLiveCapture = false;
    bool supportsOutbound = false;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppWorkerStatusRecord;
        return std::tuple{
            field("state", &Record::state, "The worker's state word."),
            field("displayName", &Record::displayName, "The linked account's name, when known."),
            field("detail", &Record::detail, "A sentence for people that describes the state."),
            field("lastHeartbeatISO8601", &Record::lastHeartbeatISO8601, "When the record was written."),
            field("contactQRLink", &Record::contactQRLink, "A QR link for contacting the account."),
            field("supportsLiveCapture", &Record::supportsLiveCapture,
                  "Whether it captures inbound messages."),
            field("supportsOutbound", &Record::supportsOutbound, "Whether it sends outbound records."),
        };
    }
};

/// What the worker should watch.
struct ManagedWhatsAppWorkerControlScope {
    std::string kind;
    std::optional<std::string> id;
    std::optional<std::string> title;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppWorkerControlScope;
        return std::tuple{
            field("kind", &Record::kind, "One of \"conversation\", \"channel\", \"thread\", \"testOnly\"."),
            field("id", &Record::id, "The scope's identifier; never for \"testOnly\"."),
            field("title", &Record::title, "The chat title to watch; a thread may have none."),
        };
    }

    /// The control form of a listening scope.
    static ManagedWhatsAppWorkerControlScope from(const BridgeScope& scope);
};

/// "worker-control.json": written by the backend, read by the worker.
struct ManagedWhatsAppWorkerControlRecord {
    std::string platform;
    std::optional<ManagedWhatsAppWorkerControlScope> activeScope;
    std::string updatedAtISO8601;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppWorkerControlRecord;
        return std::tuple{
            field("platform", &Record::platform,
                  "The writer's platform; a record for another one is ignored."),
            field("activeScope", &Record::activeScope, "What to watch; absent when nothing is listened to."),
            field("updatedAtISO8601", &Record::updatedAtISO8601, "When the backend built the record."),
        };
    }
};

/// "outbound"/<messageId>.json: written by the backend, consumed by a worker that sends.
struct ManagedWhatsAppOutboundRecord {
    std::string messageId;
    std::string conversationId;
    std::string text;
    std::optional<std::string> replyToMessageId;
    std::string createdAtISO8601;
    std::vector<BridgeAttachment> attachments;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppOutboundRecord;
        return std::tuple{
            field("messageId", &Record::messageId,
                  "A fresh UUID, greater than those before; also the file's base name."),
            field("conversationId", &Record::conversationId, "The conversation to send to."),
            field("text", &Record::text, "The message text."),
            field("replyToMessageId", &Record::replyToMessageId, "The message this one answers."),
            field("createdAtISO8601", &Record::createdAtISO8601, "When the backend accepted the request."),
            field("attachments", &Record::attachments, "The attachments as received; always present."),
        };
    }
};

/// "inbound"/<messageId>.json as the built-in worker writes it.
struct ManagedWhatsAppWorkerInboundRecord {
    std::string messageId;
    std::string conversationId;
    std::string conversationTitle;
    std::string senderId;
    std::string senderDisplayName;
    std::string text;
    std::string timestampISO8601;
    bool isDirectMessage = false;
    std::optional<std::string> rawReference;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppWorkerInboundRecord;
        return std::tuple{
            field("messageId", &Record::messageId, "The captured message's identifier; also the base name."),
            field("conversationId", &Record::conversationId, "The conversation it belongs to."),
            field("conversationTitle", &Record::conversationTitle, "The chat's title."),
            field("senderId", &Record::senderId, "The sender's identifier."),
            field("senderDisplayName", &Record::senderDisplayName, "The sender's name."),
            field("text", &Record::text, "The message text."),
            field("timestampISO8601", &Record::timestampISO8601, "When it was captured."),
            field("isDirectMessage", &Record::isDirectMessage, "Whether the chat is a one-to-one chat."),
            field("rawReference", &Record::rawReference, "An opaque reference to the message in its source."),
        };
    }
};

/// "inbound"/*.json as the backend reads it: workers may leave out what the backend can supply.
struct ManagedWhatsAppInboundRecord {
    std::optional<std::string> messageId;
    std::string conversationId;
    std::string conversationTitle;
    std::string senderId;
    std::string senderDisplayName;
    std::string text;
    std::optional<std::string> timestampISO8601;
    bool isDirectMessage = false;
    std::optional<std::string> rawReference;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppInboundRecord;
        return std::tuple{
            field("messageId", &Record::messageId, "The message's identifier; else a fresh UUID is used."),
            field("conversationId", &Record::conversationId, "The conversation it belongs to."),
            field("conversationTitle", &Record::conversationTitle, "The chat's title."),
            field("senderId", &Record::senderId, "The sender's identifier."),
            field("senderDisplayName", &Record::senderDisplayName, "The sender's name."),
            field("text", &Record::text, "The message text."),
            field("timestampISO8601", &Record::timestampISO8601, "When it came; else the time of delivery."),
            field("isDirectMessage", &Record::isDirectMessage, "Whether the chat is a one-to-one chat."),
            field("rawReference", &Record::rawReference, "A reference to its source; else the file's name."),
        };
    }
};

/// "runtime-status.json": written by the backend for outside observers.
struct ManagedWhatsAppRuntimeStatusRecord {
    std::string platform;
    std::string backendVersion;
    std::string dataDirectoryPath;
    std::string connectionState;
    std::optional<std::string> activeScopeDescription;
    std::optional<std::string> workerConfiguredExecutablePath;
    bool workerProcessRunning = false;
    std::string workerState;
    std::optional<std::string> workerDisplayName;
    std::optional<std::string> workerDetail;
    std::optional<std::string> workerLastHeartbeatISO8601;
    std::optional<std::string> workerContactQRLink;
    bool workerSupportsLiveCapture = false;
    bool workerSupportsOutbound = false;
    std::string updatedAtISO8601;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppRuntimeStatusRecord;
        return std::tuple{
            field("platform", &Record::platform, "The messaging platform."),
            field("backendVersion", &Record::backendVersion, "The backend's version."),
            field("dataDirectoryPath", &Record::dataDirectoryPath, "Where the data directory is."),
            field("connectionState", &Record::connectionState, "\"connected\" or \"disconnected\"."),
            field("activeScopeDescription", &Record::activeScopeDescription,
                  "What is listened to, for people."),
            field("workerConfiguredExecutablePath", &Record::workerConfiguredExecutablePath,
                  "The launch description of the configured worker."),
            field("workerProcessRunning", &Record::workerProcessRunning, "Whether the worker runs."),
            field("workerState", &Record::workerState, "The worker's state word."),
            field("workerDisplayName", &Record::workerDisplayName, "The linked account's name."),
            field("workerDetail", &Record::workerDetail, "A sentence for people that describes the state."),
            field("workerLastHeartbeatISO8601", &Record::workerLastHeartbeatISO8601,
                  "When the worker last wrote its status."),
            field("workerContactQRLink", &Record::workerContactQRLink,
                  "A QR link for contacting the account."),
            field("workerSupportsLiveCapture", &Record::workerSupportsLiveCapture,
                  "Whether the worker captures inbound messages."),
            field("workerSupportsOutbound", &Record::workerSupportsOutbound,
                  "Whether the worker sends outbound records."),
            field("updatedAtISO8601", &Record::updatedAtISO8601, "When this record was built."),
        };
    }
};

/// Every record that is a file of its own; its reference and its schema come from this list.
using DataDirectoryRecords = std::tuple<ManagedWhatsAppWorkerStatusRecord, ManagedWhatsAppWorkerControlRecord,
                                        ManagedWhatsAppOutboundRecord, ManagedWhatsAppWorkerInboundRecord,
                                        ManagedWhatsAppInboundRecord, ManagedWhatsAppRuntimeStatusRecord>;

/// Reads and decodes a record file. Throws FileSystemFailure (its code tells a missing file from an
/// unreadable one) or DecodingFailure.
template <RecordType Record>
Record readRecord(FileManager& fileManager, const std::string& path) {
    return decodedRecord<Record>(fileManager.readFile(path));
}

/// Encodes a record (pretty, sorted names) and writes it atomically. Throws FileSystemFailure.
template <RecordType Record>
void writeRecord(FileManager& fileManager, const std::string& path, const Record& value,
                 Durability durability) {
    fileManager.writePiecesAtomically(
        path, [&](const PieceTaker& take) { encodeInPieces(value, JsonStyle::pretty, take); }, durability);
}

}  // namespace brindle

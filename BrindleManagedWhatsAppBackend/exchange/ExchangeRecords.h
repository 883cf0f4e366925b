#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bridge/BridgeMessages.h"
#include "exchange/ExchangeWords.h"
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

    static constexpr std::string_view meaning =
        "The file runtime/worker-status.json, which the worker writes every second and the backend reads.";

    static constexpr auto fields() {
        using Record = ManagedWhatsAppWorkerStatusRecord;
        return std::tuple{
            field("state", &Record::state, "The worker's state word.", like(worker_state::watching_chat)),
            field("displayName", &Record::displayName, "The linked account's name, when known.",
                  like("Bo Nilsson")),
            field("detail", &Record::detail, "A sentence for people that describes the state.",
                  like("Watching 'Team Room'.")),
            field("lastHeartbeatISO8601", &Record::lastHeartbeatISO8601, "When the record was written.",
                  dateTime()),
            field("contactQRLink", &Record::contactQRLink, "A QR link for contacting the account.",
                  like("https://example.com/qr/4711")),
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
            field("kind", &Record::kind, "One of \"conversation\", \"channel\", \"thread\", \"testOnly\".",
                  oneOf(BridgeScope::case_names)),
            field("id", &Record::id, "The scope's identifier; never for \"testOnly\".", like("team-room")),
            field("title", &Record::title, "The chat title to watch; a thread may have none.",
                  like("Team Room")),
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

    static constexpr std::string_view meaning =
        "The file runtime/worker-control.json, which the backend writes and the worker reads.";

    static constexpr auto fields() {
        using Record = ManagedWhatsAppWorkerControlRecord;
        return std::tuple{
            field("platform", &Record::platform,
                  "The writer's platform; a record for another one is ignored.", like("whatsapp")),
            field("activeScope", &Record::activeScope, "What to watch; absent when nothing is listened to."),
            field("updatedAtISO8601", &Record::updatedAtISO8601, "When the backend built the record.",
                  dateTime()),
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

    static constexpr std::string_view meaning =
        "A file of outbound, which the backend writes and a worker that sends takes.";

    static constexpr auto fields() {
        using Record = ManagedWhatsAppOutboundRecord;
        return std::tuple{
            field("messageId", &Record::messageId,
                  "A fresh UUID, greater than those before; also the file's base name.",
                  uuidLike("6F1C2E4A-1B7D-4C55-9E0B-2D3F4A5B6C7D")),
            field("conversationId", &Record::conversationId, "The conversation to send to.",
                  like("team-room")),
            field("text", &Record::text, "The message text.", like("On my way")),
            field("replyToMessageId", &Record::replyToMessageId, "The message this one answers.",
                  like("m-17")),
            field("createdAtISO8601", &Record::createdAtISO8601, "When the backend accepted the request.",
                  dateTime()),
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

    static constexpr std::string_view meaning =
        "A file of inbound as the built-in worker writes it; other workers may leave more out.";

    static constexpr auto fields() {
        using Record = ManagedWhatsAppWorkerInboundRecord;
        return std::tuple{
            field("messageId", &Record::messageId, "The captured message's identifier; also the base name.",
                  like("m-18")),
            field("conversationId", &Record::conversationId, "The conversation it belongs to.",
                  like("team-room")),
            field("conversationTitle", &Record::conversationTitle, "The chat's title.", like("Team Room")),
            field("senderId", &Record::senderId, "The sender's identifier.", like("bo")),
            field("senderDisplayName", &Record::senderDisplayName, "The sender's name.", like("Bo Nilsson")),
            field("text", &Record::text, "The message text.", like("Good morning!")),
            field("timestampISO8601", &Record::timestampISO8601, "When it was captured.", dateTime()),
            field("isDirectMessage", &Record::isDirectMessage, "Whether the chat is a one-to-one chat."),
            field("rawReference", &Record::rawReference, "An opaque reference to the message in its source.",
                  like("row 18")),
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

    static constexpr std::string_view meaning = "A file of inbound as the backend reads it.";

    static constexpr auto fields() {
        using Record = ManagedWhatsAppInboundRecord;
        return std::tuple{
            field("messageId", &Record::messageId, "The message's identifier; else a fresh UUID is used.",
                  like("m-18")),
            field("conversationId", &Record::conversationId, "The conversation it belongs to.",
                  like("team-room")),
            field("conversationTitle", &Record::conversationTitle, "The chat's title.", like("Team Room")),
            field("senderId", &Record::senderId, "The sender's identifier.", like("bo")),
            field("senderDisplayName", &Record::senderDisplayName, "The sender's name.", like("Bo Nilsson")),
            field("text", &Record::text, "The message text.", like("Good morning!")),
            field("timestampISO8601", &Record::timestampISO8601, "When it came; else the time of delivery.",
                  dateTime()),
            field("isDirectMessage", &Record::isDirectMessage, "Whether the chat is a one-to-one chat."),
            field("rawReference", &Record::rawReference, "A reference to its source; else the file's name.",
                  like("row 18")),
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

    static constexpr std::string_view meaning =
        "The file runtime/runtime-status.json, which the backend writes every second for whoever looks on.";

    static constexpr auto fields() {
        using Record = ManagedWhatsAppRuntimeStatusRecord;
        return std::tuple{
            field("platform", &Record::platform, "The messaging platform.", like("whatsapp")),
            field("backendVersion", &Record::backendVersion, "The backend's version.",
                  like("managed-whatsapp-backend-3")),
            field("dataDirectoryPath", &Record::dataDirectoryPath, "Where the data directory is.",
                  like("/home/bo/.local/state/brindle")),
            field("connectionState", &Record::connectionState, "\"connected\" or \"disconnected\".",
                  oneOf(connection_word::all)),
            field("activeScopeDescription", &Record::activeScopeDescription,
                  "What is listened to, for people.", like("conversation:Team Room")),
            field("workerConfiguredExecutablePath", &Record::workerConfiguredExecutablePath,
                  "The launch description of the configured worker.", like("/usr/lib/worker")),
            field("workerProcessRunning", &Record::workerProcessRunning, "Whether the worker runs."),
            field("workerState", &Record::workerState, "The worker's state word.",
                  like(worker_state::watching_chat)),
            field("workerDisplayName", &Record::workerDisplayName, "The linked account's name.",
                  like("Bo Nilsson")),
            field("workerDetail", &Record::workerDetail, "A sentence for people that describes the state.",
                  like("Watching 'Team Room'.")),
            field("workerLastHeartbeatISO8601", &Record::workerLastHeartbeatISO8601,
                  "When the worker last wrote its status.", dateTime()),
            field("workerContactQRLink", &Record::workerContactQRLink,
                  "A QR link for contacting the account.", like("https://example.com/qr/4711")),
            field("workerSupportsLiveCapture", &Record::workerSupportsLiveCapture,
                  "Whether the worker captures inbound messages."),
            field("workerSupportsOutbound", &Record::workerSupportsOutbound,
                  "Whether the worker sends outbound records."),
            field("updatedAtISO8601", &Record::updatedAtISO8601, "When this record was built.", dateTime()),
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

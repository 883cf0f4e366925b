#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "records/Record.h"

/// The messages between the parent application and the backend. One envelope type serves both directions;
/// each side ignores the cases that are not meant for it.
namespace brindle {

struct BridgeHello {
    std::string platform;
    std::string bridgeVersion;

    static constexpr std::string_view meaning =
        "The first line of a backend, which tells the parent whom it speaks to.";

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeHello::platform, "The messaging platform this backend serves.",
                  like("whatsapp")),
            field("bridgeVersion", &BridgeHello::bridgeVersion, "The backend's protocol version.",
                  like("managed-whatsapp-backend-3")),
        };
    }
};

struct BridgeConnectRequest {
    std::string platform;

    static constexpr std::string_view meaning = "Asks for events; answered with two changes of state.";

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeConnectRequest::platform, "The platform the request is meant for.",
                  like("whatsapp")),
        };
    }
};

struct BridgeDisconnectRequest {
    std::string platform;

    static constexpr std::string_view meaning =
        "Ends what connect began, and forgets the scope; answered with a change of state.";

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeDisconnectRequest::platform, "The platform the request is meant for.",
                  like("whatsapp")),
        };
    }
};

struct BridgeConversationScope {
    std::string id;
    std::string title;

    bool operator==(const BridgeConversationScope&) const = default;

    static constexpr auto fields() {
        return std::tuple{
            field("id", &BridgeConversationScope::id, "The conversation's identifier.", like("team-room")),
            field("title", &BridgeConversationScope::title,
                  "The conversation's title as the service shows it.", like("Team Room")),
        };
    }
};

struct BridgeChannelScope {
    std::string id;
    std::string title;

    bool operator==(const BridgeChannelScope&) const = default;

    static constexpr auto fields() {
        return std::tuple{
            field("id", &BridgeChannelScope::id, "The channel's identifier.", like("news")),
            field("title", &BridgeChannelScope::title, "The channel's title as the service shows it.",
                  like("News")),
        };
    }
};

struct BridgeThreadScope {
    std::string id;
    std::optional<std::string> title;

    bool operator==(const BridgeThreadScope&) const = default;

    static constexpr auto fields() {
        return std::tuple{
            field("id", &BridgeThreadScope::id, "The thread's identifier.", like("t-9")),
            field("title", &BridgeThreadScope::title,
                  "The thread's title; without one every message belongs.", like("Launch")),
        };
    }
};

struct BridgeTestOnlyScope {
    std::string title;

    bool operator==(const BridgeTestOnlyScope&) const = default;

    static constexpr auto fields() {
        return std::tuple{
            field("title", &BridgeTestOnlyScope::title, "The conversation title of the self-test event.",
                  like("Smoke test")),
        };
    }
};

/// What the parent wants to listen to.
struct BridgeScope
    : Enumeration<Case<"conversation", BridgeConversationScope>, Case<"channel", BridgeChannelScope>,
                  Case<"thread", BridgeThreadScope>, Case<"testOnly", BridgeTestOnlyScope>> {
    using Enumeration::Enumeration;
    static constexpr std::string_view payload_name{};
};

struct BridgeStartListeningRequest {
    std::string platform;
    BridgeScope scope;

    static constexpr std::string_view meaning =
        "Asks for the messages of a scope, those that wait first; not answered.";

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeStartListeningRequest::platform,
                  "The platform the request is meant for.", like("whatsapp")),
            field("scope", &BridgeStartListeningRequest::scope, "What to listen to from now on."),
        };
    }
};

struct BridgeStopListeningRequest {
    std::string platform;

    static constexpr std::string_view meaning = "Forgets the scope; not answered.";

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeStopListeningRequest::platform, "The platform the request is meant for.",
                  like("whatsapp")),
        };
    }
};

struct BridgeAttachment {
    std::optional<std::string> id;
    std::string kind;
    std::string fileName;
    std::string mimeType;
    std::optional<std::string> localPath;
    std::optional<LongText> dataBase64;
    std::optional<std::string> caption;

    static constexpr auto fields() {
        return std::tuple{
            field("id", &BridgeAttachment::id, "The attachment's identifier.", like("a-1")),
            field("kind", &BridgeAttachment::kind, "The kind of content: image, video, audio, document ...",
                  like("image")),
            field("fileName", &BridgeAttachment::fileName, "The name to show and to store under.",
                  like("plan.png")),
            field("mimeType", &BridgeAttachment::mimeType, "The media type (RFC 6838).", like("image/png")),
            field("localPath", &BridgeAttachment::localPath, "Where the content lies on this machine.",
                  like("/home/bo/plan.png")),
            field("dataBase64", &BridgeAttachment::dataBase64, "The content as standard Base64 (RFC 4648).",
                  base64Of("iVBORw0KGgo=")),
            field("caption", &BridgeAttachment::caption, "Text that goes with the attachment.",
                  like("The plan")),
        };
    }
};

struct BridgeOutboundMessage {
    std::string conversationId;
    std::string text;
    std::optional<std::string> replyToMessageId;
    std::optional<std::vector<BridgeAttachment>> attachments;

    static constexpr auto fields() {
        return std::tuple{
            field("conversationId", &BridgeOutboundMessage::conversationId, "The conversation to send to.",
                  like("team-room")),
            field("text", &BridgeOutboundMessage::text, "The message text.", like("On my way")),
            field("replyToMessageId", &BridgeOutboundMessage::replyToMessageId,
                  "The message this one answers.", like("m-17")),
            field("attachments", &BridgeOutboundMessage::attachments, "Files that go with the message."),
        };
    }
};

struct BridgeSendMessageRequest {
    std::string platform;
    BridgeOutboundMessage message;

    static constexpr std::string_view meaning =
        "Has a message written to disk for a worker that sends; not answered.";

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeSendMessageRequest::platform, "The platform the request is meant for.",
                  like("whatsapp")),
            field("message", &BridgeSendMessageRequest::message, "What to send."),
        };
    }
};

struct BridgeInboundMessageEvent {
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
        return std::tuple{
            field("messageId", &BridgeInboundMessageEvent::messageId, "The message's identifier.",
                  like("m-18")),
            field("conversationId", &BridgeInboundMessageEvent::conversationId,
                  "The conversation it came in.", like("team-room")),
            field("conversationTitle", &BridgeInboundMessageEvent::conversationTitle,
                  "That conversation's title.", like("Team Room")),
            field("senderId", &BridgeInboundMessageEvent::senderId, "The sender's identifier.", like("bo")),
            field("senderDisplayName", &BridgeInboundMessageEvent::senderDisplayName, "The sender's name.",
                  like("Bo Nilsson")),
            field("text", &BridgeInboundMessageEvent::text, "The message text.", like("Good morning!")),
            field("timestampISO8601", &BridgeInboundMessageEvent::timestampISO8601,
                  "When it was captured (ISO 8601, UTC, whole seconds).", dateTime()),
            field("isDirectMessage", &BridgeInboundMessageEvent::isDirectMessage,
                  "True in a chat between two people."),
            field("rawReference", &BridgeInboundMessageEvent::rawReference,
                  "An opaque reference to where the message came from.", like("m-18.json")),
        };
    }
};

struct BridgeInboundEvent {
    BridgeInboundMessageEvent event;

    static constexpr std::string_view meaning = "A message of the scope that is listened to.";

    static constexpr auto fields() {
        return std::tuple{field("event", &BridgeInboundEvent::event, "The message that came in.")};
    }
};

struct BridgeDisconnectedState {
    static constexpr auto fields() { return std::tuple{}; }
};

struct BridgeConnectingState {
    static constexpr auto fields() { return std::tuple{}; }
};

struct BridgeConnectedState {
    std::optional<std::string> accountDisplayName;

    static constexpr auto fields() {
        return std::tuple{
            field("accountDisplayName", &BridgeConnectedState::accountDisplayName,
                  "The account's name to show.", like("Brindle Managed WhatsApp Backend")),
        };
    }
};

struct BridgeErrorState {
    std::string message;

    static constexpr auto fields() {
        return std::tuple{field("message", &BridgeErrorState::message, "What went wrong, for people.",
                                like("The connection was lost."))};
    }
};

/// How the backend stands towards the parent.
struct BridgeConnectionState
    : Enumeration<Case<"disconnected", BridgeDisconnectedState>, Case<"connecting", BridgeConnectingState>,
                  Case<"connected", BridgeConnectedState>, Case<"error", BridgeErrorState>> {
    using Enumeration::Enumeration;
    static constexpr std::string_view payload_name{};
};

struct BridgeStateChangedEvent {
    BridgeConnectionState state;

    static constexpr std::string_view meaning = "How the backend stands towards the parent from now on.";

    static constexpr auto fields() {
        return std::tuple{field("state", &BridgeStateChangedEvent::state, "The state from now on.")};
    }
};

struct BridgeErrorEvent {
    std::string message;

    static constexpr std::string_view meaning =
        "A line that could not be carried out; one for each, in their order.";

    static constexpr auto fields() {
        return std::tuple{
            field(
                "message", &BridgeErrorEvent::message, "Why the last request had no effect: one sentence.",
                like(
                    "The data cannot be used because a required value is missing (at connect._0.platform).")),
        };
    }
};

/// One message between parent and backend.
struct BridgeEnvelope
    : Enumeration<Case<"hello", BridgeHello>, Case<"connect", BridgeConnectRequest>,
                  Case<"disconnect", BridgeDisconnectRequest>,
                  Case<"startListening", BridgeStartListeningRequest>,
                  Case<"stopListening", BridgeStopListeningRequest>,
                  Case<"sendMessage", BridgeSendMessageRequest>, Case<"inboundEvent", BridgeInboundEvent>,
                  Case<"stateChanged", BridgeStateChangedEvent>, Case<"error", BridgeErrorEvent>> {
    using Enumeration::Enumeration;
    static constexpr std::string_view payload_name = "_0";

    /// Those that the parent sends and the backend carries out.
    static constexpr std::array requests{
        caseName<BridgeConnectRequest>(),        caseName<BridgeDisconnectRequest>(),
        caseName<BridgeStartListeningRequest>(), caseName<BridgeStopListeningRequest>(),
        caseName<BridgeSendMessageRequest>(),
    };
    /// Those that the backend sends.
    static constexpr std::array events{
        caseName<BridgeHello>(),
        caseName<BridgeInboundEvent>(),
        caseName<BridgeStateChangedEvent>(),
        caseName<BridgeErrorEvent>(),
    };
    static_assert(requests.size() + events.size() == case_names.size());

    static constexpr std::string_view meaning =
        "A line between parent and backend, in either direction: exactly one message, under its name. Members "
        "that nobody knows are ignored, and null stands for what may be absent.";
    static constexpr std::string_view request_meaning =
        "A line that the parent writes to the backend's standard input: exactly one request, under its name. "
        "Members that nobody knows are ignored, and null stands for what may be absent.";
    static constexpr std::string_view event_meaning =
        "A line that the backend writes to its standard output: exactly one event, under its name. Later versions "
        "may add members; what is absent is left out and never null.";
};

/// The envelope as one line: compact JSON with sorted names and a line feed.
std::string encodedLine(const BridgeEnvelope& envelope);

}  // namespace brindle

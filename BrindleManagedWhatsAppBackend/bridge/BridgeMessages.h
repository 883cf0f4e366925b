#pragma once

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

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeHello::platform, "The messaging platform this backend serves."),
            field("bridgeVersion", &BridgeHello::bridgeVersion, "The backend's protocol version."),
        };
    }
};

struct BridgeConnectRequest {
    std::string platform;

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeConnectRequest::platform, "The platform the request is meant for."),
        };
    }
};

struct BridgeDisconnectRequest {
    std::string platform;

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeDisconnectRequest::platform, "The platform the request is meant for."),
        };
    }
};

struct BridgeConversationScope {
    std::string id;
    std::string title;

    bool operator==(const BridgeConversationScope&) const = default;

    static constexpr auto fields() {
        return std::tuple{
            field("id", &BridgeConversationScope::id, "The conversation's identifier."),
            field("title", &BridgeConversationScope::title,
                  "The conversation's title as the service shows it."),
        };
    }
};

struct BridgeChannelScope {
    std::string id;
    std::string title;

    bool operator==(const BridgeChannelScope&) const = default;

    static constexpr auto fields() {
        return std::tuple{
            field("id", &BridgeChannelScope::id, "The channel's identifier."),
            field("title", &BridgeChannelScope::title, "The channel's title as the service shows it."),
        };
    }
};

struct BridgeThreadScope {
    std::string id;
    std::optional<std::string> title;

    bool operator==(const BridgeThreadScope&) const = default;

    static constexpr auto fields() {
        return std::tuple{
            field("id", &BridgeThreadScope::id, "The thread's identifier."),
            field("title", &BridgeThreadScope::title,
                  "The thread's title; without one every message belongs."),
        };
    }
};

struct BridgeTestOnlyScope {
    std::string title;

    bool operator==(const BridgeTestOnlyScope&) const = default;

    static constexpr auto fields() {
        return std::tuple{
            field("title", &BridgeTestOnlyScope::title, "The conversation title of the self-test event."),
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

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeStartListeningRequest::platform,
                  "The platform the request is meant for."),
            field("scope", &BridgeStartListeningRequest::scope, "What to listen to from now on."),
        };
    }
};

struct BridgeStopListeningRequest {
    std::string platform;

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeStopListeningRequest::platform,
                  "The platform the request is meant for."),
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
            field("id", &BridgeAttachment::id, "The attachment's identifier."),
            field("kind", &BridgeAttachment::kind, "The kind of content: image, video, audio, document ..."),
            field("fileName", &BridgeAttachment::fileName, "The name to show and to store under."),
            field("mimeType", &BridgeAttachment::mimeType, "The media type (RFC 6838)."),
            field("localPath", &BridgeAttachment::localPath, "Where the content lies on this machine."),
            field("dataBase64", &BridgeAttachment::dataBase64, "The content as standard Base64 (RFC 4648)."),
            field("caption", &BridgeAttachment::caption, "Text that goes with the attachment."),
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
            field("conversationId", &BridgeOutboundMessage::conversationId, "The conversation to send to."),
            field("text", &BridgeOutboundMessage::text, "The message text."),
            field("replyToMessageId", &BridgeOutboundMessage::replyToMessageId,
                  "The message this one answers."),
            field("attachments", &BridgeOutboundMessage::attachments, "Files that go with the message."),
        };
    }
};

struct BridgeSendMessageRequest {
    std::string platform;
    BridgeOutboundMessage message;

    static constexpr auto fields() {
        return std::tuple{
            field("platform", &BridgeSendMessageRequest::platform, "The platform the request is meant for."),
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
            field("messageId", &BridgeInboundMessageEvent::messageId, "The message's identifier."),
            field("conversationId", &BridgeInboundMessageEvent::conversationId,
                  "The conversation it came in."),
            field("conversationTitle", &BridgeInboundMessageEvent::conversationTitle,
                  "That conversation's title."),
            field("senderId", &BridgeInboundMessageEvent::senderId, "The sender's identifier."),
            field("senderDisplayName", &BridgeInboundMessageEvent::senderDisplayName, "The sender's name."),
            field("text", &BridgeInboundMessageEvent::text, "The message text."),
            field("timestampISO8601", &BridgeInboundMessageEvent::timestampISO8601,
                  "When it was captured (ISO 8601, UTC, whole seconds)."),
            field("isDirectMessage", &BridgeInboundMessageEvent::isDirectMessage,
                  "True in a chat between two people."),
            field("rawReference", &BridgeInboundMessageEvent::rawReference,
                  "An opaque reference to where the message came from."),
        };
    }
};

struct BridgeInboundEvent {
    BridgeInboundMessageEvent event;

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
                  "The account's name to show."),
        };
    }
};

struct BridgeErrorState {
    std::string message;

    static constexpr auto fields() {
        return std::tuple{field("message", &BridgeErrorState::message, "What went wrong, for people.")};
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

    static constexpr auto fields() {
        return std::tuple{field("state", &BridgeStateChangedEvent::state, "The state from now on.")};
    }
};

struct BridgeErrorEvent {
    std::string message;

    static constexpr auto fields() {
        return std::tuple{
            field("message", &BridgeErrorEvent::message, "Why the last request had no effect: one sentence."),
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
};

/// The envelope as one line: compact JSON with sorted names and a line feed.
std::string encodedLine(const BridgeEnvelope& envelope);

}  // namespace brindle

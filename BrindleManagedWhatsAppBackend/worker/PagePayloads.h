#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "records/Record.h"

/// What the page scripts result in, as JSON texts.
namespace brindle {

/// Of a title that the page tells, people are shown no more: in Unicode code points. Records keep it whole.
inline constexpr std::size_t longest_shown_title = 1000;

/// The result of the link state script.
struct ManagedWhatsAppLinkedStatePayload {
    bool linked = false;
    std::optional<std::string> account;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppLinkedStatePayload;
        return std::tuple{
            field("linked", &Record::linked, "Whether the page shows a linked session."),
            field("account", &Record::account, "The account's label."),
        };
    }
};

/// The words by which the chat activation script says how far the watched chat is open.
namespace activation_state {

inline constexpr std::string_view activating = "activating";
inline constexpr std::string_view searching = "searching";
inline constexpr std::string_view wrong_active_chat = "wrong-active-chat";
inline constexpr std::string_view no_active_chat = "no-active-chat";
/// The worker's own, where the script has given none.
inline constexpr std::string_view chat_not_found = "chat-not-found";

}  // namespace activation_state

/// The words by which the inbound capture script says what it found.
namespace capture_state {

inline constexpr std::string_view ok = "ok";
inline constexpr std::string_view no_incoming_message = "no-incoming-message";
inline constexpr std::string_view wrong_chat = "wrong-chat";
inline constexpr std::string_view no_active_chat = "no-active-chat";

}  // namespace capture_state

/// The result of the chat activation script.
struct ManagedWhatsAppChatActivationPayload {
    std::string state;
    std::optional<std::string> activeChatTitle;
    std::optional<std::string> matchedTitle;
    std::optional<std::string> pageTitle;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppChatActivationPayload;
        return std::tuple{
            field("state", &Record::state, "How far the watched chat is open."),
            field("activeChatTitle", &Record::activeChatTitle, "The open chat's title; empty for none."),
            field("matchedTitle", &Record::matchedTitle,
                  "The title of the row that matched, or the watched one."),
            field("pageTitle", &Record::pageTitle, "The document's title."),
        };
    }
};

/// One captured message.
struct ManagedWhatsAppObservedInboundMessage {
    std::optional<std::string> activeChatTitle;
    std::optional<std::string> senderDisplayName;
    std::optional<std::string> text;
    std::optional<std::string> fingerprint;
    std::optional<std::string> rawReference;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppObservedInboundMessage;
        return std::tuple{
            field("activeChatTitle", &Record::activeChatTitle, "The chat that was open."),
            field("senderDisplayName", &Record::senderDisplayName, "The sender as shown."),
            field("text", &Record::text, "The message text."),
            field("fingerprint", &Record::fingerprint, "What makes the message this one."),
            field("rawReference", &Record::rawReference, "The message's own identifier in the page."),
        };
    }
};

/// The result of the inbound capture script.
struct ManagedWhatsAppObservedInboundDrainPayload {
    std::string state;
    std::optional<std::string> activeChatTitle;
    std::optional<std::string> watchedTitle;
    std::optional<std::string> pageTitle;
    std::optional<std::int64_t> visibleInboundCount;
    std::optional<std::int64_t> queuedCount;
    std::optional<std::vector<ManagedWhatsAppObservedInboundMessage>> messages;

    static constexpr auto fields() {
        using Record = ManagedWhatsAppObservedInboundDrainPayload;
        return std::tuple{
            field("state", &Record::state, "What the run found."),
            field("activeChatTitle", &Record::activeChatTitle, "The open chat's title."),
            field("watchedTitle", &Record::watchedTitle, "The watched title as the script got it."),
            field("pageTitle", &Record::pageTitle, "The document's title."),
            field("visibleInboundCount", &Record::visibleInboundCount, "Inbound messages in view."),
            field("queuedCount", &Record::queuedCount, "Messages left in the page's queue."),
            field("messages", &Record::messages, "The captured messages, oldest first."),
        };
    }
};

}  // namespace brindle

#include "console/ReadableEnvelope.h"

#include <variant>

#include "bridge/BridgeMessages.h"
#include "console/TerminalColors.h"
#include "console/TerminalText.h"
#include "records/DecodingFailure.h"

namespace brindle::console {
namespace {

constexpr std::string_view to_helper_arrow = "-->";
constexpr std::string_view from_helper_arrow = "<--";

/// A text of any length and kind on one line.
std::string textOnOneLine(std::string_view text) {
    std::string line;
    for (const char each : text) {
        if (each == '\n') {
            line += "\\n";
        } else if (each == '\t') {
            line += "\\t";
        } else {
            line += each;
        }
    }
    return terminalSafe(line);
}

std::string inQuotes(std::string_view text) {
    return "\"" + textOnOneLine(text) + "\"";
}

std::string inBrackets(std::string_view text) {
    return "[" + textOnOneLine(text) + "]";
}

/// What stands behind the name of an envelope; empty for nothing.
struct Content {
    std::string operator()(const BridgeHello& hello) const {
        return ": " + textOnOneLine(hello.bridgeVersion) + " for " + textOnOneLine(hello.platform);
    }
    std::string operator()(const BridgeStartListeningRequest& request) const {
        return ": " + std::visit([](const auto& scope) { return scopeText(scope); },
                                 static_cast<const BridgeScope::Cases&>(request.scope));
    }
    std::string operator()(const BridgeSendMessageRequest& request) const {
        const auto& message = request.message;
        std::string text =
            " to " + textOnOneLine(message.conversationId) + ": " + textOnOneLine(message.text);
        if (message.replyToMessageId) text += " (answers " + textOnOneLine(*message.replyToMessageId) + ")";
        if (!message.attachments) return text;
        for (const auto& attachment : *message.attachments) text += attachmentText(attachment);
        return text;
    }
    std::string operator()(const BridgeStateChangedEvent& event) const {
        if (const auto* connected = std::get_if<BridgeConnectedState>(&event.state)) {
            const auto& name = connected->accountDisplayName;
            return name ? ": " + textOnOneLine(*name) : "";
        }
        const auto* error = std::get_if<BridgeErrorState>(&event.state);
        return error != nullptr ? ": " + textOnOneLine(error->message) : "";
    }
    std::string operator()(const BridgeErrorEvent& event) const {
        return ": " + textOnOneLine(event.message);
    }
    std::string operator()(const BridgeInboundEvent& event) const {
        return " from " + textOnOneLine(event.event.senderDisplayName) + ": " +
               textOnOneLine(event.event.text);
    }
    /// Requests that say it all by their name.
    template <class Request>
    std::string operator()(const Request&) const {
        return {};
    }

  private:
    static std::string scopeText(const BridgeConversationScope& scope) {
        return "conversation " + inQuotes(scope.title) + " " + inBrackets(scope.id);
    }
    static std::string scopeText(const BridgeChannelScope& scope) {
        return "channel " + inQuotes(scope.title) + " " + inBrackets(scope.id);
    }
    static std::string scopeText(const BridgeThreadScope& scope) {
        return "thread " + (scope.title ? inQuotes(*scope.title) + " " : "") + inBrackets(scope.id);
    }
    static std::string scopeText(const BridgeTestOnlyScope& scope) { return "test " + inQuotes(scope.title); }

    static std::string attachmentText(const BridgeAttachment& attachment) {
        return " (with " + textOnOneLine(attachment.fileName) + ", " + textOnOneLine(attachment.mimeType) +
               ")";
    }
};

std::string envelopeName(const BridgeEnvelope& envelope) {
    std::string name(BridgeEnvelope::case_names[envelope.index()]);
    if (const auto* event = std::get_if<BridgeStateChangedEvent>(&envelope)) {
        name.append(".").append(BridgeConnectionState::case_names[event->state.index()]);
    }
    return name;
}

std::string arrow(Direction direction, bool inColor) {
    return direction == Direction::toHelper ? colored(to_helper_arrow, cyan_color, inColor)
                                            : colored(from_helper_arrow, green_color, inColor);
}

/// A name that looks like the beginning of another kind of line would make people believe what it says.
std::string senderName(const BridgeInboundMessageEvent& message) {
    const auto& name = message.senderDisplayName.empty() ? message.senderId : message.senderDisplayName;
    auto shown = textOnOneLine(name);
    const bool isMisleading = shown.starts_with(to_helper_arrow) || shown.starts_with(from_helper_arrow);
    return isMisleading || shown.empty() ? "\"" + shown + "\"" : shown;
}

}  // namespace

std::string readableEnvelope(Direction direction, std::string_view line, bool inColor) {
    try {
        const auto envelope = decodedRecord<BridgeEnvelope>(line);
        const auto* inbound = std::get_if<BridgeInboundEvent>(&envelope);
        if (inbound != nullptr && direction == Direction::fromHelper) {
            return colored(senderName(inbound->event), bold_color, inColor) + ": " +
                   textOnOneLine(inbound->event.text);
        }
        const bool isError = std::holds_alternative<BridgeErrorEvent>(envelope);
        return arrow(direction, inColor) + " " +
               colored(envelopeName(envelope), isError ? red_color : bold_color, inColor) +
               std::visit(Content{}, static_cast<const BridgeEnvelope::Cases&>(envelope));
    } catch (const DecodingFailure&) {
        return arrow(direction, inColor) + " " + colored("(not an envelope)", red_color, inColor) + " " +
               terminalSafe(line);
    }
}

std::string rawEnvelope(Direction direction, std::string_view line, bool inColor) {
    return arrow(direction, inColor) + " " + terminalSafeJson(line);
}

}  // namespace brindle::console

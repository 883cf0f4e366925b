#include "console/Display.h"

#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <utility>

#include "bridge/BridgeMessages.h"
#include "console/TerminalText.h"
#include "records/DecodingFailure.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

// Select Graphic Rendition (ECMA-48, section 8.3.117).
constexpr std::string_view reset_color = "\033[0m";
constexpr std::string_view dim_color = "\033[2m";
constexpr std::string_view red_color = "\033[31m";
constexpr std::string_view green_color = "\033[32m";
constexpr std::string_view cyan_color = "\033[36m";
constexpr std::string_view bold_color = "\033[1m";

std::string colored(std::string_view text, std::string_view color, bool inColor) {
    if (!inColor) return std::string(text);
    return std::string(color).append(text).append(reset_color);
}

std::string timeOfDay() {
    const auto now = std::chrono::system_clock::now();
    const auto seconds = std::chrono::system_clock::to_time_t(now);
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
    tm local{};
    ::localtime_r(&seconds, &local);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(sinceEpoch.count() % 1000));
    return text.data();
}

/// JSON text without the escapes before slashes, which only hinder reading.
std::string withoutSlashEscapes(std::string_view json) {
    std::string text;
    text.reserve(json.size());
    for (std::size_t i = 0; i < json.size(); ++i) {
        if (json[i] != '\\' || i + 1 == json.size()) {
            text += json[i];
        } else {
            if (json[i + 1] != '/') text += '\\';
            text += json[++i];
        }
    }
    return text;
}

void abbreviateContent(BridgeEnvelope& envelope) {
    auto* request = std::get_if<BridgeSendMessageRequest>(&envelope);
    if (request == nullptr || !request->message.attachments) return;
    for (auto& attachment : *request->message.attachments) {
        if (!attachment.dataBase64) continue;
        attachment.dataBase64 = "(" + std::to_string(attachment.dataBase64->view().size()) + " characters)";
    }
}

std::string envelopeName(const BridgeEnvelope& envelope) {
    std::string name(BridgeEnvelope::case_names[envelope.index()]);
    if (const auto* event = std::get_if<BridgeStateChangedEvent>(&envelope)) {
        name.append(".").append(BridgeConnectionState::case_names[event->state.index()]);
    }
    return name;
}

bool isColorTerminal(int descriptor, const Environment& environment) {
    const auto terminal = environment.find("TERM");
    const bool isDumb = terminal != environment.end() && terminal->second == "dumb";
    const auto refused = environment.find("NO_COLOR");
    const bool isRefused = refused != environment.end() && !refused->second.empty();
    return ::isatty(descriptor) == 1 && !isDumb && !isRefused;
}

}  // namespace

DisplayStyle DisplayStyle::from(const Options& options, const Environment& environment) {
    const auto inColor = [&](int descriptor) {
        if (options.color != ColorChoice::automatic) return options.color == ColorChoice::always;
        return isColorTerminal(descriptor, environment);
    };
    return {.json = options.json,
            .outputIsTerminal = ::isatty(STDOUT_FILENO) == 1,
            .colorsOutput = inColor(STDOUT_FILENO),
            .colorsError = inColor(STDERR_FILENO)};
}

std::string readableEnvelope(std::string_view line, bool inColor) {
    try {
        auto envelope = decodedRecord<BridgeEnvelope>(line);
        abbreviateContent(envelope);
        const auto content =
            std::visit([](const auto& payload) { return encodedRecord(payload, JsonStyle::compact); },
                       static_cast<const BridgeEnvelope::Cases&>(envelope));
        const bool isError = std::holds_alternative<BridgeErrorEvent>(envelope);
        return colored(envelopeName(envelope), isError ? red_color : bold_color, inColor) + " " +
               terminalSafe(withoutSlashEscapes(content));
    } catch (const DecodingFailure&) {
        return colored("(not an envelope)", red_color, inColor) + " " + terminalSafe(line);
    }
}

void Display::envelope(Direction direction, std::string_view line) {
    if (style_.json) return jsonLine(line);
    const bool isOutgoing = direction == Direction::toHelper;
    const bool inColor = style_.colorsOutput;
    write(output_, colored(timeOfDay(), dim_color, inColor) + " " +
                       colored(isOutgoing ? "-->" : "<--", isOutgoing ? cyan_color : green_color, inColor) +
                       " " + readableEnvelope(line, inColor) + "\n");
}

void Display::jsonLine(std::string_view line) {
    // For programs a line stays as it is; a person at a terminal must not fall for what it holds.
    const std::string shown = style_.outputIsTerminal ? terminalSafeJson(line) : std::string(line);
    write(output_, shown + "\n");
}

void Display::helperDiagnostic(std::string_view line) {
    write(error_, colored("helper| " + terminalSafe(line), dim_color, style_.colorsError) + "\n");
}

void Display::command(std::string_view text) {
    if (style_.json) return;
    write(output_, colored("> " + terminalSafe(trimmed(text)), bold_color, style_.colorsOutput) + "\n");
}

void Display::answer(std::string_view text) {
    write(output_, text);
}

void Display::problem(std::string_view sentence) {
    write(error_, colored(terminalSafe(sentence), red_color, style_.colorsError) + "\n");
}

std::optional<std::size_t> Display::terminalColumns() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return std::nullopt;
    return size.ws_col;
}

void Display::write(OutputStream& stream, std::string_view text) {
    if (editedLine_ != nullptr) editedLine_->hide();
    try {
        stream.write(text);
    } catch (const Failure&) {
        hasLostOutput_ = hasLostOutput_ || &stream == &output_;
    }
    if (editedLine_ != nullptr) editedLine_->show();
}

}  // namespace brindle::console

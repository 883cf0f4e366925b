#include "console/Display.h"

#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <utility>

#include "console/TerminalColors.h"
#include "console/TerminalText.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

enum class TimePrecision { seconds, milliseconds };

std::string timeOfDay(TimePrecision precision) {
    const auto now = std::chrono::system_clock::now();
    const auto seconds = std::chrono::system_clock::to_time_t(now);
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
    tm local{};
    ::localtime_r(&seconds, &local);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(sinceEpoch.count() % 1000));
    constexpr std::size_t length_in_seconds = std::string_view("00:00:00").size();
    return precision == TimePrecision::seconds ? std::string(text.data(), length_in_seconds) : text.data();
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

void Display::envelope(Direction direction, std::string_view line) {
    if (style_.json) return jsonLine(line);
    const bool inColor = style_.colorsOutput;
    const auto time = timeOfDay(isRaw_ ? TimePrecision::milliseconds : TimePrecision::seconds);
    write(output_,
          colored(time, dim_color, inColor) + " " +
              (isRaw_ ? rawEnvelope(direction, line, inColor) : readableEnvelope(direction, line, inColor)) +
              "\n");
}

void Display::jsonLine(std::string_view line) {
    // For programs a line stays as it is; a person at a terminal must not fall for what it holds.
    const std::string shown = style_.outputIsTerminal ? terminalSafeJson(line) : std::string(line);
    write(output_, shown + "\n");
}

void Display::diagnostic(std::string_view program, std::string_view line) {
    write(error_,
          colored(std::string(program) + "| " + terminalSafe(line), dim_color, style_.colorsError) + "\n");
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

void Display::note(std::string_view sentence) {
    write(error_, colored(terminalSafe(sentence), yellow_color, style_.colorsError) + "\n");
}

std::optional<std::size_t> Display::terminalColumns() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return std::nullopt;
    return size.ws_col;
}

void Display::release() {
    isHeld_ = false;
    for (const auto& [stream, text] : std::exchange(held_, {})) write(*stream, text);
}

void Display::write(OutputStream& stream, std::string_view text) {
    if (isHeld_) {
        held_.emplace_back(&stream, text);
        if (held_.size() > HeldOutput::kept_texts) held_.pop_front();
        return;
    }
    if (editedLine_ != nullptr) editedLine_->hide();
    try {
        stream.write(text);
    } catch (const Failure&) {
        hasLostOutput_ = hasLostOutput_ || &stream == &output_;
    }
    if (editedLine_ != nullptr) editedLine_->show();
}

}  // namespace brindle::console

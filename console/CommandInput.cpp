#include "console/CommandInput.h"

#include <errno.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "console/Command.h"
#include "system/FileManager.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

constexpr std::size_t read_buffer_bytes = 65536;

}  // namespace

ScriptInput::ScriptInput(const std::string& path) {
    LineBuffer lines;
    lines.append(PosixFileManager().readFile(path));
    for (int number = 1;; ++number) {
        auto text = lines.next();
        if (!text) text = lines.takeRest();
        if (!text) return;
        InputLine line{.text = std::move(*text), .place = path + ":" + std::to_string(number)};
        try {
            if (parseCommand(line.text)) lines_.push_back(std::move(line));
        } catch (const Failure& failure) {
            throw Failure(line.place + ": " + failure.what());
        }
    }
}

std::optional<InputLine> ScriptInput::next() {
    if (lines_.empty()) return std::nullopt;
    auto line = std::move(lines_.front());
    lines_.pop_front();
    return line;
}

std::optional<InputLine> OneCommandInput::next() {
    auto line = std::exchange(line_, std::nullopt);
    if (!line) return std::nullopt;
    return InputLine{.text = std::move(*line), .place = ""};
}

StreamInput::StreamInput(int descriptor, std::string name, bool isInteractive)
    : descriptor_(descriptor), name_(std::move(name)), isInteractive_(isInteractive) {}

void StreamInput::receive() {
    std::array<char, read_buffer_bytes> buffer;
    const auto count = ::read(descriptor_, buffer.data(), buffer.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count <= 0) {
        isAtEnd_ = true;
    } else {
        lines_.append({buffer.data(), static_cast<std::size_t>(count)});
    }
}

std::optional<InputLine> StreamInput::next() {
    auto text = lines_.next();
    if (!text && isAtEnd_) {
        text = lines_.takeRest();
        hasMore_ = text.has_value();
    }
    if (!text) return std::nullopt;
    ++lineNumber_;
    return InputLine{.text = std::move(*text),
                     .place = isInteractive_ ? "" : name_ + ":" + std::to_string(lineNumber_)};
}

}  // namespace brindle::console

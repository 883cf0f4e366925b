#include "console/TerminalText.h"

#include <array>
#include <cstddef>
#include <cstdio>

#include "text/Text.h"

namespace brindle::console {
namespace {

struct Range {
    char32_t first;
    char32_t last;
};

constexpr std::array obeyed_characters{
    Range{.first = 0x00, .last = 0x1F},      // C0
    Range{.first = 0x7F, .last = 0x9F},      // Delete and C1
    Range{.first = 0x61C, .last = 0x61C},    // Arabic letter mark
    Range{.first = 0x200E, .last = 0x200F},  // Left-to-right and right-to-left mark
    Range{.first = 0x2028, .last = 0x202E},  // Separators of lines and paragraphs, embeddings and overrides
    Range{.first = 0x2066, .last = 0x2069},  // Isolates
};

bool isObeyed(char32_t character) {
    for (const auto& [first, last] : obeyed_characters) {
        if (character >= first && character <= last) return true;
    }
    return false;
}

/// Takes the first character off a text of valid UTF-8 that is not empty.
char32_t takeCharacter(std::string_view& text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t bytes = lead < 0x80 ? 1 : (lead < 0xE0 ? 2 : (lead < 0xF0 ? 3 : 4));
    char32_t character = bytes == 1 ? lead : lead & (0x7FU >> bytes);
    for (const char next : text.substr(1, bytes - 1)) {
        character = (character << 6U) | (static_cast<unsigned char>(next) & 0x3FU);
    }
    text.remove_prefix(bytes);
    return character;
}

template <class Replacement>
std::string replaced(std::string_view text, const Replacement& replacement) {
    const std::string valid = repairedUtf8(text);
    std::string safe;
    safe.reserve(valid.size());
    for (std::string_view rest(valid); !rest.empty();) {
        const std::string_view before = rest;
        const char32_t character = takeCharacter(rest);
        if (isObeyed(character)) {
            safe.append(replacement(character));
        } else {
            safe.append(before.substr(0, before.size() - rest.size()));
        }
    }
    return safe;
}

std::string jsonEscape(char32_t character) {
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "\\u%04x", static_cast<unsigned>(character));
    return text.data();
}

}  // namespace

std::string terminalSafe(std::string_view text) {
    return replaced(text, [](char32_t) { return "?"; });
}

std::string terminalSafeJson(std::string_view json) {
    return replaced(json, jsonEscape);
}

}  // namespace brindle::console

#include "worker/webkit/OneLine.h"

#include <glib.h>

#include <algorithm>

#include "worker/webkit/GObjectPointer.h"

namespace brindle {
namespace {

bool isControl(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7F;
}

/// The start of a text without the character that its end cuts.
void dropCutCharacter(std::string& text) {
    const char* end = nullptr;
    g_utf8_validate(text.data(), static_cast<gssize>(text.size()), &end);
    text.resize(static_cast<std::size_t>(end - text.data()));
}

}  // namespace

std::string oneLine(const std::string& text, std::size_t most_bytes) {
    const GText valid(g_utf8_make_valid(text.data(), static_cast<gssize>(std::min(text.size(), most_bytes))));
    std::string line(valid.get());
    // Making it valid may have made it longer again.
    line.resize(std::min(line.size(), most_bytes));
    dropCutCharacter(line);
    std::replace_if(line.begin(), line.end(), isControl, '?');
    return line;
}

}  // namespace brindle

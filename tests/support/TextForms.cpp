#include "support/TextForms.h"

#include <algorithm>
#include <random>

namespace brindle::test {
namespace {

/// Whether a text has the form of a pattern, in which X stands for an upper-case hexadecimal digit and 9 for
/// a decimal one.
bool matches(std::string_view text, std::string_view pattern) {
    if (text.size() != pattern.size()) return false;
    for (std::size_t index = 0; index < text.size(); ++index) {
        const char character = text[index];
        const bool isDigit = character >= '0' && character <= '9';
        switch (pattern[index]) {
            case 'X':
                if (!isDigit && (character < 'A' || character > 'F')) return false;
                break;
            case '9':
                if (!isDigit) return false;
                break;
            default:
                if (character != pattern[index]) return false;
        }
    }
    return true;
}

}  // namespace

bool isCanonicalUuid(std::string_view text) {
    return matches(text, "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX");
}

bool isTimestamp(std::string_view text) {
    return matches(text, "9999-99-99T99:99:99Z");
}

std::vector<std::string> linesOf(std::string_view text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        const auto end = std::min(text.find('\n', start), text.size());
        lines.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::string randomHex(std::size_t digits) {
    constexpr std::string_view alphabet = "0123456789abcdef";
    std::random_device device;
    std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
    std::string text;
    for (std::size_t index = 0; index < digits; ++index) text += alphabet[pick(device)];
    return text;
}

}  // namespace brindle::test

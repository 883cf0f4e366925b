#include "text/Text.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

namespace brindle {
namespace {

constexpr std::string_view ellipsis = "\u2026";
constexpr std::string_view replacement_character = "\xEF\xBF\xBD";
constexpr std::size_t longest_utf8_sequence_bytes = 4;
/// The one character whose lower case is two (Unicode SpecialCasing).
constexpr utf8proc_int32_t capital_i_with_dot = 0x130;
constexpr std::string_view lower_i_and_dot = "i\u0307";

bool isWhiteSpace(utf8proc_int32_t c) {
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
           c == 0x3000;
}

struct CodePoint {
    utf8proc_int32_t value = -1;  // negative when the bytes are not UTF-8
    std::size_t bytes = 1;
};

const utf8proc_uint8_t* unsignedBytes(std::string_view text) {
    return reinterpret_cast<const utf8proc_uint8_t*>(text.data());
}

CodePoint firstCodePoint(std::string_view text) {
    CodePoint point;
    const auto length = static_cast<utf8proc_ssize_t>(std::min(text.size(), longest_utf8_sequence_bytes));
    const auto used = utf8proc_iterate(unsignedBytes(text), length, &point.value);
    if (used <= 0) return {};
    point.bytes = static_cast<std::size_t>(used);
    return point;
}

/// How many bytes at the beginning are ASCII. Almost all of what is checked is, so it looks at eight at a
/// time.
std::size_t asciiLength(std::string_view text) {
    constexpr std::uint64_t high_bits = 0x8080808080808080;
    std::size_t length = 0;
    for (std::uint64_t bytes = 0; text.size() - length >= sizeof bytes; length += sizeof bytes) {
        std::memcpy(&bytes, text.data() + length, sizeof bytes);
        if ((bytes & high_bits) != 0) break;
    }
    const auto* const end = std::find_if(text.begin() + length, text.end(),
                                         [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
    return static_cast<std::size_t>(end - text.begin());
}

CodePoint lastCodePoint(std::string_view text) {
    for (std::size_t bytes = 1; bytes <= std::min(text.size(), longest_utf8_sequence_bytes); ++bytes) {
        const auto point = firstCodePoint(text.substr(text.size() - bytes));
        if (point.value >= 0) return point.bytes == bytes ? point : CodePoint{};
    }
    return {};
}

/// True for a control character (C0, C1), a break of a line or a paragraph, and what gives a reading
/// direction to the text behind it (UAX #9).
bool bendsALine(utf8proc_int32_t character) {
    const auto& property = *utf8proc_get_property(character);
    switch (property.category) {
        case UTF8PROC_CATEGORY_CC:
        case UTF8PROC_CATEGORY_ZL:
        case UTF8PROC_CATEGORY_ZP:
            return true;
        case UTF8PROC_CATEGORY_CF:
            return property.bidi_class != UTF8PROC_BIDI_CLASS_BN;
        default:
            return false;
    }
}

/// Normalization Form D, or nothing when the text is not UTF-8.
std::optional<std::string> decomposed(std::string_view text) {
    utf8proc_uint8_t* result = nullptr;
    const auto length = utf8proc_map(unsignedBytes(text), static_cast<utf8proc_ssize_t>(text.size()), &result,
                                     static_cast<utf8proc_option_t>(UTF8PROC_DECOMPOSE | UTF8PROC_STABLE));
    const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(result, &std::free);
    if (length < 0) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(result), static_cast<std::size_t>(length));
}

void appendCodePoint(std::string& text, utf8proc_int32_t point) {
    std::array<utf8proc_uint8_t, longest_utf8_sequence_bytes> bytes{};
    const auto length = utf8proc_encode_char(point, bytes.data());
    text.append(reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(length));
}

bool equalInConstantTime(std::string_view left, std::string_view right) {
    if (left.size() != right.size()) return false;
    volatile unsigned char difference = 0;
    for (std::size_t i = 0; i < left.size(); ++i) {
        difference = static_cast<unsigned char>(difference | (left[i] ^ right[i]));
    }
    return difference == 0;
}

}  // namespace

std::string_view trimmed(std::string_view text) {
    while (!text.empty()) {
        const auto point = firstCodePoint(text);
        if (!isWhiteSpace(point.value)) break;
        text.remove_prefix(point.bytes);
    }
    while (!text.empty()) {
        const auto point = lastCodePoint(text);
        if (!isWhiteSpace(point.value)) break;
        text.remove_suffix(point.bytes);
    }
    return text;
}

std::size_t graphemeClusterCount(std::string_view text) {
    std::size_t count = 0;
    utf8proc_int32_t previous = -1;
    utf8proc_int32_t state = 0;
    while (!text.empty()) {
        const auto point = firstCodePoint(text);
        const auto current = point.value >= 0 ? point.value : 0xFFFD;
        if (previous < 0 || utf8proc_grapheme_break_stateful(previous, current, &state)) ++count;
        previous = current;
        text.remove_prefix(point.bytes);
    }
    return count;
}

bool canonicallyEquivalent(std::string_view left, std::string_view right) {
    if (left == right) return true;
    const auto a = decomposed(left);
    const auto b = decomposed(right);
    return a && b && *a == *b;
}

bool canonicallyEquivalentInConstantTime(std::string_view left, std::string_view right) {
    const auto a = decomposed(left);
    const auto b = decomposed(right);
    return a && b ? equalInConstantTime(*a, *b) : equalInConstantTime(left, right);
}

bool isValidUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        bytes.remove_prefix(asciiLength(bytes));
        if (bytes.empty()) break;
        const auto point = firstCodePoint(bytes);
        if (point.value < 0) return false;
        bytes.remove_prefix(point.bytes);
    }
    return true;
}

std::string repairedUtf8(std::string_view bytes) {
    if (isValidUtf8(bytes)) return std::string(bytes);
    std::string result;
    result.reserve(bytes.size() + replacement_character.size());
    while (!bytes.empty()) {
        const auto point = firstCodePoint(bytes);
        result.append(point.value >= 0 ? bytes.substr(0, point.bytes) : replacement_character);
        bytes.remove_prefix(point.bytes);
    }
    return result;
}

std::string singleLine(std::string_view text) {
    const std::string valid = repairedUtf8(text);
    std::string result;
    result.reserve(valid.size());
    for (std::string_view rest(valid); !rest.empty();) {
        const auto point = firstCodePoint(rest);
        if (bendsALine(point.value)) {
            result += '?';
        } else {
            result.append(rest, 0, point.bytes);
        }
        rest.remove_prefix(point.bytes);
    }
    return result;
}

std::string shortened(std::string_view text, std::size_t mostCharacters) {
    // Every byte but the continuing ones begins a character.
    const auto begins = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; };
    std::size_t characters = 0;
    const auto rest = std::find_if(text.begin(), text.end(),
                                   [&](char c) { return begins(c) && ++characters > mostCharacters; });
    std::string result(text.begin(), rest);
    if (rest != text.end()) result.append(ellipsis);
    return result;
}

std::string lowercased(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto point = firstCodePoint(text);
        if (point.value == capital_i_with_dot) {
            result.append(lower_i_and_dot);
        } else if (point.value >= 0) {
            appendCodePoint(result, utf8proc_tolower(point.value));
        } else {
            result.append(text, 0, point.bytes);
        }
        text.remove_prefix(point.bytes);
    }
    return result;
}

std::string asciiLowercased(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return result;
}

}  // namespace brindle

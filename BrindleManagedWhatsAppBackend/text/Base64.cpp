#include "text/Base64.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace brindle {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t group_bytes = 3;
constexpr std::size_t group_characters = 4;
constexpr std::uint32_t sextet_mask = 0x3F;
constexpr std::uint8_t not_in_alphabet = 0xFF;

constexpr auto sextets = [] {
    std::array<std::uint8_t, 256> table{};
    table.fill(not_in_alphabet);
    for (std::size_t i = 0; i < alphabet.size(); ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
    }
    return table;
}();

}  // namespace

std::string base64Encoded(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + group_bytes - 1) / group_bytes * group_characters);
    for (std::size_t start = 0; start < bytes.size(); start += group_bytes) {
        const auto group = bytes.substr(start, group_bytes);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < group_bytes; ++i) {
            bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
        }
        for (std::size_t i = 0; i < group_characters; ++i) {
            text += i <= group.size() ? alphabet[bits >> (18 - 6 * i) & sextet_mask] : '=';
        }
    }
    return text;
}

std::optional<std::string> base64Decoded(std::string_view text) {
    if (text.size() % group_characters != 0) return std::nullopt;
    const auto padding = static_cast<std::size_t>(
        std::find_if(text.rbegin(), text.rend(), [](char c) { return c != '='; }) - text.rbegin());
    if (padding > 2) return std::nullopt;
    const auto digits = text.substr(0, text.size() - padding);
    std::string bytes;
    bytes.reserve(text.size() / group_characters * group_bytes);
    std::uint32_t bits = 0;
    unsigned pendingBits = 0;
    for (const char c : digits) {
        const auto sextet = sextets[static_cast<unsigned char>(c)];
        if (sextet == not_in_alphabet) return std::nullopt;
        bits = bits << 6 | sextet;
        pendingBits += 6;
        if (pendingBits < 8) continue;
        pendingBits -= 8;
        bytes += static_cast<char>(bits >> pendingBits & 0xFFU);
    }
    return bytes;
}

}  // namespace brindle

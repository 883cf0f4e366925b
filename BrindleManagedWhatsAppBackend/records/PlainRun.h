#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace brindle {

/// The beginning of a text that stands for itself inside a JSON string (RFC 8259, section 7).
struct PlainRun {
    std::size_t length = 0;
    /// What is not may still be anything but UTF-8.
    bool isAscii = true;
};

namespace plain_run {

/// Bytes that the processor looks at together; compilers take them apart where it cannot.
using Block = std::uint8_t __attribute__((vector_size(16)));
using Halves = std::array<std::uint64_t, 2>;

constexpr std::uint8_t first_visible = 0x20;
constexpr std::uint64_t high_bits = 0x8080808080808080;
constexpr std::size_t bits_of_a_byte = 8;
constexpr Block positions = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

/// The beginning of `text`, with zeros behind its end: they are control characters.
inline Block blockOf(std::string_view text) {
    Block block{};
    if (text.size() >= sizeof block) {
        std::memcpy(&block, text.data(), sizeof block);
    } else if (!text.empty()) {
        std::memcpy(&block, text.data(), text.size());
    }
    return block;
}

/// All bits of each byte that is a control character or one of `specials`.
template <char... specials>
Halves bytesThatStop(Block block) {
    return std::bit_cast<Halves>(
        ((block < first_visible) | ... | (block == static_cast<std::uint8_t>(specials))));
}

/// How many bytes of eight come before the first one that has a bit, in the order of the text.
inline std::size_t bytesBefore(std::uint64_t bits) {
    const int zeros =
        std::endian::native == std::endian::little ? std::countr_zero(bits) : std::countl_zero(bits);
    return static_cast<std::size_t>(zeros) / bits_of_a_byte;
}

inline std::size_t bytesBefore(const Halves& stops) {
    return stops[0] != 0 ? bytesBefore(stops[0]) : sizeof stops[0] + bytesBefore(stops[1]);
}

/// The first `count` bytes alone.
inline Block firstOf(Block block, std::size_t count) {
    return block & Block(positions < static_cast<std::uint8_t>(count));
}

inline bool isAscii(Block block) {
    const auto halves = std::bit_cast<Halves>(block);
    return ((halves[0] | halves[1]) & high_bits) == 0;
}

}  // namespace plain_run

/// Up to the first control character or one of `specials`, or to the end. Looks at sixteen bytes at a time:
/// what is sent may hold many megabytes of Base64.
template <char... specials>
PlainRun plainRun(std::string_view text) {
    using namespace plain_run;
    Block seen{};
    std::size_t length = 0;
    for (; length < text.size(); length += sizeof seen) {
        const Block block = blockOf(text.substr(length));
        const auto stops = bytesThatStop<specials...>(block);
        if ((stops[0] | stops[1]) != 0) {
            const auto before = bytesBefore(stops);
            return {.length = length + before, .isAscii = isAscii(seen | firstOf(block, before))};
        }
        seen |= block;
    }
    return {.length = length, .isAscii = isAscii(seen)};
}

}  // namespace brindle

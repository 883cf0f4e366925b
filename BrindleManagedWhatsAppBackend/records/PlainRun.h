#pragma once

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

constexpr std::uint64_t every_byte = 0x0101010101010101;
constexpr std::uint64_t high_bits = 0x80 * every_byte;
constexpr std::uint64_t first_visible = 0x20;
constexpr std::size_t bits_of_a_byte = 8;

/// The high bit of the first byte that is less than `limit`, which is at most 0x80, and perhaps of later
/// ones.
constexpr std::uint64_t bytesBelow(std::uint64_t bytes, std::uint64_t limit) {
    return (bytes - limit * every_byte) & ~bytes & high_bits;
}

constexpr std::uint64_t bytesThatAre(std::uint64_t bytes, char character) {
    return bytesBelow(bytes ^ static_cast<unsigned char>(character) * every_byte, 1);
}

/// The high bit of the first byte that is a control character or one of `specials`, and perhaps of later
/// ones.
template <char... specials>
constexpr std::uint64_t bytesThatStop(std::uint64_t bytes) {
    return (bytesBelow(bytes, first_visible) | ... | bytesThatAre(bytes, specials));
}

/// The bits below the first one that is set.
constexpr std::uint64_t belowFirst(std::uint64_t bits) {
    return (bits - 1) & ~bits;
}

}  // namespace plain_run

/// Up to the first control character or one of `specials`, or to the end. Looks at eight bytes at a time:
/// what is sent may hold many megabytes of Base64.
template <char... specials>
PlainRun plainRun(std::string_view text) {
    using namespace plain_run;
    PlainRun run;
    std::uint64_t seen = 0;
    if constexpr (std::endian::native == std::endian::little) {
        for (std::uint64_t bytes = 0; text.size() - run.length >= sizeof bytes; run.length += sizeof bytes) {
            std::memcpy(&bytes, text.data() + run.length, sizeof bytes);
            if (const auto stops = bytesThatStop<specials...>(bytes); stops != 0) {
                seen |= bytes & belowFirst(stops);
                run.length += static_cast<std::size_t>(std::countr_zero(stops)) / bits_of_a_byte;
                run.isAscii = (seen & high_bits) == 0;
                return run;
            }
            seen |= bytes;
        }
    }
    for (; run.length < text.size(); ++run.length) {
        const auto byte = static_cast<unsigned char>(text[run.length]);
        if (byte < first_visible || ((text[run.length] == specials) || ...)) break;
        seen |= byte;
    }
    run.isAscii = (seen & high_bits) == 0;
    return run;
}

}  // namespace brindle

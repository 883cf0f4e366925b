#include "text/Identifier.h"

#include <stdlib.h>
#include <uuid/uuid.h>

#include <array>
#include <cstddef>

namespace brindle {
namespace {

/// What stands where in the text, most significant first: eight digits, four, "4" and three, a digit of which
/// two bits are the variant and three, twelve. Behind the version begin the low 62 bits with the variant's.
constexpr unsigned low_bits = 62;
constexpr std::uint64_t low_mask = (std::uint64_t{1} << low_bits) - 1;
constexpr unsigned bits_behind_version = 12;
constexpr std::uint64_t behind_version_mask = (std::uint64_t{1} << bits_behind_version) - 1;
constexpr std::uint64_t version = std::uint64_t{4} << bits_behind_version;
constexpr std::uint64_t variant = std::uint64_t{1} << 63U;
constexpr unsigned version_bits = 4;

constexpr std::uint64_t end_of_high = std::uint64_t{1} << 60U;
/// 2^30 steps of at most 2^64 positions each.
constexpr std::uint64_t least_room = std::uint64_t{1} << 32U;
/// A quarter of the space: almost all of it lies ahead.
constexpr std::uint64_t end_of_starts = end_of_high / 4;

constexpr std::size_t byte_count = sizeof(uuid_t);
constexpr std::size_t byte_count_of_half = byte_count / 2;
constexpr unsigned bits_of_a_byte = 8;

void putBigEndian(std::uint64_t half, unsigned char* bytes) {
    for (auto i = byte_count_of_half; i-- > 0; half >>= bits_of_a_byte) {
        bytes[i] = static_cast<unsigned char>(half);
    }
}

std::uint64_t bigEndian(const unsigned char* bytes) {
    std::uint64_t half = 0;
    for (std::size_t i = 0; i < byte_count_of_half; ++i) half = half << bits_of_a_byte | bytes[i];
    return half;
}

std::string canonicalText(const uuid_t& bytes) {
    std::array<char, UUID_STR_LEN> text{};
    uuid_unparse_upper(bytes, text.data());
    return std::string(text.data());
}

}  // namespace

std::string randomIdentifier() {
    uuid_t bytes;
    uuid_generate_random(bytes);
    return canonicalText(bytes);
}

std::uint64_t randomBits() {
    std::uint64_t bits = 0;
    ::arc4random_buf(&bits, sizeof bits);
    return bits;
}

std::string AscendingIdentifiers::next() {
    auto position = last_ ? stepFrom(*last_) : randomStart();
    if (position.high >= end_of_high) position = randomStart();
    last_ = position;
    return textOf(position);
}

void AscendingIdentifiers::riseAbove(std::string_view identifier) {
    const auto position = positionIn(identifier);
    if (position && (!last_ || *last_ < *position)) last_ = position;
}

bool AscendingIdentifiers::leavesRoomAbove(std::string_view identifier) {
    const auto position = positionIn(identifier);
    return position && position->high + least_room < end_of_high;
}

AscendingIdentifiers::Position AscendingIdentifiers::randomStart() const {
    return {.high = random_() % end_of_starts, .low = random_() & low_mask};
}

AscendingIdentifiers::Position AscendingIdentifiers::stepFrom(const Position& position) const {
    const auto step = random_();
    // One more than random: two identifiers are never the same.
    const auto low = position.low + (step & low_mask) + 1;
    return {.high = position.high + (step >> low_bits) + (low >> low_bits), .low = low & low_mask};
}

std::string AscendingIdentifiers::textOf(const Position& position) {
    uuid_t bytes;
    const auto beforeVersion = position.high >> bits_behind_version << bits_behind_version;
    putBigEndian(beforeVersion << version_bits | version | (position.high & behind_version_mask), bytes);
    putBigEndian(variant | position.low, bytes + byte_count_of_half);
    return canonicalText(bytes);
}

std::optional<AscendingIdentifiers::Position> AscendingIdentifiers::positionIn(std::string_view identifier) {
    uuid_t bytes;
    if (uuid_parse_range(identifier.data(), identifier.data() + identifier.size(), bytes) != 0) {
        return std::nullopt;
    }
    const auto first = bigEndian(bytes);
    const auto second = bigEndian(bytes + byte_count_of_half);
    const auto beforeVersion = first >> (version_bits + bits_behind_version) << bits_behind_version;
    const Position position{.high = beforeVersion | (first & behind_version_mask), .low = second & low_mask};
    // Another version, variant or case is another name.
    if (textOf(position) != identifier) return std::nullopt;
    return position;
}

}  // namespace brindle

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

namespace brindle {

/// A fresh random UUID (RFC 9562, version 4) in canonical upper-case text form.
std::string randomIdentifier();

/// 64 bits that nobody can guess.
std::uint64_t randomBits();

/// Makes random UUIDs (RFC 9562, version 4, canonical upper-case text) each of which is greater, as text,
/// than the one before: files named after them stand in the order of their making. The start is random, and
/// so is every step (section 6.2, "monotonic random"), so that one identifier does not tell the next. One
/// thread at a time.
class AscendingIdentifiers {
  public:
    using RandomSource = std::function<std::uint64_t()>;

    /// `random` answers 64 random bits.
    explicit AscendingIdentifiers(RandomSource random = randomBits) : random_(std::move(random)) {}

    /// The next one. Behind a start there is room for at least 2^30 of them; when it ends, a fresh start
    /// follows.
    std::string next();
    /// From here on all are greater than `identifier`. Does nothing when they are already, or when it is not
    /// in canonical form.
    void riseAbove(std::string_view identifier);
    /// Whether at least 2^30 others have room above it. No for what is not in canonical form.
    static bool leavesRoomAbove(std::string_view identifier);

  private:
    /// The 122 bits that version and variant leave, in the order in which they stand in the text.
    struct Position {
        /// 60 bits. One more each 2^62 positions.
        std::uint64_t high = 0;
        /// 62 bits.
        std::uint64_t low = 0;

        bool operator<(const Position& other) const {
            return std::tie(high, low) < std::tie(other.high, other.low);
        }
    };

    static std::optional<Position> positionIn(std::string_view identifier);
    static std::string textOf(const Position& position);
    Position randomStart() const;
    Position stepFrom(const Position& position) const;

    RandomSource random_;
    /// Where the last one stands; nothing before the first.
    std::optional<Position> last_;
};

}  // namespace brindle

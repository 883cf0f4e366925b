#pragma once

#include <functional>
#include <string_view>

/// Texts that are handed on piece by piece, because they may be too large to stand in memory as a whole.
namespace brindle {

/// Takes the next piece, which stays its giver's.
using PieceTaker = std::function<void(std::string_view)>;
/// Gives a text, piece by piece.
using PieceGiver = std::function<void(const PieceTaker&)>;

}  // namespace brindle

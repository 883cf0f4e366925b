#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace brindle::console {

/// How many columns of a terminal a text on one line takes, in the locale of the process.
std::size_t columnsOf(std::string_view text);

/// `text` at the left of a column that is `columns` wide. A longer text widens it; a blank follows always.
std::string leftAligned(std::string_view text, std::size_t columns);

/// `text` at the right of a column that is `columns` wide; a longer text widens it.
std::string rightAligned(std::string_view text, std::size_t columns);

}  // namespace brindle::console

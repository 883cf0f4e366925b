#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace brindle {

/// Whether a number may be written with that character.
bool isJsonNumberCharacter(char character);

/// Whether the text is a number, however large (RFC 8259, section 6).
bool isJsonNumber(std::string_view text);

/// The value of a number without a fraction ("3", "3.0", "30e-1") that fits, else nothing. Exact: "1e400" is
/// no value and "1e-400" has a fraction. Precondition: isJsonNumber(number).
std::optional<std::int64_t> wholeNumber(std::string_view number);

}  // namespace brindle

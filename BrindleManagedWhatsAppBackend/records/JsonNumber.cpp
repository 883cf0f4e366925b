#include "records/JsonNumber.h"

#include <locale.h>
#include <stdlib.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <memory>
#include <string>
#include <system_error>
#include <type_traits>

namespace brindle {
namespace {

std::size_t countDigits(std::string_view text) {
    const auto end = std::find_if(text.begin(), text.end(), [](char c) { return c < '0' || c > '9'; });
    return static_cast<std::size_t>(end - text.begin());
}

/// Reads as a standard decoder does, whatever the user's decimal sign is. Not std::from_chars, for which a
/// start would have to load the library of mathematics.
double parsedDouble(std::string_view number) {
    const std::unique_ptr<std::remove_pointer_t<locale_t>, decltype(&::freelocale)> standard(
        ::newlocale(LC_ALL_MASK, "C", nullptr), &::freelocale);
    return ::strtod_l(std::string(number).c_str(), nullptr, standard.get());
}

}  // namespace

bool isJsonNumberCharacter(char c) {
    return (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.' || c == 'e' || c == 'E';
}

bool isJsonNumber(std::string_view text) {
    if (text.starts_with('-')) text.remove_prefix(1);
    const auto whole = countDigits(text);
    if (whole == 0 || (whole > 1 && text.front() == '0')) return false;
    text.remove_prefix(whole);
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        const auto fraction = countDigits(text);
        if (fraction == 0) return false;
        text.remove_prefix(fraction);
    }
    if (text.starts_with('e') || text.starts_with('E')) {
        text.remove_prefix(1);
        if (text.starts_with('+') || text.starts_with('-')) text.remove_prefix(1);
        const auto exponent = countDigits(text);
        if (exponent == 0) return false;
        text.remove_prefix(exponent);
    }
    return text.empty();
}

std::optional<std::int64_t> wholeNumber(std::string_view number) {
    std::int64_t whole = 0;
    if (number.find_first_of(".eE") == std::string_view::npos) {
        const auto parsed = std::from_chars(number.data(), number.data() + number.size(), whole);
        return parsed.ec == std::errc() ? std::optional(whole) : std::nullopt;
    }
    // Every double from the lower limit up to, but not including, the upper one converts exactly.
    constexpr double lower_limit = -0x1p63;
    constexpr double upper_limit = 0x1p63;
    const double value = parsedDouble(number);
    if (!(value >= lower_limit && value < upper_limit)) return std::nullopt;
    whole = static_cast<std::int64_t>(value);
    return static_cast<double>(whole) == value ? std::optional(whole) : std::nullopt;
}

}  // namespace brindle

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace brindle::test {

/// Whether `text` is a UUID in canonical upper-case form.
bool isCanonicalUuid(std::string_view text);
/// Whether `text` is an internet date-time in UTC with whole seconds, such as "2026-01-05T09:30:00Z".
bool isTimestamp(std::string_view text);

/// The lines of a text, without line feeds.
std::vector<std::string> linesOf(std::string_view text);

/// That many random digits of a hexadecimal number.
std::string randomHex(std::size_t digits);

}  // namespace brindle::test

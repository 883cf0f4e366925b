#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace brindle {

/// Standard Base64 with padding (RFC 4648, section 4).
std::string base64Encoded(std::string_view bytes);

/// The bytes behind standard Base64 text, or nothing when any character, white space included, is out of
/// place.
std::optional<std::string> base64Decoded(std::string_view text);

}  // namespace brindle

#pragma once

#include <string>
#include <string_view>

namespace brindle {

/// True for an absolute URL (RFC 3986).
bool isAbsoluteUrl(std::string_view text);

/// The URL of a directory on this machine, with a slash at its end.
std::string directoryUrl(const std::string& directory);

}  // namespace brindle

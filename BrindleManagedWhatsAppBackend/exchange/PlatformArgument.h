#pragma once

#include <string_view>

namespace brindle {

/// The argument in front of the platform's name, by which the parent tells the backend what to serve.
inline constexpr std::string_view platform_argument = "--platform";
/// The platform when none is named.
inline constexpr std::string_view default_platform = "whatsapp";

}  // namespace brindle

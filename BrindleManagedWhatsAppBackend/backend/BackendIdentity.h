#pragma once

#include <string_view>

namespace brindle {

/// The protocol version that the backend announces and publishes.
inline constexpr std::string_view backend_version = "managed-whatsapp-backend-3";
/// The name under which the backend itself appears to the parent.
inline constexpr std::string_view backend_display_name = "Brindle Managed WhatsApp Backend";

}  // namespace brindle

#pragma once

#include <string>
#include <string_view>

#include "backend/BackendState.h"
#include "bridge/ManagedWhatsAppBackendEmitter.h"
#include "exchange/DataDirectory.h"
#include "system/Clock.h"
#include "system/FileManager.h"
#include "text/Failure.h"

namespace brindle {

/// What the parts of the backend service share. The service owns all of it and outlives the parts.
struct BackendContext {
    const std::string& platform;
    const Environment& environment;
    const DataDirectory& directory;
    FileManager& fileManager;
    const Clock& clock;
    BackendState& state;
    ManagedWhatsAppBackendEmitter& emitter;
    DepartureWatch& departureWatch;

    /// Writes one diagnostic line to standard error.
    void log(std::string_view message) const noexcept;
};

/// The protocol version that the backend announces and publishes.
inline constexpr std::string_view backend_version = "managed-whatsapp-backend-3";
/// The name under which the backend itself appears to the parent.
inline constexpr std::string_view backend_display_name = "Brindle Managed WhatsApp Backend";

}  // namespace brindle

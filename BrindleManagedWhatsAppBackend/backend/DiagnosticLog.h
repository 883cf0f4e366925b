#pragma once

#include <string_view>

#include "bridge/ManagedWhatsAppBackendEmitter.h"

namespace brindle {

/// What the backend has to say about itself to people: one line of standard error each.
class DiagnosticLog {
  public:
    /// `emitter` outlives the log.
    explicit DiagnosticLog(ManagedWhatsAppBackendEmitter& emitter) : emitter_(emitter) {}

    /// Writes the message as one line with the backend's prefix. Callable from any thread.
    void write(std::string_view message) const noexcept;

  private:
    ManagedWhatsAppBackendEmitter& emitter_;
};

}  // namespace brindle

#include "backend/BackendContext.h"

#include "text/Text.h"

namespace brindle {

void BackendContext::log(std::string_view message) const noexcept {
    try {
        std::string line("[ManagedWhatsAppBackend] ");
        emitter.log(line.append(singleLine(message)).append("\n"));
    } catch (const std::exception&) {
        // No memory for a log line; the work it speaks of goes on.
    }
}

}  // namespace brindle

#include "backend/BackendContext.h"

#include <new>

#include "foundation/Text.h"

namespace brindle {

void BackendContext::log(std::string_view message) const noexcept {
    try {
        std::string line("[ManagedWhatsAppBackend] ");
        emitter.log(line.append(singleLine(message)).append("\n"));
    } catch (const std::exception&) {
        // No memory for a log line; the work it speaks of goes on.
    }
}

std::string descriptionOf(const std::exception& error) {
    if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) return "There is not enough memory.";
    return error.what();
}

}  // namespace brindle

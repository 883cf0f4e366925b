#include "bridge/ManagedWhatsAppBackendEmitter.h"

#include "text/Text.h"

namespace brindle {

ManagedWhatsAppBackendEmitter::ManagedWhatsAppBackendEmitter(int output, int error, DepartureWatch& watch)
    : output_(output, "standard output", watch), error_(error, "standard error", watch) {}

void ManagedWhatsAppBackendEmitter::emit(const BridgeEnvelope& envelope) {
    const std::string line = encodedLine(envelope);
    const std::lock_guard hold(outputLock_);
    output_.write(line);
}

void ManagedWhatsAppBackendEmitter::log(std::string_view text) noexcept {
    try {
        const std::string repaired = repairedUtf8(text);
        const std::lock_guard hold(outputLock_);
        error_.write(repaired);
    } catch (const std::exception&) {
        // There is no place left to report this to.
    }
}

}  // namespace brindle

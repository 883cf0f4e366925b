#include "backend/BackendContext.h"

#include "text/Text.h"
#include "text/WithoutFailing.h"

namespace brindle {

void BackendContext::log(std::string_view message) const noexcept {
    withoutFailing([&] {
        std::string line("[ManagedWhatsAppBackend] ");
        emitter.log(line.append(singleLine(message)).append("\n"));
    });
}

}  // namespace brindle

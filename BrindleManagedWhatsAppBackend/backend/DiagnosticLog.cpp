#include "backend/DiagnosticLog.h"

#include <string>

#include "text/Text.h"
#include "text/WithoutFailing.h"

namespace brindle {

void DiagnosticLog::write(std::string_view message) const noexcept {
    withoutFailing([&] {
        std::string line("[ManagedWhatsAppBackend] ");
        emitter_.log(line.append(singleLine(message)).append("\n"));
    });
}

}  // namespace brindle

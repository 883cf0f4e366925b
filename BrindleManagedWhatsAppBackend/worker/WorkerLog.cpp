#include "worker/WorkerLog.h"

#include "text/Failure.h"

namespace brindle {

void WorkerLog::error(const std::string& message) const noexcept {
    try {
        host_.logError(message);
    } catch (const std::exception&) {
        // Dropped, as promised.
    }
}

void WorkerLog::failure(std::string_view what, const std::exception& reason) const noexcept {
    try {
        host_.logError(std::string(what).append(": ").append(descriptionOf(reason)));
    } catch (const std::exception&) {
        // Dropped, as promised.
    }
}

}  // namespace brindle

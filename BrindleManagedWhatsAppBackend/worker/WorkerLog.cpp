#include "worker/WorkerLog.h"

#include "text/Failure.h"
#include "text/WithoutFailing.h"

namespace brindle {

void WorkerLog::error(const std::string& message) const noexcept {
    withoutFailing([&] { host_.logError(message); });
}

void WorkerLog::failure(std::string_view what, const std::exception& reason) const noexcept {
    withoutFailing([&] { host_.logError(std::string(what).append(": ").append(descriptionOf(reason))); });
}

}  // namespace brindle

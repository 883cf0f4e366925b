#include "system/Polling.h"

#include <cerrno>
#include <string>
#include <system_error>

#include "text/Failure.h"

namespace brindle {

int polled(std::span<pollfd> descriptors, int timeout_ms) {
    const int ready = ::poll(descriptors.data(), descriptors.size(), timeout_ms);
    if (ready >= 0) return ready;
    if (errno == EINTR) return 0;
    throw Failure("Cannot wait for input any longer: " + std::generic_category().message(errno) + ".");
}

}  // namespace brindle

#pragma once

#include <poll.h>

#include <span>

namespace brindle {

/// poll(2): how many of the descriptors are ready, none also when a signal came in between. Waits without end
/// when `timeout_ms` is negative. Throws Failure when the system refuses to wait, as it will again and again.
int polled(std::span<pollfd> descriptors, int timeout_ms);

}  // namespace brindle

#include "support/Waiting.h"

#include <string>
#include <thread>

namespace brindle::test {

void waitUntil(const std::function<bool()>& condition, std::string_view what,
               std::chrono::milliseconds timeout) {
    constexpr std::chrono::milliseconds poll_interval{2};
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            throw TestFailure("waited " + std::to_string(timeout.count()) + " ms in vain for " +
                              std::string(what));
        }
        std::this_thread::sleep_for(poll_interval);
    }
}

}  // namespace brindle::test

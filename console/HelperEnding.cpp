#include "console/HelperEnding.h"

#include <poll.h>
#include <signal.h>

#include <string>
#include <string_view>
#include <vector>

#include "system/Polling.h"

namespace brindle::console {
namespace {

bool helperEndsWithin(HelperProcess& helper, std::chrono::milliseconds patience) {
    auto deadline = std::chrono::steady_clock::now() + patience;
    while (!helper.hasEnded()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        std::vector<pollfd> entries;
        helper.addPollEntries(entries);
        polled(entries, static_cast<int>(left.count()));
        // A helper that still takes and answers what was sent is busy, not stuck.
        if (helper.pump()) deadline = std::chrono::steady_clock::now() + patience;
    }
    return true;
}

void reportForcedEnd(Display& display, std::string_view means) {
    display.problem("The helper does not end by itself and is being " + std::string(means) + ".");
}

}  // namespace

bool endHelper(HelperProcess& helper, Display& display) {
    helper.closeInputWhenWritten();
    if (helperEndsWithin(helper, end_of_input_grace)) return true;
    reportForcedEnd(display, "terminated");
    helper.signal(SIGTERM);
    if (helperEndsWithin(helper, termination_grace)) return false;
    reportForcedEnd(display, "killed");
    helper.kill();
    helperEndsWithin(helper, termination_grace);
    return false;
}

}  // namespace brindle::console

#include "console/Wait.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "text/Text.h"

namespace brindle::console {
namespace {

std::string inSeconds(std::chrono::milliseconds duration) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g s", static_cast<double>(duration.count()) / 1000);
    return text;
}

}  // namespace

Wait::Wait(Condition condition, std::chrono::milliseconds patience)
    : condition_(std::move(condition)),
      patience_(patience),
      deadline_(std::chrono::steady_clock::now() + patience) {}

bool Wait::isOver() const {
    return std::chrono::steady_clock::now() >= deadline_;
}

int Wait::pollTimeout() const {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline_ - std::chrono::steady_clock::now());
    const auto longest = condition_.needsPolling ? status_interval : std::max(left, status_interval);
    return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), longest).count());
}

std::string Wait::failure() const {
    return singleLine("Expected " + condition_.subject + ", which did not come within " +
                      inSeconds(patience_) + (condition_.remark ? condition_.remark() : "") + ".");
}

std::string Wait::failure(const std::string& obstacle) const {
    return singleLine("Expected " + condition_.subject + ", which cannot come: " + obstacle + ".");
}

std::string Wait::announcement() const {
    return singleLine("Waiting up to " + inSeconds(patience_) + " for " + condition_.subject +
                      "; Ctrl-C ends the wait.");
}

}  // namespace brindle::console

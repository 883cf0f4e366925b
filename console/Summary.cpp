#include "console/Summary.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "console/Columns.h"
#include "console/TerminalText.h"

namespace brindle::console {
namespace {

std::string inSeconds(std::chrono::steady_clock::duration duration) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.2f s", std::chrono::duration<double>(duration).count());
    return text;
}

std::string counted(std::size_t count, std::string_view noun) {
    return std::to_string(count).append(" ").append(noun).append(count == 1 ? "" : "s");
}

}  // namespace

void Summary::begin(std::string_view step, TimePoint now) {
    name_ = terminalSafe(step);
    begin_ = now;
}

void Summary::done(TimePoint now) {
    end(now, false);
}

void Summary::failed(TimePoint now) {
    end(now, true);
}

void Summary::end(TimePoint now, bool hasFailed) {
    steps_.push_back({.name = std::exchange(name_, {}), .duration = now - begin_, .hasFailed = hasFailed});
}

std::string Summary::text() const {
    constexpr std::size_t duration_columns = 10;
    const auto failedCount = static_cast<std::size_t>(
        std::count_if(steps_.begin(), steps_.end(), [](const Step& step) { return step.hasFailed; }));
    std::chrono::steady_clock::duration total{};
    std::string lines;
    for (const auto& step : steps_) {
        total += step.duration;
        lines.append(rightAligned(inSeconds(step.duration), duration_columns)).append("  ").append(step.name);
        lines.append(step.hasFailed ? " (failed)\n" : "\n");
    }
    return counted(steps_.size() - failedCount, "step") + " done, " + std::to_string(failedCount) +
           " failed, " + counted(inboundEvents_, "inbound event") + " received, " + inSeconds(total) + ":\n" +
           lines;
}

}  // namespace brindle::console

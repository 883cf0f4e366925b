#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "console/Finding.h"
#include "system/Environment.h"
#include "system/Processes.h"

namespace brindle::console {

/// What a native worker is examined with.
struct WorkerCheckOptions {
    std::string worker;
    std::string platform;
    Environment environment;
    /// How long the worker has for each step.
    std::chrono::milliseconds patience;
    /// Shows what the worker prints, line by line.
    std::function<void(std::string_view)> onOutput;
};

/// How long a worker has for each step unless told otherwise.
inline constexpr std::chrono::milliseconds default_worker_patience{10000};

/// Runs a native worker through everything that the data directory asks of it, in a directory of its own, and
/// reports point by point. Throws Failure when it cannot be started or a signal comes.
Findings checkedWorker(const WorkerCheckOptions& options, const TerminationSignals& signals);

}  // namespace brindle::console

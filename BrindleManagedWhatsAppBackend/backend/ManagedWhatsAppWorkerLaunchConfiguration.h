#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "exchange/NativeWorkerName.h"
#include "system/Environment.h"
#include "system/FileManager.h"
#include "system/Paths.h"

namespace brindle {

/// Which worker to start and how.
struct ManagedWhatsAppWorkerLaunchConfiguration {
    /// The program to start, standardised.
    std::string executableURL;
    /// Empty for every kind of worker.
    std::vector<std::string> arguments;
    /// The complete environment of the child.
    Environment environment;
    /// How launch messages and the runtime status name the worker.
    std::string launchDescription;
    /// Whether the launcher must verify the execute permission first.
    bool requiresExecutableBit = true;
};

/// What decides which worker is run, and what the worker is told.
struct WorkerLaunchConditions {
    const Environment& environment;
    const std::string& platform;
    const std::string& dataDirectoryPath;
    FileManager& fileManager;
    /// The place of the running executable.
    MainBundle bundle;
    /// Told, in a sentence, of each native worker that was found and is not safe to run.
    std::function<void(const std::string&)> report;
};

/// Decides which worker to run; nothing when none is configured.
std::optional<ManagedWhatsAppWorkerLaunchConfiguration> resolveLaunchConfiguration(
    const WorkerLaunchConditions& conditions);

}  // namespace brindle

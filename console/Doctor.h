#pragma once

#include <string>

#include "console/Finding.h"
#include "console/Options.h"
#include "system/Clock.h"
#include "system/Environment.h"
#include "system/FileManager.h"

namespace brindle::console {

/// What is examined, and by what means.
struct Examination {
    /// What the helper would be started with.
    const Environment& environment;
    const std::string& helper;
    const std::string& platform;
    FileManager& fileManager;
    const Clock& clock;
};

/// Looks at an installation and a data directory, without starting a helper and without changing anything.
Findings examined(const Examination& examination);

/// The helper, the worker that is configured, and what the built-in worker needs of the machine.
Findings examinedInstallation(const Examination& examination);
/// The engine's module, the engine, a display and the sandbox. What is missing is a problem only where the
/// built-in worker is switched on.
Findings examinedEngine(const Examination& examination, bool isNeeded);
/// The data directory: whose it is, who uses it, what waits there, space and time.
Findings examinedDirectory(const Examination& examination);

}  // namespace brindle::console

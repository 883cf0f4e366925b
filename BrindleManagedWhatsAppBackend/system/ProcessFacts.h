#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string_view>

#include "system/Environment.h"
#include "system/FileManager.h"

namespace brindle {

/// What the system tells of a process, whoever owns it.
struct ProcessFacts {
    pid_t parent = 0;
    /// By the wall clock as it goes now: had it been set since, the process would seem to have begun by as
    /// much earlier or later.
    std::chrono::system_clock::time_point start;
};

/// Nothing when there is no such process or the system does not tell (Linux procfs).
std::optional<ProcessFacts> processFacts(pid_t process, FileManager& fileManager);

/// The parts of a text of procfs "stat" that processFacts() needs.
struct ProcessStat {
    pid_t parent = 0;
    /// Since the system was started.
    std::chrono::nanoseconds start{};
};
std::optional<ProcessStat> parsedProcessStat(std::string_view text);

/// Whether it is this process, its parent, or a parent of that.
bool isSelfOrAncestor(pid_t process, FileManager& fileManager);

/// The environment that a process was started with; empty when the system does not tell, as of other users'
/// processes.
Environment environmentOf(pid_t process, FileManager& fileManager);

}  // namespace brindle

#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace brindle {

/// A snapshot of a process environment. Values are bytes as the system gave them.
using Environment = std::map<std::string, std::string, std::less<>>;

/// The environment of this process as it is now (POSIX environ). Of a name that stands twice the first
/// counts, as for getenv.
Environment currentEnvironment();

/// The value of `key`, trimmed, or nothing when it is absent or blank.
std::optional<std::string> nonBlankValue(const Environment& environment, std::string_view key);

/// This user's home directory: what HOME names, else what the system's list of users says (POSIX getpwuid).
/// There may be no other thread.
std::string homeDirectory(const Environment& environment);

/// The flag test: true when the trimmed value is "1", "true", "yes" or "on" in any letter case.
bool isFlagSet(const Environment& environment, std::string_view key);

/// Removes a variable from the environment of this process (POSIX environ) and overwrites its value where it
/// lies: /proc/PID/environ, of this process and of those that it forks later, holds it no more. There may be
/// no other thread.
void wipeVariable(std::string_view name);

/// Removes every variable of this process (POSIX environ) but the named ones. There may be no other thread.
void keepVariables(std::span<const std::string_view> names);

}  // namespace brindle

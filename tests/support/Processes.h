#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "support/Environment.h"

namespace brindle::test {

/// Whether a process runs; one that ended but was not reaped yet does not.
bool processIsRunning(pid_t pid);

/// Whether a process waits for something at this moment: one that spins never does.
bool isAsleep(pid_t pid);

/// A process and everything that it started, directly or not, as the system lists them now.
std::vector<pid_t> processTree(pid_t root);
/// The members of a process's tree with that name (its "comm", which the system cuts at 15 characters).
std::vector<pid_t> processesNamed(pid_t root, const std::string& name);
/// Waits until none of the processes runs any more.
void waitForEnds(const std::vector<pid_t>& processes);
/// Kills what still runs and collects what has ended.
void endAll(const std::vector<pid_t>& processes);

/// The parent of a process; 0 when the process is gone.
pid_t parentOf(pid_t pid);
/// Children of a process, ended ones that nobody has reaped included.
std::vector<pid_t> childrenOf(pid_t parent);
/// Waits until `parent` has exactly one child whose program is no longer the one of `parent`, and which
/// isSetUp().
pid_t waitForOnlyChild(pid_t parent);

/// Name of the program that a process runs, as the system reports it; empty when the process is gone.
std::string programOf(pid_t pid);
/// Open descriptors of a process and what they stand for; none when the process is gone.
std::map<int, std::string> descriptorsOf(pid_t pid);
/// The environment that a process was started with; empty when the process is gone.
Environment environmentOf(pid_t pid);
/// The argument list of a process, element 0 included; empty when the process is gone.
std::vector<std::string> argumentsOf(pid_t pid);
/// Whether the system has given a program that was just started its arguments and its environment, neither of
/// them empty.
bool isSetUp(pid_t pid);
/// A signal set of a process by its name in /proc, such as "SigBlk" or "SigIgn".
std::uint64_t signalSetOf(pid_t pid, std::string_view name);

/// Resident memory of a process in bytes; 0 when it is gone.
std::size_t residentBytesOf(pid_t pid);
/// The most that was resident of it so far, in bytes; 0 when it is gone.
std::size_t peakBytesOf(pid_t pid);
/// Proportional set size of a process (Linux procfs), 0 when it is gone.
std::size_t proportionalSetBytes(pid_t process);
/// Processor time that a process has used so far, in seconds; 0 when it is gone.
double processorSeconds(pid_t process);

/// The name of the page's process.
inline constexpr const char* web_process_name = "WebKitWebProces";
inline constexpr const char* network_process_name = "WebKitNetworkPr";

}  // namespace brindle::test

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace brindle::test {

/// A process and everything that it started, directly or not, as the system lists them now.
std::vector<pid_t> processTree(pid_t root);

/// The members of a process's tree with that name (its "comm", which the system cuts at 15 characters).
std::vector<pid_t> processesNamed(pid_t root, const std::string& name);

/// Proportional set size of a process (Linux procfs), 0 when it is gone.
std::size_t proportionalSetBytes(pid_t process);

/// Processor time that a process has used so far, in seconds; 0 when it is gone.
double processorSeconds(pid_t process);

/// The name of the page's process.
inline constexpr const char* web_process_name = "WebKitWebProces";
inline constexpr const char* network_process_name = "WebKitNetworkPr";

}  // namespace brindle::test

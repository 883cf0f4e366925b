#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

/// What the system tells of its processes (Linux procfs), by few system calls, for it is asked several times
/// a second.
namespace brindle {

/// Where the files of a process are; ends with a slash.
std::string procfsFolder(pid_t process);
/// A file of procfs, relative to a directory that is open or, without one, by its whole path; empty when its
/// process is gone.
std::string procfsText(const std::string& path, int directory = AT_FDCWD);

/// What the process has filled itself, in main memory or swapped out. Files that it has mapped are not
/// counted.
std::uint64_t ownBytes(pid_t process);
/// Whether those are more than `limit`. Most often answered by what is cheaper to ask for.
bool hasMoreOwnBytesThan(std::uint64_t limit, pid_t process);

}  // namespace brindle

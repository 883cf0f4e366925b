#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace brindle::bench {

// What Linux tells about a process below /proc; 0 when it is gone.

/// Processor time of all threads that live, in nanoseconds.
std::uint64_t processorNanoseconds(pid_t process);
/// How often its threads have gone to sleep, which is how often they were woken.
std::uint64_t wakeUps(pid_t process);
/// "Rss" and "Private_Dirty" of all mappings.
double residentKibibytes(pid_t process);
double privateDirtyKibibytes(pid_t process);
/// The most that was ever resident.
double peakKibibytes(pid_t process);

/// Returns once the process has done next to nothing for a moment: what it does at its start, and after it
/// has answered, is over. One that never rests is left at it after some seconds.
void waitUntilQuiet(pid_t process);

}  // namespace brindle::bench

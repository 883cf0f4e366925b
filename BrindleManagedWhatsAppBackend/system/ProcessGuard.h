#pragma once

#include <sys/types.h>

namespace brindle {

/// Makes sure that the processes which this one starts do not outlive it, however it ends, SIGKILL included.
///
/// A small second process leads a process group that this process joins and that its children inherit; it
/// waits for this process's end and then kills the whole group. Programs that are not ours leave no better
/// handle. The leader of a session cannot leave its group; there the second process joins that one.
class ProcessGuard {
  public:
    /// Precondition: this process has no other thread yet and has started no process. Throws Failure.
    ProcessGuard();
    /// Gives the children a moment to end by themselves, so that they can save what they hold, and kills
    /// those that remain.
    ~ProcessGuard();
    ProcessGuard(const ProcessGuard&) = delete;
    ProcessGuard& operator=(const ProcessGuard&) = delete;

  private:
    bool leadsSession_;
    pid_t guard_ = -1;
};

}  // namespace brindle

#pragma once

#include <sys/types.h>

#include <set>

namespace brindle {

/// The processes that this one has started, and those that they have started. Walking to all of them reads a
/// file for each of their threads, which is too much for several times a second; one file tells which ids the
/// system has given out meanwhile, and few others whose children these are (Linux procfs).
class Descendants {
  public:
    /// The processes as of now; some of them may have ended meanwhile. Every fifth call walks to them in any
    /// case, as what has started and ended since may hide something; each does where the system does not tell
    /// what it has started.
    const std::set<pid_t>& look();
    /// Walks to them in any case.
    const std::set<pid_t>& walk();

  private:
    /// Whether one of them is the parent of one that was started since the last look.
    bool mayHaveStarted(pid_t newest) const;

    std::set<pid_t> processes_;
    /// Of all processes and threads; 0 before the first look.
    pid_t newest_ = 0;
    int looks_ = 0;
};

}  // namespace brindle

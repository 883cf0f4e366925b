#pragma once

#include <sys/types.h>

#include <set>
#include <string>

namespace brindle {

/// The processes that this one has started, and those that they have started. Walking to all of them reads a
/// file for each of their threads, which is too much for several times a second; whether the system has
/// started anything at all meanwhile takes one (Linux procfs).
class Descendants {
  public:
    /// The processes as of now; some of them may have ended meanwhile. A system that does not tell what it
    /// has started is asked for all of them at every fifth call.
    const std::set<pid_t>& look();
    /// Walks to them in any case.
    const std::set<pid_t>& walk();

  private:
    std::set<pid_t> processes_;
    /// Of all processes and threads; empty before the first walk.
    std::string newest_;
    int looks_ = 0;
};

}  // namespace brindle

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <set>

#include "worker/webkit/Descendants.h"
#include "worker/webkit/MainLoopTimer.h"

namespace brindle {

/// Ends processes of the engine that take too much memory. The engine's own watch lies within the process
/// that it is to watch, where a page that never pauses keeps it from looking; this one looks from outside.
///
/// It also looks at this very process, which keeps for a page what the page does not keep itself: the
/// entries of its history with the states that it gave them, above all.
class PageMemoryWatch {
  public:
    struct Limits {
        /// Of the memory of its own that a process of the engine may have.
        std::uint64_t process_bytes = 0;
        /// By how much this process may grow.
        std::uint64_t growth_bytes = 0;
    };
    struct Actions {
        /// Called once for each process of the engine that is killed, just before.
        std::function<void()> onExcess;
        /// Called when this process has grown too much since it was smallest; what it has then is where the
        /// count begins anew, until it is smaller again. Ends the page, which gives that memory back.
        std::function<void()> onGrowth;
    };

    /// Looks for as long as it lives.
    PageMemoryWatch(const Limits& limits, Actions actions);
    PageMemoryWatch(const PageMemoryWatch&) = delete;
    PageMemoryWatch& operator=(const PageMemoryWatch&) = delete;

  private:
    void lookAtEngine();
    void end(pid_t process);
    void lookAtThisProcess();

    Limits limits_;
    Actions actions_;
    std::uint64_t least_bytes_;
    Descendants descendants_;
    /// Killed, and still there: giving so much memory back takes a while.
    std::set<pid_t> ending_;
    MainLoopTimer timer_;
};

}  // namespace brindle

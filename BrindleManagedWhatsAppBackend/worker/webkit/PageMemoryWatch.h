#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <set>

#include "worker/webkit/MainLoopTimer.h"

namespace brindle {

/// Ends processes of the engine that take too much memory. The engine's own watch lies within the process
/// that it is to watch, where a page that never pauses keeps it from looking; this one looks from outside.
class PageMemoryWatch {
  public:
    /// Looks for as long as it lives. A process of the engine with more than `limit_bytes` of memory of
    /// its own is killed; `onExcess` is called once for each, just before.
    PageMemoryWatch(std::uint64_t limit_bytes, std::function<void()> onExcess);
    PageMemoryWatch(const PageMemoryWatch&) = delete;
    PageMemoryWatch& operator=(const PageMemoryWatch&) = delete;

  private:
    void look();

    std::uint64_t limit_bytes_;
    std::function<void()> onExcess_;
    /// Killed, and still there: giving so much memory back takes a while.
    std::set<pid_t> ending_;
    MainLoopTimer timer_;
};

}  // namespace brindle

#pragma once

#include <glib.h>

#include <chrono>
#include <functional>

#include "worker/WebWorkerHost.h"

namespace brindle {

/// A timer of the default main loop on the monotonic clock. May be destroyed from within its own callback.
class MainLoopTimer final : public HostTimer {
  public:
    /// How often and how exactly a timer fires.
    struct Schedule {
        std::chrono::microseconds interval;
        /// Zero: as soon as due. Otherwise due times are moved up to the next multiple of it, so that all
        /// timers of the same tolerance wake the process together.
        std::chrono::microseconds tolerance{0};
        bool repeats = false;
    };

    MainLoopTimer(const Schedule& schedule, std::function<void()> action);
    ~MainLoopTimer() override;
    MainLoopTimer(const MainLoopTimer&) = delete;
    MainLoopTimer& operator=(const MainLoopTimer&) = delete;

  private:
    GSource* source_;
};

}  // namespace brindle

#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>

#include "worker/Task.h"
#include "worker/WebWorkerHost.h"
#include "worker/WorkerLog.h"

namespace brindle {

/// How often a timer of the worker ticks.
struct TickSchedule {
    std::chrono::milliseconds interval;
    std::chrono::milliseconds tolerance;
};

/// Starts a task at every tick of a timer. A tick is left out while the task of an earlier one still waits,
/// so that nothing piles up behind a page that does not answer. Destroying it gives up a task that waits.
class RepeatingTask {
  public:
    RepeatingTask(WebWorkerHost& host, const TickSchedule& schedule, std::function<Task<>()> work);
    RepeatingTask(const RepeatingTask&) = delete;
    RepeatingTask& operator=(const RepeatingTask&) = delete;

  private:
    void tick() noexcept;
    Task<> runOnce();
    void logFailure(const std::exception& error) const noexcept;

    WorkerLog log_;
    std::function<Task<>()> work_;
    std::optional<Task<>> running_;
    std::unique_ptr<HostTimer> timer_;
};

}  // namespace brindle

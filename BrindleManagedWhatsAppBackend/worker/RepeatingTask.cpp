#include "worker/RepeatingTask.h"

#include <exception>
#include <utility>

#include "text/WithoutFailing.h"

namespace brindle {

RepeatingTask::RepeatingTask(WebWorkerHost& host, const TickSchedule& schedule, std::function<Task<>()> work)
    : log_(host),
      work_(std::move(work)),
      timer_(host.repeat(schedule.interval, schedule.tolerance, [this] { tick(); })) {}

void RepeatingTask::tick() noexcept {
    if (running_ && !running_->isDone()) return;
    running_.reset();
    // The task itself takes memory before it can begin.
    withoutFailing([this] { running_.emplace(runOnce()); },
                   [this](const std::exception& error) { logFailure(error); });
    if (running_) running_->start();
}

Task<> RepeatingTask::runOnce() {
    try {
        Task<> task = work_();
        co_await std::move(task);
    } catch (const std::exception& error) {
        logFailure(error);
    }
}

void RepeatingTask::logFailure(const std::exception& error) const noexcept {
    log_.failure("A task of the worker failed", error);
}

}  // namespace brindle

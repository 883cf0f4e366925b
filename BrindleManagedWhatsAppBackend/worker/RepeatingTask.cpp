#include "worker/RepeatingTask.h"

#include <exception>
#include <string>
#include <utility>

#include "text/Failure.h"

namespace brindle {

RepeatingTask::RepeatingTask(WebWorkerHost& host, const TickSchedule& schedule, std::function<Task<>()> work)
    : host_(host),
      work_(std::move(work)),
      timer_(host.repeat(schedule.interval, schedule.tolerance, [this] { tick(); })) {}

void RepeatingTask::tick() noexcept {
    if (running_ && !running_->isDone()) return;
    running_.reset();
    running_.emplace(runOnce());
    running_->start();
}

Task<> RepeatingTask::runOnce() {
    try {
        Task<> task = work_();
        co_await std::move(task);
    } catch (const std::exception& error) {
        host_.logError("A task of the worker failed: " + descriptionOf(error));
    }
}

}  // namespace brindle

#include "worker/webkit/PageMemoryWatch.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "worker/webkit/Procfs.h"

namespace brindle {
namespace {

/// The fastest page takes about a gibibyte in between. Due together with the worker's own timers, so that the
/// process is not woken more often for it.
constexpr std::chrono::milliseconds look_interval{200};

}  // namespace

PageMemoryWatch::PageMemoryWatch(const Limits& limits, Actions actions)
    : limits_(limits),
      actions_(std::move(actions)),
      least_bytes_(ownBytes(::getpid())),
      timer_(MainLoopTimer::Schedule{.interval = look_interval, .tolerance = look_interval, .repeats = true},
             [this] {
                 lookAtEngine();
                 lookAtThisProcess();
             }) {}

void PageMemoryWatch::lookAtEngine() {
    const auto& processes = descendants_.look();
    std::erase_if(ending_, [&](pid_t process) { return !processes.contains(process); });
    std::vector<pid_t> greedy;
    for (const pid_t process : processes) {
        if (!ending_.contains(process) && hasMoreOwnBytesThan(limits_.process_bytes, process))
            greedy.push_back(process);
    }
    for (const pid_t process : greedy) end(process);
}

void PageMemoryWatch::end(pid_t process) {
    // One that has ended meanwhile may have left its id to a stranger.
    if (!descendants_.walk().contains(process)) return;
    ending_.insert(process);
    actions_.onExcess();
    ::kill(process, SIGKILL);
}

void PageMemoryWatch::lookAtThisProcess() {
    const auto bytes = ownBytes(::getpid());
    least_bytes_ = std::min(least_bytes_, bytes);
    if (bytes - least_bytes_ <= limits_.growth_bytes) return;
    // Should something stay, the next page is not ended for it.
    least_bytes_ = bytes;
    actions_.onGrowth();
}

}  // namespace brindle

#include "support/WorkerCost.h"

#include <fstream>
#include <map>
#include <utility>

#include "support/Processes.h"

namespace brindle::test {
namespace {

constexpr double bytes_per_mebibyte = 1024.0 * 1024.0;

/// The name that the process has given itself; empty when it is gone.
std::string nameOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

WebWorkerOptions onSamplePage() {
    return WebWorkerOptions().withUrl("file://" SOURCE_DIRECTORY
                                      "/examples/web-client/index.html?scan=0&traffic=none&loading=0");
}

}  // namespace

IdleWorker::IdleWorker() : IdleWorker(onSamplePage(), "Team Room") {}

IdleWorker::IdleWorker(WebWorkerOptions options, const std::string& chat) : worker_(std::move(options)) {
    worker_.waitForState("linked");
    worker_.watchUntilOpen(chat);
}

std::vector<ProcessCost> IdleWorker::measure(std::chrono::seconds idle) {
    using Clock = std::chrono::steady_clock;
    const auto tree = worker_.tree();
    const auto start = Clock::now();
    std::map<pid_t, double> before;
    for (const pid_t process : tree) before[process] = processorSeconds(process);
    // The worker's own beat tells the time: it publishes on every tick.
    while (Clock::now() - start < idle) worker_.waitForMoreStatuses(1);
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<ProcessCost> costs;
    for (const pid_t process : tree) {
        constexpr double percent = 100;
        const double used = processorSeconds(process) - before[process];
        const auto name = nameOf(process);
        const auto memory = proportionalSetBytes(process);
        // It has ended meanwhile; asked last, this also holds for what was read before.
        if (memory == 0) continue;
        costs.push_back({.name = name,
                         .memory_mebibytes = static_cast<double>(memory) / bytes_per_mebibyte,
                         .processor_percent = percent * used / elapsed});
    }
    return costs;
}

ProcessCost total(const std::vector<ProcessCost>& processes) {
    ProcessCost sum{.name = "whole tree"};
    for (const auto& process : processes) {
        sum.memory_mebibytes += process.memory_mebibytes;
        sum.processor_percent += process.processor_percent;
    }
    return sum;
}

}  // namespace brindle::test

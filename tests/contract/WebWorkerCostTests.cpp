#include <gtest/gtest.h>

#include "support/WorkerCost.h"

namespace brindle::test {
namespace {

TEST(WebWorkerCost, AnIdleTreeStaysWithinItsMemory) {
    constexpr std::chrono::seconds some_ticks{3};
    IdleWorker idle;
    const auto costs = idle.measure(some_ticks);
    ASSERT_GE(costs.size(), 4U) << "the worker, its guard, the network process and the page's process";
    for (const auto& process : costs) EXPECT_GT(process.memory_mebibytes, 0) << process.name;
    EXPECT_LT(total(costs).memory_mebibytes, most_memory_mebibytes);
}

TEST(WebWorkerCost, AnIdleTreeLeavesTheProcessorAlone) {
    // Processor time does not depend on what else runs, but caches and clock rates do: three times the bound
    // that worker_bench shows on a quiet machine.
    constexpr double margin = 3;
    constexpr std::chrono::seconds long_enough{12};
    IdleWorker idle;
    EXPECT_LT(total(idle.measure(long_enough)).processor_percent, margin * most_processor_percent);
}

}  // namespace
}  // namespace brindle::test

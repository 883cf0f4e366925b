#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Processes.h"
#include "support/Sanitizers.h"
#include "support/WebWorkerTest.h"
#include "support/WorkerCost.h"

namespace brindle::test {
namespace {

class WebWorkerCost : public WebWorkerTest {
  protected:
    void SetUp() override {
        WebWorkerTest::SetUp();
        if (sanitizerOfExecutables() == Sanitizer::address) GTEST_SKIP() << memory_is_kept;
    }
};

TEST_F(WebWorkerCost, AnIdleTreeStaysWithinItsMemory) {
    constexpr std::chrono::seconds some_ticks{3};
    IdleWorker idle;
    const auto costs = idle.measure(some_ticks);
    std::vector<std::string> names;
    for (const auto& process : costs) names.push_back(process.name);
    EXPECT_THAT(names, testing::IsSupersetOf(
                           {"BrindleManagedW", "brindle-guard", network_process_name, web_process_name}));
    EXPECT_LT(total(costs).memory_mebibytes, most_memory_mebibytes);
}

TEST_F(WebWorkerCost, AnIdleTreeLeavesTheProcessorAlone) {
    // What a busy machine adds to a share is hard to tell: worker_bench holds it to most_processor_percent on
    // a quiet one. Here only something that never comes to rest is too much.
    constexpr double restless_percent = 25;
    constexpr std::chrono::seconds long_enough{12};
    IdleWorker idle;
    EXPECT_LT(total(idle.measure(long_enough)).processor_percent, restless_percent);
}

}  // namespace
}  // namespace brindle::test

#include "worker/WorkerLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "support/ScriptedHost.h"

namespace brindle {
namespace {

using testing::ElementsAre;

TEST(WorkerLogTests, WritesToTheSystemLog) {
    test::TestClock clock;
    test::ScriptedHost host(clock);
    const WorkerLog log(host);
    log.error("Something failed.");
    log.failure("The reading failed", std::runtime_error("No luck."));
    EXPECT_THAT(host.log, ElementsAre("Something failed.", "The reading failed: No luck."));
}

}  // namespace
}  // namespace brindle

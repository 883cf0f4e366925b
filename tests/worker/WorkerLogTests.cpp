#include "worker/WorkerLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "support/ScriptedHost.h"
#include "support/WantOfMemory.h"

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

TEST(WorkerLogTests, LineThatFindsNoMemoryIsDropped) {
    test::TestClock clock;
    test::ScriptedHost host(clock);
    const WorkerLog log(host);
    const std::string message("Something failed in a long sentence.");
    const std::runtime_error reason("No luck.");
    bool wasMet = true;
    for (int piece = 1; wasMet; ++piece) {
        host.log.clear();
        test::WantOfMemory want(piece, test::WantOfMemory::Persistence::fromThenOn);
        log.failure("The reading failed", reason);
        log.error(message);
        wasMet = want.end();
        EXPECT_EQ(host.log.size() == 2, !wasMet) << piece;
    }
}

}  // namespace
}  // namespace brindle

#include "worker/WorkerStatusPublisher.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "support/Files.h"
#include "support/Json.h"
#include "support/WantOfMemory.h"
#include "support/WorkerParts.h"

namespace brindle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Fault = test::FaultInjectingFileManager::Fault;

class WorkerStatusPublisherTests : public testing::Test {
  protected:
    test::WorkerParts parts_;
};

TEST_F(WorkerStatusPublisherTests, FirstStatusSaysThatTheWorkerIsLaunching) {
    parts_.publisher.writeStatus();
    EXPECT_EQ(parts_.status(), (test::Json{{"state", "starting"},
                                           {"detail", "Launching managed WhatsApp Web worker."},
                                           {"lastHeartbeatISO8601", "2026-01-05T09:30:00Z"},
                                           {"supportsLiveCapture", true},
                                           {"supportsOutbound", false}}));
}

TEST_F(WorkerStatusPublisherTests, StatusIsPrettyAndSortedWithoutAbsentMembers) {
    parts_.publisher.writeStatus();
    EXPECT_EQ(test::readFile(parts_.directory.workerStatusFile), R"({
  "detail": "Launching managed WhatsApp Web worker.",
  "lastHeartbeatISO8601": "2026-01-05T09:30:00Z",
  "state": "starting",
  "supportsLiveCapture": true,
  "supportsOutbound": false
}
)");
}

TEST_F(WorkerStatusPublisherTests, StatusNamesTheAccountWhenThereIsOne) {
    parts_.state.displayName = "Ann/Lee";
    parts_.publisher.writeStatus();
    EXPECT_EQ(parts_.status()["displayName"], "Ann/Lee");
}

TEST_F(WorkerStatusPublisherTests, EveryStatusCarriesTheTimeOfItsWriting) {
    parts_.publisher.writeStatus();
    parts_.clock.turnTo(test::TestClock::start + std::chrono::milliseconds(61'999));
    parts_.publisher.writeStatus();
    EXPECT_EQ(parts_.status()["lastHeartbeatISO8601"], "2026-01-05T09:31:01Z");
}

TEST_F(WorkerStatusPublisherTests, PublishingKeepsTheAccount) {
    parts_.state.displayName = "Ann";
    parts_.publisher.publish(worker_state::watching_chat, "Watching.");
    EXPECT_THAT(parts_.published(), ElementsAre("watching_chat: Watching. (Ann)"));
    EXPECT_EQ(parts_.state.workerState, "watching_chat");
    EXPECT_EQ(parts_.state.workerDetail, "Watching.");
}

TEST_F(WorkerStatusPublisherTests, PublishingWithoutAccountForgetsIt) {
    parts_.state.displayName = "Ann";
    parts_.publisher.publishWithoutAccount(worker_state::error, "Failed.");
    EXPECT_THAT(parts_.published(), ElementsAre("error: Failed."));
    EXPECT_EQ(parts_.state.displayName, std::nullopt);
}

TEST_F(WorkerStatusPublisherTests, StatusIsNotFlushedToDisk) {
    parts_.publisher.writeStatus();
    EXPECT_EQ(parts_.files.writes().back().durability, Durability::process);
}

TEST_F(WorkerStatusPublisherTests, FailedWriteIsLoggedAndLeavesTheOldStatus) {
    parts_.publisher.publish(worker_state::linked, "First.");
    parts_.faults.set(Fault{.operation = 1, .code = ENOSPC});
    parts_.publisher.publish(worker_state::error, "Second.");
    EXPECT_THAT(parts_.host.log,
                ElementsAre("Failed to write worker status: Cannot write \"" +
                            parts_.directory.workerStatusFile + "\": No space left on device."));
    EXPECT_EQ(parts_.status()["detail"], "First.");
    EXPECT_EQ(parts_.state.workerDetail, "Second.");
}

TEST_F(WorkerStatusPublisherTests, NextChangeWritesAgainAfterAFailure) {
    parts_.faults.set(Fault{.operation = 1, .code = EIO});
    parts_.publisher.publish(worker_state::error, "First.");
    EXPECT_THAT(parts_.published(), IsEmpty());
    parts_.publisher.publish(worker_state::linked, "Second.");
    EXPECT_THAT(parts_.published(), ElementsAre("linked: Second."));
}

TEST_F(WorkerStatusPublisherTests, WantOfMemoryCostsOneStatusAtMost) {
    bool wasMet = true;
    int piece = 1;
    for (; wasMet; ++piece) {
        {
            test::WantOfMemory want(piece, test::WantOfMemory::Persistence::fromThenOn);
            parts_.publisher.publishWithoutAccount(worker_state::starting,
                                                   "A sentence that needs memory of its own.");
            parts_.publisher.writeStatus();
            wasMet = want.end();
        }
        parts_.publisher.publish(worker_state::linked, "There is memory again.");
        EXPECT_EQ(parts_.status()["detail"], "There is memory again.") << piece;
    }
    EXPECT_GT(piece, 10);
}

}  // namespace
}  // namespace brindle

#include "worker/WorkerContext.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/WorkerParts.h"

namespace brindle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(WorkerContextTests, LogsToTheSystemLog) {
    const test::WorkerParts parts;
    parts.context.logError("Something failed.");
    EXPECT_THAT(parts.host.log, ElementsAre("Something failed."));
}

TEST(WorkerContextTests, HidesTheWindow) {
    const test::WorkerParts parts;
    parts.context.hideWindow();
    EXPECT_THAT(parts.host.calls, ElementsAre("orderOut"));
}

TEST(WorkerContextTests, WithoutAWindowThereIsNothingToHide) {
    test::WorkerParts parts;
    parts.webView.reset();
    parts.context.hideWindow();
    EXPECT_THAT(parts.host.calls, IsEmpty());
}

}  // namespace
}  // namespace brindle

#include "console/RuntimeStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"

namespace brindle::console {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

ManagedWhatsAppRuntimeStatusRecord someStatus() {
    ManagedWhatsAppRuntimeStatusRecord status;
    status.platform = "whatsapp";
    status.workerDetail = "Two\nlines";
    status.workerSupportsOutbound = true;
    return status;
}

TEST(RuntimeStatus, HasAValueForEveryFieldThatIsPresent) {
    EXPECT_EQ(statusValue(someStatus(), "platform"), "whatsapp");
    EXPECT_EQ(statusValue(someStatus(), "workerProcessRunning"), "false");
    EXPECT_EQ(statusValue(someStatus(), "workerSupportsOutbound"), "true");
    EXPECT_EQ(statusValue(someStatus(), "workerDisplayName"), std::nullopt);
    EXPECT_EQ(statusValue(someStatus(), "nonsense"), std::nullopt);
}

TEST(RuntimeStatus, IsATableInTheOrderOfDeclaration) {
    const auto table = statusTable(statusFields(someStatus()));
    EXPECT_THAT(table, StartsWith("  platform                        whatsapp\n  backendVersion "));
    EXPECT_THAT(table, HasSubstr("  workerConfiguredExecutablePath  -\n"));
    EXPECT_THAT(table, HasSubstr("  workerDetail                    Two?lines\n"));
}

TEST(RuntimeStatus, NameLongerThanItsColumnIsFollowedByItsValue) {
    const std::string name(40, 'n');
    EXPECT_EQ(statusTable({{.name = name, .value = "value"}, {.name = name, .value = std::nullopt}}),
              "  " + name + " value\n  " + name + " -\n");
}

TEST(RuntimeStatus, IsNoneWhileItCannotBeRead) {
    const test::TemporaryDirectory directory;
    PosixFileManager fileManager;
    const auto file = (directory.path() / "runtime-status.json").string();
    EXPECT_FALSE(readableStatus(fileManager, file));
    test::writeFileAtomically(file, "{");
    EXPECT_FALSE(readableStatus(fileManager, file));
    writeRecord(fileManager, file, someStatus(), Durability::process);
    EXPECT_EQ(readableStatus(fileManager, file)->platform, "whatsapp");
}

TEST(WorkerObstacle, IsAWorkerThatNeverRunsAgain) {
    ManagedWhatsAppRuntimeStatusRecord status;
    for (const auto* state : {"not_configured", "misconfigured", "launch_failed", "exited", "stopped"}) {
        status.workerState = state;
        EXPECT_NE(workerObstacle(status), "") << state;
    }
    for (const auto* state : {"launching", "starting", "linked"}) {
        status.workerState = state;
        EXPECT_EQ(workerObstacle(status), "") << state;
    }
    status.workerState = "stopped";
    status.workerProcessRunning = true;
    EXPECT_EQ(workerObstacle(status), "");
}

TEST(SendingRemark, IsNoneWhileAWorkerSendsOrHasNotSpokenYet) {
    ManagedWhatsAppRuntimeStatusRecord status;
    status.workerState = "launching";
    EXPECT_EQ(sendingRemark(status), "");
    status.workerSupportsOutbound = true;
    EXPECT_EQ(sendingRemark(status), "");
}

}  // namespace
}  // namespace brindle::console

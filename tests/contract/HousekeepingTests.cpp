#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "support/BackendProcess.h"
#include "support/Files.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::SizeIs;

fs::path putFile(const BackendOptions& options, const std::string& name, std::chrono::seconds age = {}) {
    const auto path = options.dataDirectory->path() / name;
    fs::create_directories(path.parent_path());
    writeFileAtomically(path, "{}");
    fs::last_write_time(path, fs::last_write_time(path) - age);
    return path;
}

/// Waits until the backend has surely met everything that lay there before it started.
void waitForHousekeeping(const BackendOptions& options, const BackendProcess& backend) {
    backend.waitUntil([&] { return !fs::exists(options.dataDirectory->path() / "runtime/.brindle-a1B2c3"); },
                      "an old unfinished file to go");
}

TEST(Housekeeping, UnfinishedFilesOfKilledWritersGo) {
    const BackendOptions options;
    const auto inbound = putFile(options, "inbound/.brindle-a1B2c3", std::chrono::minutes(2));
    const auto outbound = putFile(options, "outbound/.brindle-a1B2c3", std::chrono::minutes(2));
    const auto young = putFile(options, "inbound/.brindle-D4e5F6");
    const auto foreign = putFile(options, "inbound/.other-a1B2c3", std::chrono::minutes(2));
    putFile(options, "runtime/.brindle-a1B2c3", std::chrono::minutes(2));
    const BackendProcess backend(options);
    waitForHousekeeping(options, backend);
    EXPECT_FALSE(fs::exists(inbound));
    EXPECT_FALSE(fs::exists(outbound));
    EXPECT_TRUE(fs::exists(young));
    EXPECT_TRUE(fs::exists(foreign));
}

TEST(Housekeeping, RecordsThatWereDeliveredLatelyStay) {
    const BackendOptions options;
    const auto delivered = putFile(options, "processed/a.json", std::chrono::hours(24 * 400));
    BackendProcess backend(options);
    backend.greet();
    // The first sweep is over by then; the status is written every second.
    backend.waitForStatusWrites(4);
    EXPECT_TRUE(fs::exists(delivered));
}

TEST(Housekeeping, WrongNumberOfDaysIsReportedOnce) {
    BackendOptions options;
    options.environment["BRINDLE_MANAGED_BRIDGE_RETENTION_DAYS"] = "soon";
    BackendProcess backend(options);
    backend.waitForStandardError("is \"soon\", which is no whole number from 0 to 36500");
    backend.finish();
    EXPECT_THAT(backend.standardErrorLines(), SizeIs(1));
}

}  // namespace
}  // namespace brindle::test

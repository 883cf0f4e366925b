#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "support/DrivenPage.h"
#include "support/SmallFileSystem.h"
#include "support/Waiting.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

namespace brindle::test {
namespace {

using testing::ElementsAre;

/// A web worker whose data directory lies on a small file system that the test can fill.
class WebWorkerDiskFull : public WebWorkerTest {
  protected:
    void SetUp() override {
        WebWorkerTest::SetUp();
        if (IsSkipped()) return;
        std::filesystem::create_directory(options_.dataDirectory());
        disk_.emplace(options_.dataDirectory(), "size=256k");
        if (!disk_->isMounted())
            GTEST_SKIP() << "Only root may mount a small file system (" << disk_->whyNot() << ").";
    }
    std::filesystem::path filler() const { return options_.path("filler"); }
    static std::string receiving(const std::string& text) {
        return "client.receive('Team Room', { id: '" + text + "', sender: 'Ann', text: '" + text + "' })";
    }

    WebWorkerOptions options_;
    std::optional<SmallFileSystem> disk_;
};

TEST_F(WebWorkerDiskFull, WorksAgainWhenSpaceReturns) {
    DrivenPage page("client.chats(['Team Room'])");
    WebWorkerProcess worker(options_.withUrl(page.url()).withoutJournal());
    worker.watchUntilOpen("Team Room");
    page.run(receiving("before"));
    EXPECT_THAT(worker.waitForTexts(1), ElementsAre("before"));
    worker.waitUntil(
        [&] {
            disk_->takeFreeSpace(filler());
            return worker.process().standardError().find("Failed to write worker status: ") !=
                   std::string::npos;
        },
        "a status that cannot be written");
    std::filesystem::remove(filler());
    page.run(receiving("after"));
    EXPECT_THAT(worker.waitForTexts(2), ElementsAre("before", "after"));
    EXPECT_EQ(page.loads(), 1U);
}

}  // namespace
}  // namespace brindle::test

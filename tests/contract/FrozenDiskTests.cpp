#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/BackendProcess.h"
#include "support/DrivenPage.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Pipes.h"
#include "support/Requests.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"
#include "system/Descriptor.h"

/// The helper on a disk that does not answer for a while.
namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

constexpr const char* freezing_needs_root =
    "Only root may freeze a file system, and only where there are loop devices.";

/// A file system in a file that can be frozen (FIFREEZE): who writes to it waits and cannot even be killed. A
/// process of its own thaws it when this one ends in whatever way, so that nobody waits for ever.
class FreezableDisk {
  public:
    FreezableDisk() {
        const auto image = place_.path() / "image";
        fs::create_directory(directory());
        const std::string make = "truncate -s 16M " + image.string() + " && /sbin/mkfs.ext4 -q -F " +
                                 image.string() + " && mount -o loop " + image.string() + " " +
                                 directory().string();
        isMounted_ = ::geteuid() == 0 && std::system(("{ " + make + "; } >/dev/null 2>&1").c_str()) == 0;
        if (!isMounted_) return;
        root_ = Descriptor(::open(directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        guardian_ = ::fork();
        if (guardian_ == 0) thawWhenTheTestIsGone();
        life_.reading.reset();
    }
    FreezableDisk(const FreezableDisk&) = delete;
    FreezableDisk& operator=(const FreezableDisk&) = delete;
    ~FreezableDisk() {
        if (!isMounted_) return;
        life_.writing.reset();
        ::waitpid(guardian_, nullptr, 0);
        root_.reset();
        ::umount2(directory().c_str(), MNT_DETACH);
    }

    fs::path directory() const { return place_.path() / "disk"; }
    bool isMounted() const { return isMounted_; }
    void freeze() const { ASSERT_EQ(::ioctl(root_.get(), FIFREEZE, 0), 0); }
    void thaw() const { ASSERT_EQ(::ioctl(root_.get(), FITHAW, 0), 0); }

  private:
    [[noreturn]] void thawWhenTheTestIsGone() {
        life_.writing.reset();
        char byte = 0;
        while (::read(life_.reading.get(), &byte, 1) > 0) {
        }
        ::ioctl(root_.get(), FITHAW, 0);
        ::_exit(0);
    }

    TemporaryDirectory place_;
    PipeEnds life_ = makePipe();
    Descriptor root_;
    pid_t guardian_ = -1;
    bool isMounted_ = false;
};

bool isAnyThreadHeldByTheSystem(pid_t process) {
    const auto tasks = fs::path("/proc") / std::to_string(process) / "task";
    for (const auto& task : fs::directory_iterator(tasks)) {
        const auto stat = contentOrNothing(task.path() / "stat");
        if (stat.find(") D ") != std::string::npos) return true;
    }
    return false;
}

class FrozenDisk : public testing::Test {
  protected:
    void SetUp() override {
        if (!disk_.isMounted()) GTEST_SKIP() << freezing_needs_root;
        options_.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = (disk_.directory() / "data").string();
    }
    fs::path data(const fs::path& relative) const { return disk_.directory() / "data" / relative; }

    FreezableDisk disk_;
    BackendOptions options_;
};

TEST_F(FrozenDisk, IsWaitedForAndCostsNoMessage) {
    BackendProcess backend(options_);
    backend.greet();
    waitUntil([&] { return fs::exists(data("runtime/worker-control.json")); }, "the first records");
    disk_.freeze();
    for (const std::string text : {"1", "2", "3"}) backend.send(sendMessageRequest(teamRoomMessage(text)));
    backend.closeInput();
    waitUntil([&] { return isAnyThreadHeldByTheSystem(backend.pid()); }, "the disk to be waited for");
    EXPECT_TRUE(backend.isRunning());
    EXPECT_TRUE(visibleNamesIn(data("outbound")).empty());
    disk_.thaw();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    std::vector<std::string> texts;
    for (const auto& name : visibleNamesIn(data("outbound")))
        texts.push_back(readJsonFile(data("outbound") / name).at("text"));
    EXPECT_THAT(texts, ElementsAre("1", "2", "3"));
    EXPECT_EQ(backend.standardError(), "");
}

class WebWorkerFrozenDisk : public WebWorkerTest {
  protected:
    void SetUp() override {
        WebWorkerTest::SetUp();
        if (!IsSkipped() && !disk_.isMounted()) GTEST_SKIP() << freezing_needs_root;
    }

    FreezableDisk disk_;
};

TEST_F(WebWorkerFrozenDisk, IsWaitedForAndCostsNoMessage) {
    DrivenPage page("client.chats(['Team Room'])");
    auto options = WebWorkerOptions().withUrl(page.url());
    fs::create_directory_symlink(disk_.directory(), options.dataDirectory());
    WebWorkerProcess worker(options);
    worker.watchUntilOpen("Team Room");
    disk_.freeze();
    waitUntil([&] { return isAnyThreadHeldByTheSystem(worker.pid()); }, "the disk to be waited for");
    page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'first' })");
    page.run("client.receive('Team Room', { id: 'm2', sender: 'Ann', text: 'second' })");
    disk_.thaw();
    EXPECT_THAT(worker.waitForTexts(2), ElementsAre("first", "second"));
    EXPECT_EQ(page.loads(), 1U);
}

}  // namespace
}  // namespace brindle::test

#include "system/InotifyWatch.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/LoweredLimit.h"
#include "support/TemporaryDirectory.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

class InotifyWatchTests : public testing::Test {
  protected:
    InotifyWatchTests() { fs::create_directory(directory_); }

    void moveIn(const std::string& name) const {
        std::ofstream(home_.path() / "outside") << "x";
        fs::rename(home_.path() / "outside", directory_ / name);
    }

    test::TemporaryDirectory home_;
    fs::path directory_ = home_.path() / "directory";
    InotifyWatch watch_;
};

TEST_F(InotifyWatchTests, TellsWhatIsMovedIn) {
    EXPECT_TRUE(watch_.follow(directory_));
    EXPECT_THAT(watch_.takeNews().names, IsEmpty());
    moveIn("a.json");
    const auto news = watch_.takeNews();
    EXPECT_THAT(news.names, ElementsAre("a.json"));
    EXPECT_FALSE(news.isCutOff);
    EXPECT_THAT(watch_.takeNews().names, IsEmpty());
}

TEST_F(InotifyWatchTests, WhatIsHalfWrittenIsNoNewsUntilItIsClosed) {
    watch_.follow(directory_);
    std::ofstream file(directory_ / "a.json");
    file << "half" << std::flush;
    EXPECT_THAT(watch_.takeNews().names, IsEmpty());
    file.close();
    EXPECT_THAT(watch_.takeNews().names, ElementsAre("a.json"));
}

TEST_F(InotifyWatchTests, WhatGoesIsNoNews) {
    moveIn("a.json");
    moveIn("b.json");
    watch_.follow(directory_);
    fs::remove(directory_ / "a.json");
    fs::rename(directory_ / "b.json", home_.path() / "b.json");
    EXPECT_THAT(watch_.takeNews().names, IsEmpty());
}

TEST_F(InotifyWatchTests, FollowsTheDirectoryThatIsAtThePath) {
    EXPECT_TRUE(watch_.follow(directory_));
    EXPECT_FALSE(watch_.follow(directory_)) << "the same";
    fs::rename(directory_, home_.path() / "old");
    fs::create_directory(directory_);
    EXPECT_TRUE(watch_.follow(directory_));
    watch_.takeNews();
    std::ofstream(home_.path() / "old" / "a.json") << "x";
    moveIn("b.json");
    EXPECT_THAT(watch_.takeNews().names, ElementsAre("b.json"));
    fs::remove_all(directory_);
    fs::create_directory(directory_);
    EXPECT_TRUE(watch_.follow(directory_));
    watch_.takeNews();
    moveIn("c.json");
    EXPECT_THAT(watch_.takeNews().names, ElementsAre("c.json"));
}

TEST_F(InotifyWatchTests, FollowsNothingThatIsNoDirectory) {
    std::ofstream(home_.path() / "file") << "x";
    for (const auto& [name, code] : {std::pair("file", ENOTDIR), {"missing", ENOENT}}) {
        try {
            watch_.follow(home_.path() / name);
            ADD_FAILURE() << name;
        } catch (const FileSystemFailure& failure) {
            EXPECT_EQ(failure.code(), code) << name;
        }
    }
}

TEST_F(InotifyWatchTests, TellsThatNewsIsCutOff) {
    watch_.follow(directory_);
    int most = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most;
    ASSERT_GT(most, 0);
    // Two names in turn: what is said twice in a row is told once.
    moveIn("a");
    for (int i = 0; i <= most; ++i) {
        fs::rename(directory_ / (i % 2 == 0 ? "a" : "b"), directory_ / (i % 2 == 0 ? "b" : "a"));
    }
    const auto news = watch_.takeNews();
    EXPECT_TRUE(news.isCutOff);
    EXPECT_LE(news.names.size(), static_cast<std::size_t>(most));
    EXPECT_FALSE(watch_.takeNews().isCutOff);
}

TEST(InotifyWatchLimitTests, WantOfDescriptorsIsAFailure) {
    const test::LoweredLimit limit(RLIMIT_NOFILE, 0);
    try {
        const InotifyWatch watch;
        FAIL() << "a watch needs a descriptor";
    } catch (const FileSystemFailure& failure) {
        EXPECT_EQ(failure.code(), EMFILE);
    }
}

}  // namespace
}  // namespace brindle

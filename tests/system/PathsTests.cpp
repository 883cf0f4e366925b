#include "system/Paths.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "support/TemporaryDirectory.h"

namespace brindle {
namespace {

/// Moves this process to another working directory for as long as it lives.
class WorkingDirectory {
  public:
    explicit WorkingDirectory(const std::filesystem::path& path)
        : original_(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;
    ~WorkingDirectory() { std::filesystem::current_path(original_); }

  private:
    std::filesystem::path original_;
};

TEST(StandardizedPathTests, ResolvesDotsAndSlashesInTheText) {
    for (const auto& [path, expected] : {
             std::pair("/", "/"),
             std::pair("//", "/"),
             std::pair("///", "/"),
             std::pair("/a", "/a"),
             std::pair("//a", "/a"),
             std::pair("///a//b", "/a/b"),
             std::pair("/a/", "/a"),
             std::pair("/a///", "/a"),
             std::pair("/a/.", "/a"),
             std::pair("/a/./b", "/a/b"),
             std::pair("/a/..", "/"),
             std::pair("/a/../b", "/b"),
             std::pair("/x/y/../z", "/x/z"),
             std::pair("/..", "/"),
             std::pair("/../../a", "/a"),
             std::pair("/a/b/../../c/./", "/c"),
             std::pair("/a/...", "/a/..."),
             std::pair("/a/.b", "/a/.b"),
             std::pair("/a b/\nc", "/a b/\nc"),
             std::pair("/é/\xFF", "/é/\xFF"),
         }) {
        EXPECT_EQ(standardizedPath(path), expected) << path;
    }
}

TEST(StandardizedPathTests, TakesRelativePathAgainstTheWorkingDirectory) {
    const test::TemporaryDirectory directory;
    const WorkingDirectory moved(directory.path());
    const auto here = std::filesystem::current_path().string();
    const auto above = std::filesystem::path(here).parent_path().string();
    EXPECT_EQ(standardizedPath("a"), here + "/a");
    EXPECT_EQ(standardizedPath("./a/"), here + "/a");
    EXPECT_EQ(standardizedPath("a/../b"), here + "/b");
    EXPECT_EQ(standardizedPath(".."), above);
    EXPECT_EQ(standardizedPath("."), here);
    EXPECT_EQ(standardizedPath(""), here);
}

TEST(StandardizedPathTests, LeavesLinksAlone) {
    const test::TemporaryDirectory directory;
    const auto link = (directory.path() / "link").string();
    std::filesystem::create_directory_symlink("/", link);
    EXPECT_EQ(standardizedPath(link + "/a/.."), link);
    EXPECT_EQ(standardizedPath(link + "/.."), directory.path().string());
}

TEST(StandardizedPathTests, TakesRootWhenTheWorkingDirectoryIsGone) {
    test::TemporaryDirectory directory;
    const auto gone = directory.path() / "gone";
    std::filesystem::create_directory(gone);
    const WorkingDirectory moved(gone);
    std::filesystem::remove(gone);
    EXPECT_EQ(standardizedPath("a"), "/a");
}

TEST(PathTests, JoinsWithOneSlash) {
    EXPECT_EQ(joinedPath("/a", "b"), "/a/b");
    EXPECT_EQ(joinedPath("/a/", "b"), "/a/b");
    EXPECT_EQ(joinedPath("/", "b"), "/b");
}

TEST(PathTests, LastComponentFollowsTheLastSlash) {
    EXPECT_EQ(lastPathComponent("/a/b.json"), "b.json");
    EXPECT_EQ(lastPathComponent("b.json"), "b.json");
    EXPECT_EQ(lastPathComponent("/a/"), "");
}

TEST(MainBundleTests, KnowsTheRunningExecutable) {
    const auto bundle = MainBundle::current();
    ASSERT_TRUE(bundle.executablePath.has_value());
    EXPECT_EQ(*bundle.executablePath, std::filesystem::read_symlink("/proc/self/exe").string());
    EXPECT_FALSE(bundle.firstArgument.empty());
}

TEST(MainBundleTests, ResourcesStandBesideTheExecutableIfAnywhere) {
    const auto resources = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "Resources";
    EXPECT_EQ(MainBundle::current().resourceDirectory, std::nullopt);
    std::filesystem::create_directory(resources);
    const auto found = MainBundle::current().resourceDirectory;
    std::filesystem::remove(resources);
    EXPECT_EQ(found, resources.string());
}

}  // namespace
}  // namespace brindle

#include "system/PathSteps.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/TemporaryDirectory.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

class PathStepsTests : public testing::Test {
  protected:
    PathStepsTests() : home_(fs::canonical(place_.path())) {
        fs::create_directories(home_ / "a/b");
        test::writeFileAtomically(home_ / "a/b/file", "");
    }

    std::string at(const std::string& name) const { return home_ / name; }
    void link(const std::string& name, const fs::path& target) const {
        fs::create_symlink(target, home_ / name);
    }
    /// The steps below the test's directory, by their names there.
    std::vector<std::string> stepsFrom(const std::string& path, const std::string& start) {
        std::vector<std::string> names;
        for (const auto& step : stepsAlong(path, files_, start)) {
            if (step.path.starts_with(at(""))) names.push_back(step.path.substr(at("").size()));
        }
        return names;
    }
    std::vector<std::string> stepsTo(const std::string& name) { return stepsFrom(at(name), "/"); }

    test::TemporaryDirectory place_;
    fs::path home_;
    PosixFileManager files_;
};

TEST_F(PathStepsTests, BeginAtTheRoot) {
    EXPECT_EQ(stepsAlong("/", files_).size(), 1U);
    EXPECT_EQ(stepsAlong(at("a"), files_).front().path, "/");
}

TEST_F(PathStepsTests, AreTheFoldersAndWhatThePathNames) {
    EXPECT_THAT(stepsTo("a/b/file"), ElementsAre("a", "a/b", "a/b/file"));
    EXPECT_THAT(stepsTo("a//./b/"), ElementsAre("a", "a", "a/b"));
}

TEST_F(PathStepsTests, EndBeforeWhatDoesNotExist) {
    EXPECT_THAT(stepsTo("a/missing/b"), ElementsAre("a"));
    EXPECT_THAT(stepsTo("a/b/file/below"), ElementsAre("a", "a/b", "a/b/file"));
}

TEST_F(PathStepsTests, OfARelativePathBeginAtItsStart) {
    const auto steps = stepsAlong("b/file", files_, at("a"));
    ASSERT_EQ(steps.size(), 3U);
    EXPECT_EQ(steps.front().path, at("a"));
    EXPECT_THAT(stepsFrom("b/file", at("a")), ElementsAre("a", "a/b", "a/b/file"));
}

TEST_F(PathStepsTests, FollowLinksAndNameThem) {
    link("relative", "a/b");
    link("absolute", home_ / "a");
    link("a/up", "../relative");
    EXPECT_THAT(stepsTo("relative/file"), ElementsAre("relative", "a", "a/b", "a/b/file"));
    EXPECT_THAT(stepsTo("absolute/b"), ElementsAre("absolute", "a", "a/b"));
    EXPECT_THAT(stepsTo("a/up/file"), ElementsAre("a", "a/up", "relative", "a", "a/b", "a/b/file"));
}

TEST_F(PathStepsTests, OfALinkFromAStartGoOnAtTheRoot) {
    link("a/absolute", home_ / "a/b");
    EXPECT_THAT(stepsFrom("absolute", at("a")), ElementsAre("a", "a/absolute", "a", "a/b"));
    EXPECT_EQ(stepsAlong("absolute", files_, at("a")).at(2).path, "/");
}

TEST_F(PathStepsTests, EndAtALinkThatLeadsNowhere) {
    link("dangling", "a/missing");
    EXPECT_THAT(stepsTo("dangling"), ElementsAre("dangling", "a"));
}

TEST_F(PathStepsTests, OfLinksThatLeadInACircleAreAFailure) {
    link("one", "two");
    link("two", "one");
    try {
        stepsTo("one");
        ADD_FAILURE() << "no failure";
    } catch (const FileSystemFailure& failure) {
        EXPECT_EQ(failure.code(), ELOOP);
    }
}

const uid_t me = ::geteuid();
const uid_t stranger = me + 1;
const gid_t my_group = ::getegid();
const gid_t other_group = my_group + 1;

FileAttributes folder(uid_t owner, mode_t mode, gid_t group = other_group) {
    FileAttributes attributes;
    attributes.owner = owner;
    attributes.group = group;
    attributes.permissions = mode;
    attributes.isDirectory = true;
    return attributes;
}
FileAttributes file(uid_t owner, mode_t mode) {
    auto attributes = folder(owner, mode);
    attributes.isDirectory = false;
    attributes.isRegularFile = true;
    return attributes;
}
FileAttributes symbolicLink(uid_t owner) {
    auto attributes = folder(owner, 0777);
    attributes.isDirectory = false;
    attributes.isSymbolicLink = true;
    return attributes;
}
/// Whether the last of the steps is somebody else's.
bool isOfOthers(const FileAttributes& attributes, PrimaryGroup group = PrimaryGroup::isTrusted) {
    PosixFileManager files;
    return firstStepOfOthers(
               {{.path = "/", .attributes = folder(0, 0755)}, {.path = "/x", .attributes = attributes}},
               group, files) == "/x";
}

TEST(StepOfOthersTests, IsWhatAnotherUserOwns) {
    EXPECT_FALSE(isOfOthers(folder(me, 0700)));
    EXPECT_FALSE(isOfOthers(folder(0, 0755)));
    EXPECT_TRUE(isOfOthers(folder(stranger, 0700)));
    EXPECT_TRUE(isOfOthers(folder(stranger, 01777)));
    EXPECT_FALSE(isOfOthers(symbolicLink(me)));
    EXPECT_TRUE(isOfOthers(symbolicLink(stranger)));
    EXPECT_TRUE(isOfOthers(file(stranger, 0755)));
}

TEST(StepOfOthersTests, IsWhatEverybodyMayWriteTo) {
    EXPECT_TRUE(isOfOthers(folder(me, 0777)));
    EXPECT_TRUE(isOfOthers(folder(0, 0702)));
    EXPECT_TRUE(isOfOthers(file(me, 0757)));
    EXPECT_FALSE(isOfOthers(file(me, 0755)));
}

TEST(StepOfOthersTests, IsNotAFolderInWhichOnlyOwnersReplaceWhatIsTheirs) {
    EXPECT_FALSE(isOfOthers(folder(0, 01777)));
    EXPECT_FALSE(isOfOthers(folder(me, 01777)));
    // On a file the bit means nothing.
    EXPECT_TRUE(isOfOthers(file(me, 01777)));
}

TEST(StepOfOthersTests, IsWhatAGroupMayWriteToUnlessItIsTheTrustedOne) {
    EXPECT_TRUE(isOfOthers(folder(me, 0770, other_group)));
    EXPECT_FALSE(isOfOthers(folder(me, 0770, my_group)));
    EXPECT_TRUE(isOfOthers(folder(me, 0770, my_group), PrimaryGroup::isNotTrusted));
    EXPECT_FALSE(isOfOthers(folder(me, 01770, other_group)));
}

/// The real file system, whose root directory belongs to a stranger.
class RootByAnotherNumber final : public test::ForwardingFileManager {
  public:
    using ForwardingFileManager::ForwardingFileManager;
    std::optional<FileAttributes> attributes(const std::string& path) override {
        return path == "/" ? folder(stranger, 0755) : ForwardingFileManager::attributes(path);
    }
};

TEST(StepOfOthersTests, IsNotWhatTheOwnerOfTheRootDirectoryOwns) {
    PosixFileManager real;
    RootByAnotherNumber files(real);
    const std::vector<PathStep> steps{{.path = "/", .attributes = folder(stranger, 0755)},
                                      {.path = "/a", .attributes = folder(stranger + 1, 0755)}};
    EXPECT_EQ(firstStepOfOthers(steps, PrimaryGroup::isTrusted, files), "/a");
}

TEST(StepOfOthersTests, FirstOneIsNamed) {
    const std::vector<PathStep> steps{{.path = "/", .attributes = folder(0, 0755)},
                                      {.path = "/a", .attributes = folder(stranger, 0755)},
                                      {.path = "/a/b", .attributes = folder(stranger, 0755)}};
    PosixFileManager files;
    EXPECT_EQ(firstStepOfOthers(steps, PrimaryGroup::isTrusted, files), "/a");
    EXPECT_EQ(firstStepOfOthers({steps.front()}, PrimaryGroup::isTrusted, files), std::nullopt);
}

}  // namespace
}  // namespace brindle

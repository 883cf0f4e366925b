#include "worker/WebsiteDataFolders.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/FaultInjectingFileManager.h"
#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/TemporaryDirectory.h"
#include "text/Failure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;

/// The real file system, on which one path belongs to another user.
class ForeignPath final : public test::ForwardingFileManager {
  public:
    explicit ForeignPath(std::string path) : ForwardingFileManager(real_), path_(std::move(path)) {}

    std::optional<FileAttributes> attributes(const std::string& path) override {
        auto found = ForwardingFileManager::attributes(path);
        if (found && path == path_) found->owner = ::geteuid() + 1;
        return found;
    }

  private:
    PosixFileManager real_;
    std::string path_;
};

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

class WebsiteDataFoldersTests : public testing::Test {
  protected:
    std::string at(const std::string& name) const { return (place_.path() / name).string(); }
    std::string make(const std::string& name, mode_t mode) const {
        fs::create_directories(at(name));
        EXPECT_EQ(::chmod(at(name).c_str(), mode), 0);
        return at(name);
    }
    Environment named() const {
        return {{"HOME", at("home")}, {"XDG_DATA_HOME", at("data")}, {"XDG_CACHE_HOME", at("cache")}};
    }
    /// The sentence with which the folder for data is refused.
    std::string refusal(FileManager& fileManager) const {
        try {
            makeWebsiteDataFolders("App", named(), fileManager);
        } catch (const Failure& failure) {
            return failure.what();
        }
        return "accepted";
    }
    std::string refusal() { return refusal(files_); }

    test::TemporaryDirectory place_;
    PosixFileManager files_;
};

TEST_F(WebsiteDataFoldersTests, LieBelowTheBaseDirectoriesThatAreNamedAndArePrivate) {
    const auto folders = makeWebsiteDataFolders("App", named(), files_);
    EXPECT_EQ(folders.data, at("data/App"));
    EXPECT_EQ(folders.cache, at("cache/App"));
    for (const auto& folder : {folders.data, folders.cache}) EXPECT_EQ(modeOf(folder), 0700U);
}

TEST_F(WebsiteDataFoldersTests, LieInTheHomeDirectoryWhereNoUsableBaseIsNamed) {
    const auto folders =
        makeWebsiteDataFolders("App", {{"HOME", at("home")}, {"XDG_DATA_HOME", "relative"}}, files_);
    EXPECT_EQ(folders.data, at("home/.local/share/App"));
    EXPECT_EQ(folders.cache, at("home/.cache/App"));
}

TEST_F(WebsiteDataFoldersTests, KeepWhatIsInThem) {
    makeWebsiteDataFolders("App", named(), files_);
    test::writeFileAtomically(at("data/App/cookies.sqlite"), "login");
    makeWebsiteDataFolders("App", named(), files_);
    EXPECT_EQ(test::readFile(at("data/App/cookies.sqlite")), "login");
}

TEST_F(WebsiteDataFoldersTests, LooseOnesArePutRight) {
    for (const mode_t mode : {0777U, 0755U, 0500U, 02700U}) {
        make("data/App", mode);
        EXPECT_EQ(refusal(), "accepted");
        EXPECT_EQ(modeOf(at("data/App")), 0700U);
    }
}

TEST_F(WebsiteDataFoldersTests, LooseOneIsRefusedForWhatAnotherUserHasLeftDeepInside) {
    make("data/App/storage/salt", 0700);
    make("data/App", 0777);
    ForeignPath files(at("data/App/storage/salt"));
    EXPECT_THAT(refusal(files), HasSubstr("\"storage/salt\" in it belongs to another user"));
}

TEST_F(WebsiteDataFoldersTests, OneOfAnotherUserIsRefused) {
    make("data/App", 0700);
    ForeignPath files(at("data/App"));
    EXPECT_EQ(refusal(files), "The built-in web worker cannot keep website data in \"" + at("data/App") +
                                  "\" (it belongs to another user); let XDG_DATA_HOME name a directory that "
                                  "this user can write to.");
}

TEST_F(WebsiteDataFoldersTests, LinkIsRefused) {
    make("elsewhere", 0700);
    make("data", 0700);
    fs::create_directory_symlink(at("elsewhere"), at("data/App"));
    EXPECT_THAT(refusal(), HasSubstr("(it is a link)"));
}

TEST_F(WebsiteDataFoldersTests, BaseOfAnotherUserIsRefused) {
    make("data", 0755);
    ForeignPath files(at("data"));
    EXPECT_THAT(refusal(files), HasSubstr("(others may replace what lies in \"" + at("data") + "\")"));
}

TEST_F(WebsiteDataFoldersTests, BaseInWhichOthersMayReplaceWhatFollowsIsRefused) {
    make("data", 0777);
    EXPECT_THAT(refusal(), HasSubstr("(others may replace what lies in \"" + at("data") + "\")"));
    make("data", 01777);
    EXPECT_EQ(refusal(), "accepted");
}

TEST_F(WebsiteDataFoldersTests, FileInTheWayIsRefused) {
    make("data", 0700);
    test::writeFileAtomically(at("data/App"), "");
    EXPECT_THAT(refusal(), HasSubstr("(File exists)"));
}

TEST_F(WebsiteDataFoldersTests, EveryFailureOfTheFileSystemIsASentenceThatSaysWhatToDo) {
    test::FaultInjectingFileManager files;
    for (int operation = 1;; ++operation) {
        make("data/App/storage", 0700);
        make("data/App", 0755);
        files.set({.operation = operation, .code = EIO});
        const auto sentence = refusal(files);
        if (!files.wasMet()) {
            EXPECT_EQ(sentence, "accepted");
            EXPECT_GT(operation, 10);
            break;
        }
        EXPECT_THAT(sentence, AllOf(HasSubstr("cannot keep website data in"),
                                    HasSubstr("(Input/output error); let XDG_"),
                                    EndsWith("name a directory that this user can write to.")))
            << operation;
    }
}

}  // namespace
}  // namespace brindle

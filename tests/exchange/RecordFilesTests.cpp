#include "exchange/RecordFiles.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/FaultInjectingFileManager.h"
#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/TemporaryDirectory.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using test::namesIn;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::size_t uuid_characters = 36;

class RecordFilesTests : public testing::Test {
  protected:
    RecordFilesTests() {
        files_.createDirectory(from_);
        files_.createDirectory(to_);
        test::writeFileAtomically(from_ + "/a.json", "new");
    }

    std::string fileAway(const std::string& name) {
        return moveRecordFile(*files_.openDirectory(from_), name, to_);
    }

    test::TemporaryDirectory home_;
    std::string from_ = (home_.path() / "from").string();
    std::string to_ = (home_.path() / "to").string();
    test::FaultInjectingFileManager files_;
};

TEST_F(RecordFilesTests, ExtensionIsMatchedExactly) {
    EXPECT_TRUE(isRecordFileName("a.json"));
    EXPECT_FALSE(isRecordFileName("a.JSON"));
    EXPECT_FALSE(isRecordFileName("a.json.part"));
    EXPECT_FALSE(isRecordFileName("ajson"));
}

DirectoryListing listingOf(const std::vector<std::string>& names, bool isSnapshot) {
    DirectoryListing listing{.visibleEntries = {}, .isSnapshot = isSnapshot};
    for (const auto& name : names)
        listing.visibleEntries.push_back({.name = name, .inode = 0, .isRegularFile = true});
    return listing;
}

/// Shows one listing after the other.
class ListedDirectory final : public test::ForwardingDirectory {
  public:
    explicit ListedDirectory(std::vector<DirectoryListing> listings)
        : ForwardingDirectory(PosixFileManager().openDirectory("/")), listings_(std::move(listings)) {}

    DirectoryListing list() override { return listings_.at(listed_++); }
    std::size_t listed() const { return listed_; }

  private:
    std::vector<DirectoryListing> listings_;
    std::size_t listed_ = 0;
};

std::vector<std::string> waitingNames(Directory& directory) {
    std::vector<std::string> names;
    for (const auto& record : waitingRecords(directory)) names.push_back(record.name);
    return names;
}

TEST(WaitingRecordsTests, AreTheRecordsInOrderOfTheirNames) {
    ListedDirectory directory(
        {listingOf({"b.json", "note.txt", "a.json", "B.json", "10.json", "9.json"}, true)});
    EXPECT_THAT(waitingNames(directory), ElementsAre("10.json", "9.json", "B.json", "a.json", "b.json"));
    EXPECT_EQ(directory.listed(), 1U);
}

TEST(WaitingRecordsTests, ListingInPortionsIsRepeatedUpToItsGreatestName) {
    ListedDirectory directory(
        {listingOf({"a.json", "d.json", "z.txt"}, false),
         listingOf({"f.json", "d.json", "e.json", "b.json", "c.json", "a.json"}, false)});
    EXPECT_THAT(waitingNames(directory), ElementsAre("a.json", "b.json", "c.json", "d.json"));
    EXPECT_EQ(directory.listed(), 2U);
}

TEST(WaitingRecordsTests, NoneAmongManyOtherFilesAreNone) {
    ListedDirectory directory({listingOf({"z.txt"}, false)});
    EXPECT_THAT(waitingNames(directory), IsEmpty());
}

TEST(WaitingRecordsTests, NoLaterOneIsShownWithoutAnEarlierOneWhileOthersArrive) {
    // Enough for a listing of several portions from the beginning.
    constexpr int waiting = 1500;
    constexpr int altogether = 2500;
    constexpr int least_digits = 100'000;
    const test::TemporaryDirectory home;
    const auto name = [](int index) { return std::to_string(least_digits + index) + ".json"; };
    std::atomic<int> written = 0;
    const auto writeUpTo = [&](int count) {
        // Only the name counts, so a link, which is faster to make than a file.
        for (; written < count; ++written) fs::create_symlink("nowhere", home.path() / name(written));
    };
    writeUpTo(waiting);
    std::thread writer([&] { writeUpTo(altogether); });
    PosixFileManager files;
    std::vector<std::string> shown;
    std::size_t incomplete = 0;
    for (int due = waiting; due <= altogether; ++due) {
        // Whoever lists all the time keeps the writer from writing.
        while (written < due) std::this_thread::yield();
        shown = waitingNames(*files.openDirectory(home.path()));
        for (std::size_t i = 0; i < shown.size(); ++i) {
            if (shown[i] != name(static_cast<int>(i))) {
                ++incomplete;
                break;
            }
        }
    }
    writer.join();
    EXPECT_EQ(incomplete, 0U);
    EXPECT_EQ(shown.size(), static_cast<std::size_t>(altogether));
}

TEST_F(RecordFilesTests, RecordIsMovedUnderItsOwnName) {
    fileAway("a.json");
    EXPECT_TRUE(fs::is_empty(from_));
    EXPECT_EQ(files_.readFile(to_ + "/a.json"), "new");
}

TEST_F(RecordFilesTests, RecordIsMovedOutOfTheDirectoryThatIsOpenWhereverItsPathLeads) {
    const auto open = files_.openDirectory(from_);
    fs::rename(from_, from_ + "-old");
    fs::create_directory(from_);
    files_.writeFileAtomically(from_ + "/a.json", "another", Durability::process);
    moveRecordFile(*open, "a.json", to_);
    EXPECT_EQ(files_.readFile(from_ + "/a.json"), "another");
    EXPECT_EQ(files_.readFile(to_ + "/a.json"), "new");
}

TEST_F(RecordFilesTests, RecordWhoseNameIsTakenGetsAFreshOne) {
    test::writeFileAtomically(to_ + "/a.json", "old");
    const auto fresh = fileAway("a.json");
    EXPECT_TRUE(fs::is_empty(from_));
    EXPECT_EQ(files_.readFile(to_ + "/a.json"), "old");
    EXPECT_TRUE(fresh.ends_with("-a.json")) << fresh;
    EXPECT_EQ(fresh.size(), uuid_characters + std::string("-a.json").size()) << fresh;
    EXPECT_EQ(files_.readFile(to_ + "/" + fresh), "new");
}

TEST_F(RecordFilesTests, RecordOfTheLongestNameIsFiledAwayThoughThatIsTaken) {
    const std::string name = std::string(NAME_MAX - record_file_extension.size() - 1, 'a') + "b.json";
    for (const auto& directory : {from_, to_})
        files_.writeFileAtomically(directory + "/" + name, directory, Durability::process);
    const auto filedAs = fileAway(name);
    EXPECT_EQ(filedAs.size(), name.size());
    EXPECT_EQ(filedAs.at(uuid_characters), '-');
    EXPECT_TRUE(filedAs.ends_with("aab.json")) << filedAs;
    EXPECT_EQ(files_.readFile(to_ + "/" + filedAs), from_);
    EXPECT_EQ(files_.readFile(to_ + "/" + name), to_);
}

TEST_F(RecordFilesTests, RecordIsPutBackUnderItsName) {
    const auto filedAs = fileAway("a.json");
    EXPECT_EQ(filedAs, "a.json");
    putRecordFileBack(files_, to_ + "/" + filedAs, from_, "a.json");
    EXPECT_EQ(files_.readFile(from_ + "/a.json"), "new");
    EXPECT_TRUE(fs::is_empty(to_));
}

TEST_F(RecordFilesTests, RecordThatIsPutBackComesBeforeTheOneThatHasItsNameNow) {
    const auto filedAs = fileAway("a.json");
    test::writeFileAtomically(from_ + "/a.json", "newer");
    test::writeFileAtomically(from_ + "/Z.json", "earlier name");
    putRecordFileBack(files_, to_ + "/" + filedAs, from_, "a.json");
    const auto found = namesIn(from_);
    const std::vector<std::string> names(found.begin(), found.end());
    ASSERT_EQ(names.size(), 3U);
    EXPECT_EQ(names[0], "Z.json");
    EXPECT_TRUE(names[1].starts_with("a-") && names[1].ends_with(".json")) << names[1];
    EXPECT_EQ(files_.readFile(from_ + "/" + names[1]), "new");
    EXPECT_EQ(names[2], "a.json");
}

TEST_F(RecordFilesTests, RecordOfTheLongestNameIsPutBackThoughThatIsTaken) {
    const std::string name = std::string(NAME_MAX - record_file_extension.size(), 'a').append(".json");
    test::writeFileAtomically(to_ + "/filed.json", "older");
    files_.writeFileAtomically(from_ + "/" + name, "newer", Durability::process);
    putRecordFileBack(files_, to_ + "/filed.json", from_, name);
    const auto names = namesIn(from_);
    ASSERT_THAT(names, ElementsAre("a.json", SizeIs(name.size()), name));
    EXPECT_EQ(files_.readFile(from_ + "/" + names[1]), "older");
}

TEST_F(RecordFilesTests, OtherFailuresLeaveTheRecordWhereItIs) {
    files_.set({.operation = 1, .code = EACCES, .action = "move"});
    EXPECT_THROW(fileAway("a.json"), FileSystemFailure);
    EXPECT_TRUE(files_.wasMet());
    EXPECT_TRUE(fs::exists(from_ + "/a.json"));
    EXPECT_TRUE(fs::is_empty(to_));
}

}  // namespace
}  // namespace brindle

#include "exchange/RecordFiles.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/FaultInjectingFileManager.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using test::namesIn;

constexpr std::size_t uuid_characters = 36;

class RecordFilesTests : public testing::Test {
  protected:
    RecordFilesTests() {
        files_.createDirectory(from_);
        files_.createDirectory(to_);
        test::writeFileAtomically(from_ + "/a.json", "new");
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

TEST_F(RecordFilesTests, RecordIsMovedUnderItsOwnName) {
    moveRecordFile(files_, "a.json", from_, to_);
    EXPECT_TRUE(fs::is_empty(from_));
    EXPECT_EQ(files_.readFile(to_ + "/a.json"), "new");
}

TEST_F(RecordFilesTests, RecordWhoseNameIsTakenGetsAFreshOne) {
    test::writeFileAtomically(to_ + "/a.json", "old");
    moveRecordFile(files_, "a.json", from_, to_);
    EXPECT_TRUE(fs::is_empty(from_));
    EXPECT_EQ(files_.readFile(to_ + "/a.json"), "old");
    fs::remove(to_ + "/a.json");
    const auto names = namesIn(to_);
    ASSERT_EQ(names.size(), 1U);
    const std::string& fresh = *names.begin();
    EXPECT_TRUE(fresh.ends_with("-a.json")) << fresh;
    EXPECT_EQ(fresh.size(), uuid_characters + std::string("-a.json").size()) << fresh;
    EXPECT_EQ(files_.readFile(to_ + "/" + fresh), "new");
}

TEST_F(RecordFilesTests, RecordIsPutBackUnderItsName) {
    const auto filedAs = moveRecordFile(files_, "a.json", from_, to_);
    EXPECT_EQ(filedAs, "a.json");
    putRecordFileBack(files_, to_ + "/" + filedAs, from_, "a.json");
    EXPECT_EQ(files_.readFile(from_ + "/a.json"), "new");
    EXPECT_TRUE(fs::is_empty(to_));
}

TEST_F(RecordFilesTests, RecordThatIsPutBackComesBeforeTheOneThatHasItsNameNow) {
    const auto filedAs = moveRecordFile(files_, "a.json", from_, to_);
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

TEST_F(RecordFilesTests, OtherFailuresLeaveTheRecordWhereItIs) {
    files_.set({.operation = 1, .code = EACCES});
    EXPECT_THROW(moveRecordFile(files_, "a.json", from_, to_), FileSystemFailure);
    EXPECT_TRUE(fs::exists(from_ + "/a.json"));
    EXPECT_TRUE(fs::is_empty(to_));
}

}  // namespace
}  // namespace brindle

#include "console/Completion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"

namespace brindle::console {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class CompletionTest : public testing::Test {
  protected:
    Completion completed(std::string_view line) {
        return completedCommand(
            line, {.seen = seen_, .fileManager = files_, .recordFolders = {directory_.path().string()}});
    }

    std::vector<std::string> candidates(std::string_view line) { return completed(line).candidates; }

    test::TemporaryDirectory directory_;
    PosixFileManager files_;
    SeenNames seen_;
};

TEST_F(CompletionTest, OffersCommands) {
    EXPECT_THAT(candidates("s"), ElementsAre("send", "status", "stop"));
    EXPECT_THAT(candidates(""), Contains("connect"));
    EXPECT_THAT(candidates("exi"), ElementsAre("exit"));
    EXPECT_THAT(candidates("bogus x"), IsEmpty());
}

TEST_F(CompletionTest, OffersTheWordsOfACommand) {
    EXPECT_THAT(candidates("listen "), ElementsAre("channel", "conversation", "test", "thread"));
    EXPECT_THAT(candidates("qr u"), ElementsAre("until"));
    EXPECT_THAT(candidates("send room hi --"), ElementsAre("--attach", "--reply"));
}

TEST_F(CompletionTest, OffersNamesOfEnvelopesAndFields) {
    EXPECT_THAT(candidates("expect in"), ElementsAre("inboundEvent"));
    EXPECT_THAT(candidates("expect conn"), IsEmpty());
    EXPECT_THAT(candidates("expect stateChanged.c"),
                ElementsAre("stateChanged.connected", "stateChanged.connecting"));
    EXPECT_THAT(candidates("wait-status workerSt"), ElementsAre("workerState"));
    EXPECT_THAT(candidates("wait-status workerState wa"), ElementsAre("waiting_for_qr", "watching_chat"));
}

TEST_F(CompletionTest, OffersFilesAndMarksDirectories) {
    test::writeFileAtomically(directory_.path() / "a note.txt", "");
    std::filesystem::create_directory(directory_.path() / "album");
    const auto base = directory_.path().string();
    EXPECT_THAT(candidates("send room hi --attach " + base + "/a"),
                ElementsAre("\"" + base + "/a note.txt\"", base + "/album/"));
    EXPECT_THAT(candidates("send room hi --attach /no/such/"), IsEmpty());
}

TEST_F(CompletionTest, OffersConversationsAndTitlesThatWereSeen) {
    seen_.addConversation("team-room");
    seen_.addTitle("Team Room");
    EXPECT_THAT(candidates("listen conversation "), ElementsAre("team-room"));
    EXPECT_THAT(candidates("listen conversation team-room T"), ElementsAre("\"Team Room\""));
    EXPECT_THAT(candidates("send "), ElementsAre("team-room"));
}

TEST_F(CompletionTest, GoesOnInsideOfAnOpenQuote) {
    seen_.addTitle("Team Room");
    const auto completion = completed("listen test \"Team R");
    EXPECT_THAT(completion.candidates, ElementsAre("\"Team Room\""));
    EXPECT_EQ(completion.begin, std::string_view("listen test ").size());
}

TEST_F(CompletionTest, OffersTheNamesOfRecords) {
    test::writeFileAtomically(directory_.path() / "m-1.json", "");
    EXPECT_THAT(candidates("inbox restore "), ElementsAre("m-1.json"));
    EXPECT_THAT(candidates("inbox "), ElementsAre("restore", "show"));
}

TEST_F(CompletionTest, OffersNoNameThatATerminalWouldObey) {
    seen_.addTitle("\033[2J");
    EXPECT_THAT(candidates("listen test "), IsEmpty());
}

TEST(SeenNames, AreBounded) {
    SeenNames seen;
    for (std::size_t i = 0; i < SeenNames::kept_names + 1; ++i) seen.addTitle(std::to_string(i));
    EXPECT_EQ(seen.titles().size(), SeenNames::kept_names);
}

TEST(Completion, KnowsWhatAllCandidatesBeginWith) {
    EXPECT_EQ((Completion{.begin = 0, .candidates = {"send", "select"}}).commonBeginning(), "se");
    EXPECT_EQ((Completion{.begin = 0, .candidates = {}}).commonBeginning(), "");
}

}  // namespace
}  // namespace brindle::console

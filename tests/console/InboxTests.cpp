#include "console/Inbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/TemporaryDirectory.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr std::string_view adas_record =
    R"({"conversationId":"c","conversationTitle":"Team Room","senderId":"s","senderDisplayName":"Ada","text":"On my way","isDirectMessage":true})";

/// A helper delivers: each file has just gone when somebody reads it.
class DeliveredFiles final : public test::ForwardingFileManager {
  public:
    using ForwardingFileManager::ForwardingFileManager;

    std::string readFile(const std::string& path) override {
        removeItem(path);
        return ForwardingFileManager::readFile(path);
    }
};

class InboxTest : public testing::Test {
  protected:
    InboxTest() { directory_.createForBackend(files_); }

    void write(const std::filesystem::path& relative, std::string_view content) const {
        test::writeFileAtomically(place_.path() / relative, content);
    }

    std::string refusalToRestore(const std::string& name) {
        try {
            inbox_.restore(inbox_.findRejected(name));
        } catch (const Failure& failure) {
            return failure.what();
        }
        return "(restored)";
    }

    test::TemporaryDirectory place_;
    PosixFileManager files_;
    DataDirectory directory_{
        {{"BRINDLE_MANAGED_BRIDGE_DATA_DIR", place_.path().string()}}, files_, "whatsapp"};
    Inbox inbox_{files_, directory_};
};

TEST_F(InboxTest, ListsWhatWaitsWhatWasProcessedAndWhatWasRejected) {
    write("inbound/a.json", adas_record);
    write("processed/b.json", adas_record);
    write("rejected/c.json", "{}");
    const auto text = inboxText(inbox_.list(), false);
    EXPECT_THAT(text, testing::ContainsRegex("inbound +a.json +Ada: On my way .Team Room.\n"));
    EXPECT_THAT(text, testing::ContainsRegex("processed +b.json +Ada: On my way"));
    EXPECT_THAT(text, testing::ContainsRegex(
                          "rejected +c.json +The data cannot be used because a required value is missing"));
}

TEST_F(InboxTest, PassesOverWhatIsDeliveredMeanwhile) {
    write("inbound/a.json", adas_record);
    DeliveredFiles files(files_);
    EXPECT_THAT(Inbox(files, directory_).list().records, IsEmpty());
}

TEST_F(InboxTest, SaysThatItIsEmpty) {
    EXPECT_THAT(inboxText(inbox_.list(), false), HasSubstr("No inbound records"));
    const DataDirectory none({{"BRINDLE_MANAGED_BRIDGE_DATA_DIR", "/no/such/place"}}, files_, "whatsapp");
    EXPECT_THAT(Inbox(files_, none).list().records, IsEmpty());
}

TEST_F(InboxTest, ShowsNamesEscapedAndShortened) {
    EXPECT_EQ(shownFileName("plain.json"), "plain.json");
    EXPECT_EQ(shownFileName("a\033[2J.json"), "a\\u001b[2J.json");
    EXPECT_LE(shownFileName(std::string(200, 'x') + ".json").size(), 60U);
    write("rejected/a\033[2J.json", adas_record);
    EXPECT_THAT(inboxText(inbox_.list(), false), Not(HasSubstr("\033")));
    EXPECT_EQ(inbox_.find("a\\u001b[2J.json").name, "a\033[2J.json");
}

TEST_F(InboxTest, KnowsWhichRecordIsMeant) {
    write("inbound/a.json", adas_record);
    EXPECT_EQ(inbox_.find("a.json").folder, "inbound");
    EXPECT_THROW(inbox_.find("b.json"), Failure);
    write("rejected/a.json", adas_record);
    EXPECT_THROW(inbox_.find("a.json"), Failure);
    EXPECT_EQ(inbox_.findRejected("a.json").folder, "rejected");
}

TEST_F(InboxTest, PutsARejectedRecordBack) {
    write("rejected/a.json", adas_record);
    EXPECT_EQ(refusalToRestore("a.json"), "(restored)");
    EXPECT_THAT(test::namesIn(directory_.inbound), ElementsAre("a.json"));
    EXPECT_THAT(test::namesIn(directory_.rejected), IsEmpty());
}

TEST_F(InboxTest, PutsARecordBackWithoutReplacingAnother) {
    write("rejected/a.json", adas_record);
    const auto record = inbox_.find("a.json");
    write("inbound/a.json", "another");
    inbox_.restore(record);
    const auto names = test::namesIn(directory_.inbound);
    ASSERT_EQ(names.size(), 2U);
    EXPECT_EQ(test::readFile(place_.path() / "inbound/a.json"), "another");
}

TEST_F(InboxTest, PutsBackOnlyWhatWasRejectedAndCanBeDecoded) {
    write("inbound/a.json", adas_record);
    write("rejected/b.json", "{}");
    EXPECT_THAT(refusalToRestore("a.json"), HasSubstr("was not rejected"));
    EXPECT_THAT(refusalToRestore("b.json"), HasSubstr("would be rejected again: The data cannot be used"));
    EXPECT_THAT(test::namesIn(directory_.rejected), ElementsAre("b.json"));
}

}  // namespace
}  // namespace brindle::console

#include "worker/WorkerControl.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/Files.h"
#include "support/Json.h"
#include "support/WantOfMemory.h"
#include "support/WorkerParts.h"

namespace brindle {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Fault = test::FaultInjectingFileManager::Fault;

class WorkerControlTests : public testing::Test {
  protected:
    void put(const test::Json& record) {
        test::writeFileAtomically(parts_.directory.workerControlFile, record.dump());
    }
    void putScope(const test::Json& scope) {
        put({{"platform", "whatsapp"}, {"activeScope", scope}, {"updatedAtISO8601", "2026-01-05T09:30:00Z"}});
    }
    void follow(const test::Json& scope) {
        putScope(scope);
        control_.refreshControl();
    }
    void watchFamily() {
        follow({{"kind", "conversation"}, {"id", "family-id"}, {"title", "Family"}});
        state_.lastSeenMessageFingerprint = "print";
        parts_.host.calls.clear();
    }
    void expectNoSnapshot() {
        EXPECT_FALSE(state_.hasReceivedControlSnapshot);
        EXPECT_EQ(state_.currentScopeKind, std::nullopt);
        EXPECT_EQ(state_.currentWatchedTitle, std::nullopt);
        EXPECT_EQ(state_.currentConversationID, std::nullopt);
    }

    test::WorkerParts parts_;
    WorkerState& state_ = parts_.state;
    WorkerControl control_{parts_.page, parts_.platform, parts_.files, parts_.directory.workerControlFile,
                           state_,      parts_.log};
};

TEST_F(WorkerControlTests, FollowsEveryKindThatNamesAChat) {
    for (const std::string kind : {"conversation", "channel", "thread"}) {
        follow({{"kind", kind}, {"id", kind + "-id"}, {"title", kind + " title"}});
        EXPECT_TRUE(state_.hasReceivedControlSnapshot);
        EXPECT_EQ(state_.currentScopeKind, kind);
        EXPECT_EQ(state_.currentConversationID, kind + "-id");
        EXPECT_EQ(state_.currentWatchedTitle, kind + " title");
    }
}

TEST_F(WorkerControlTests, WatchesTheTitleWithoutBlanksAround) {
    follow({{"kind", "conversation"}, {"id", "\n id\t"}, {"title", " \u00A0Family \n"}});
    EXPECT_EQ(state_.currentWatchedTitle, "Family");
    EXPECT_EQ(state_.currentConversationID, "id");
}

TEST_F(WorkerControlTests, BlankTitleIsEmptyAndNotAbsent) {
    follow({{"kind", "conversation"}, {"id", " "}, {"title", " \n"}});
    EXPECT_EQ(state_.currentWatchedTitle, "");
    EXPECT_EQ(state_.currentConversationID, "");
}

TEST_F(WorkerControlTests, ThreadWithoutTitleWatchesNoTitle) {
    follow({{"kind", "thread"}, {"id", "t"}});
    EXPECT_EQ(state_.currentWatchedTitle, std::nullopt);
    EXPECT_EQ(state_.currentConversationID, "t");
    EXPECT_TRUE(state_.hasReceivedControlSnapshot);
}

TEST_F(WorkerControlTests, SelfTestScopeSelectsNoChat) {
    watchFamily();
    follow({{"kind", "testOnly"}, {"title", "Self-test"}});
    EXPECT_EQ(state_.currentScopeKind, "testOnly");
    EXPECT_EQ(state_.currentWatchedTitle, std::nullopt);
    EXPECT_EQ(state_.currentConversationID, std::nullopt);
    EXPECT_EQ(state_.lastSeenMessageFingerprint, std::nullopt);
    EXPECT_TRUE(state_.hasReceivedControlSnapshot);
}

TEST_F(WorkerControlTests, UnknownKindSelectsNoChat) {
    follow({{"kind", "Conversation"}, {"id", "i"}, {"title", "T"}});
    EXPECT_EQ(state_.currentScopeKind, "Conversation");
    EXPECT_EQ(state_.currentWatchedTitle, std::nullopt);
}

TEST_F(WorkerControlTests, RecordWithoutScopeWatchesNothing) {
    watchFamily();
    put({{"platform", "whatsapp"}, {"activeScope", nullptr}, {"updatedAtISO8601", ""}});
    control_.refreshControl();
    EXPECT_TRUE(state_.hasReceivedControlSnapshot);
    EXPECT_EQ(state_.currentScopeKind, std::nullopt);
    EXPECT_EQ(state_.currentWatchedTitle, std::nullopt);
    EXPECT_EQ(state_.currentConversationID, std::nullopt);
    EXPECT_EQ(state_.lastSeenMessageFingerprint, std::nullopt);
}

TEST_F(WorkerControlTests, SameChatKeepsTheLastSeenMessage) {
    watchFamily();
    follow({{"kind", "channel"}, {"id", " family-id"}, {"title", "Family "}});
    EXPECT_EQ(state_.lastSeenMessageFingerprint, "print");
    EXPECT_EQ(state_.currentScopeKind, "channel");
}

TEST_F(WorkerControlTests, OtherTitleForgetsTheLastSeenMessage) {
    watchFamily();
    follow({{"kind", "conversation"}, {"id", "family-id"}, {"title", "family"}});
    EXPECT_EQ(state_.lastSeenMessageFingerprint, std::nullopt);
    EXPECT_EQ(state_.currentWatchedTitle, "family");
}

TEST_F(WorkerControlTests, OtherIdentifierAloneForgetsTheLastSeenMessage) {
    watchFamily();
    follow({{"kind", "conversation"}, {"id", "other"}, {"title", "Family"}});
    EXPECT_EQ(state_.lastSeenMessageFingerprint, std::nullopt);
    EXPECT_EQ(state_.currentConversationID, "other");
}

TEST_F(WorkerControlTests, AbsentAndEmptyAreDifferentChats) {
    follow({{"kind", "thread"}, {"id", "t"}, {"title", ""}});
    state_.lastSeenMessageFingerprint = "print";
    follow({{"kind", "thread"}, {"id", "t"}});
    EXPECT_EQ(state_.lastSeenMessageFingerprint, std::nullopt);
}

TEST_F(WorkerControlTests, TitlesCompareByTheirExactBytes) {
    follow({{"kind", "thread"}, {"id", "t"}, {"title", "Zo\u00EB"}});
    state_.lastSeenMessageFingerprint = "print";
    follow({{"kind", "thread"}, {"id", "t"}, {"title", "Zoe\u0308"}});
    EXPECT_EQ(state_.lastSeenMessageFingerprint, std::nullopt);
}

TEST_F(WorkerControlTests, MissingFileMeansThatNothingIsWatched) {
    watchFamily();
    std::filesystem::remove(parts_.directory.workerControlFile);
    control_.refreshControl();
    expectNoSnapshot();
    EXPECT_EQ(state_.lastSeenMessageFingerprint, "print");
    EXPECT_THAT(parts_.host.log, IsEmpty());
    EXPECT_THAT(parts_.host.calls, ElementsAre("orderOut"));
}

TEST_F(WorkerControlTests, UndecodableFileMeansThatNothingIsWatched) {
    watchFamily();
    test::writeFileAtomically(parts_.directory.workerControlFile, "{\"platform\":\"whatsapp\"");
    control_.refreshControl();
    expectNoSnapshot();
    EXPECT_THAT(
        parts_.host.log,
        ElementsAre(
            "Failed to decode worker control: The data cannot be used because it is not one valid JSON document."));
    EXPECT_THAT(parts_.host.calls, ElementsAre("orderOut"));
}

TEST_F(WorkerControlTests, FileWithoutPlatformIsUndecodable) {
    watchFamily();
    put({{"updatedAtISO8601", ""}});
    control_.refreshControl();
    expectNoSnapshot();
    EXPECT_THAT(parts_.host.log, ElementsAre(HasSubstr("a required value is missing (at platform)")));
}

TEST_F(WorkerControlTests, UnreadableFileMeansThatNothingIsWatched) {
    watchFamily();
    // The first operation looks whether the file is there.
    parts_.faults.set(Fault{.operation = 2, .code = EACCES});
    control_.refreshControl();
    expectNoSnapshot();
    EXPECT_THAT(parts_.host.log, ElementsAre("Failed to decode worker control: Cannot read \"" +
                                             parts_.directory.workerControlFile + "\": Permission denied."));
    EXPECT_THAT(parts_.host.calls, ElementsAre("orderOut"));
}

TEST_F(WorkerControlTests, IsBackAsSoonAsTheFileDecodesAgain) {
    watchFamily();
    test::writeFileAtomically(parts_.directory.workerControlFile, "");
    control_.refreshControl();
    expectNoSnapshot();
    watchFamily();
    EXPECT_TRUE(state_.hasReceivedControlSnapshot);
    EXPECT_EQ(state_.currentWatchedTitle, "Family");
}

TEST_F(WorkerControlTests, RecordForAnotherPlatformChangesNothing) {
    watchFamily();
    put({{"platform", "WhatsApp"},
         {"activeScope", {{"kind", "channel"}, {"id", "x"}, {"title", "X"}}},
         {"updatedAtISO8601", ""}});
    control_.refreshControl();
    EXPECT_TRUE(state_.hasReceivedControlSnapshot);
    EXPECT_EQ(state_.currentScopeKind, "conversation");
    EXPECT_EQ(state_.currentWatchedTitle, "Family");
    EXPECT_EQ(state_.currentConversationID, "family-id");
    EXPECT_EQ(state_.lastSeenMessageFingerprint, "print");
    EXPECT_THAT(parts_.host.calls, IsEmpty());
    EXPECT_THAT(parts_.host.log, IsEmpty());
}

TEST_F(WorkerControlTests, HidesTheWindowOnEveryTick) {
    watchFamily();
    control_.refreshControl();
    control_.refreshControl();
    EXPECT_THAT(parts_.host.calls, ElementsAre("orderOut", "orderOut"));
}

TEST_F(WorkerControlTests, WantOfMemoryMeansThatNothingIsWatchedUntilTheNextTick) {
    bool wasMet = true;
    int piece = 1;
    for (; wasMet; ++piece) {
        watchFamily();
        putScope({{"kind", "channel"},
                  {"id", "an identifier of some length"},
                  {"title", "A title of some length"}});
        {
            test::WantOfMemory want(piece, test::WantOfMemory::Persistence::fromThenOn);
            control_.refreshControl();
            wasMet = want.end();
        }
        if (!state_.hasReceivedControlSnapshot) expectNoSnapshot();
        control_.refreshControl();
        EXPECT_EQ(state_.currentWatchedTitle, "A title of some length") << piece;
    }
    EXPECT_GT(piece, 5);
}

TEST_F(WorkerControlTests, WritesNoStatus) {
    watchFamily();
    EXPECT_THAT(parts_.published(), IsEmpty());
}

}  // namespace
}  // namespace brindle

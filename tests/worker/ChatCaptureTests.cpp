#include "worker/ChatCapture.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/Files.h"
#include "support/Json.h"
#include "support/TextForms.h"
#include "support/WantOfMemory.h"
#include "support/WorkerParts.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using Fault = test::FaultInjectingFileManager::Fault;

test::Json message(const std::string& text, const std::string& fingerprint = "print") {
    return {{"activeChatTitle", "Family"},
            {"senderDisplayName", "Ann Lee"},
            {"text", text},
            {"fingerprint", fingerprint},
            {"rawReference", "raw-" + fingerprint}};
}

test::Json drain(const std::vector<test::Json>& messages) {
    return {{"state", "ok"},       {"activeChatTitle", "Family"}, {"watchedTitle", "Family"},
            {"pageTitle", "Web"},  {"visibleInboundCount", 9},    {"queuedCount", 0},
            {"messages", messages}};
}

class ChatCaptureTests : public testing::Test {
  protected:
    ChatCaptureTests() {
        parts_.state.currentWatchedTitle = "Family";
        parts_.state.currentConversationID = "family-id";
        parts_.state.displayName = "Account";
    }

    /// One step in which the activation script results in `activation` and, if it gets that far, the capture
    /// script in `capture`.
    void poll(EvaluationOutcome activation, std::optional<EvaluationOutcome> capture = std::nullopt) {
        auto task = capture_.pollInboundMessages();
        task.start();
        parts_.host.answerOnly(std::move(activation));
        if (capture) parts_.host.answerOnly(std::move(*capture));
        EXPECT_TRUE(task.isDone());
        EXPECT_THAT(parts_.host.pending, IsEmpty());
    }
    /// A step that finds the watched chat open.
    void pollOpenChat(EvaluationOutcome capture) {
        poll(test::result(R"({"state":"active"})"), std::move(capture));
    }
    void pollOpenChat(const test::Json& capture) { pollOpenChat(test::result(capture.dump())); }
    /// The records in the order in which they were written.
    std::vector<test::Json> records() const {
        std::vector<test::Json> found;
        for (const auto& write : parts_.files.writes()) {
            if (write.path.starts_with(parts_.directory.inbound))
                found.push_back(test::Json::parse(write.content));
        }
        return found;
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> found;
        for (const auto& record : records()) found.push_back(record["text"]);
        return found;
    }

    test::WorkerParts parts_;
    WorkerState& state_ = parts_.state;
    ChatCapture capture_{parts_.scripts, parts_.host, parts_.files,     parts_.directory.inbound,
                         parts_.clock,   state_,      parts_.publisher, parts_.log};
};

class ChatActivationTests : public ChatCaptureTests {};

TEST_F(ChatActivationTests, NothingHappensWithoutAWatchedTitle) {
    for (const std::optional<std::string>& title :
         {std::optional<std::string>(), std::optional<std::string>("")}) {
        state_.currentWatchedTitle = title;
        auto task = capture_.pollInboundMessages();
        task.start();
        EXPECT_TRUE(task.isDone());
    }
    EXPECT_THAT(parts_.host.pending, IsEmpty());
    EXPECT_THAT(parts_.published(), IsEmpty());
}

TEST_F(ChatActivationTests, ScriptsGetTheWatchedTitleAsALiteral) {
    state_.currentWatchedTitle = R"(a "b" \ c/d)";
    auto task = capture_.pollInboundMessages();
    task.start();
    EXPECT_EQ(parts_.host.pending.at(0).script,
              scriptWithWatchedTitle(page_script::chat_activation, R"(a "b" \ c/d)"));
    EXPECT_THAT(parts_.host.pending.at(0).script, HasSubstr(R"("a \"b\" \\ c\/d")"));
    parts_.host.answerOnly(test::result(R"({"state":"active"})"));
    EXPECT_EQ(parts_.host.pending.at(0).script,
              scriptWithWatchedTitle(page_script::inbound_capture, R"(a "b" \ c/d)"));
}

struct ActivationCase {
    std::string name;
    std::string payload;
    std::string detail;
};

void PrintTo(const ActivationCase& each, std::ostream* stream) {
    *stream << each.name;
}

class ActivationStateTests : public ChatCaptureTests, public testing::WithParamInterface<ActivationCase> {};

TEST_P(ActivationStateTests, IsPublishedAndEndsTheStep) {
    poll(test::result(GetParam().payload));
    EXPECT_THAT(parts_.published(), ElementsAre("activating_chat: " + GetParam().detail + " (Account)"));
    EXPECT_THAT(parts_.host.log, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ActivationStateTests,
    testing::Values(
        ActivationCase{"Activating", R"({"state":"activating","matchedTitle":"Family & friends"})",
                       "Opening chat 'Family & friends' in the managed WhatsApp worker."},
        ActivationCase{"ActivatingWithoutTitle", R"({"state":"activating","matchedTitle":null})",
                       "Opening chat 'Family' in the managed WhatsApp worker."},
        ActivationCase{"Searching", R"({"state":"searching","matchedTitle":"Family"})",
                       "Searching for chat 'Family' in WhatsApp Web."},
        ActivationCase{"WrongChat",
                       R"({"state":"wrong-active-chat","activeChatTitle":"Work","matchedTitle":"Family"})",
                       "Active chat is 'Work'. Switching to 'Family'."},
        ActivationCase{"WrongChatWithoutTitle", R"({"state":"wrong-active-chat"})",
                       "Active chat is '?'. Switching to 'Family'."},
        ActivationCase{"WrongChatWithEmptyTitle", R"({"state":"wrong-active-chat","activeChatTitle":""})",
                       "Active chat is ''. Switching to 'Family'."},
        ActivationCase{"NoChat", R"({"state":"no-active-chat","activeChatTitle":"","matchedTitle":"Family"})",
                       "Selecting chat 'Family' in the managed runtime session."},
        ActivationCase{"NotFound", R"({"state":"chat-not-found"})",
                       "Chat 'Family' is not visible yet in WhatsApp Web."}),
    [](const auto& each) { return each.param.name; });

TEST_F(ChatActivationTests, ActiveAndUnknownStatesGoOnToTheCapture) {
    for (const std::string word : {"active", "Activating", "", "opened"}) {
        poll(test::result(test::Json{{"state", word}}.dump()), test::noResult());
    }
    EXPECT_THAT(parts_.published(), IsEmpty());
}

TEST_F(ChatActivationTests, FailedScriptCountsAsNotFoundAndIsLogged) {
    poll(test::failure("ReferenceError: x."));
    EXPECT_THAT(parts_.host.log, ElementsAre("Chat activation probe failed: ReferenceError: x."));
    EXPECT_THAT(parts_.published(),
                ElementsAre("activating_chat: Chat 'Family' is not visible yet in WhatsApp Web. (Account)"));
}

TEST_F(ChatActivationTests, UndecodableResultCountsAsNotFoundAndIsLogged) {
    poll(test::result(R"({"activeChatTitle":"Family"})"));
    EXPECT_THAT(
        parts_.host.log,
        ElementsAre(
            "Chat activation probe failed: The data cannot be used because a required value is missing (at state)."));
    EXPECT_EQ(state_.workerDetail, "Chat 'Family' is not visible yet in WhatsApp Web.");
}

TEST_F(ChatActivationTests, MissingResultCountsAsNotFoundWithoutALogLine) {
    poll(test::noResult());
    EXPECT_THAT(parts_.host.log, IsEmpty());
    EXPECT_EQ(state_.workerDetail, "Chat 'Family' is not visible yet in WhatsApp Web.");
}

TEST_F(ChatActivationTests, FailedProbeNamesTheWatchedTitle) {
    std::optional<ManagedWhatsAppChatActivationPayload> payload;
    const auto probe = [](ChatCapture& capture, auto& result) -> Task<> {
        result = co_await capture.probeChatActivation("Team");
    };
    auto task = probe(capture_, payload);
    task.start();
    parts_.host.answerOnly(test::failure("No."));
    EXPECT_EQ(payload->state, "chat-not-found");
    EXPECT_EQ(payload->matchedTitle, "Team");
    EXPECT_EQ(payload->activeChatTitle, std::nullopt);
    EXPECT_EQ(payload->pageTitle, std::nullopt);
}

class InboundCaptureTests : public ChatCaptureTests {};

TEST_F(InboundCaptureTests, MessageBecomesARecord) {
    parts_.clock.turnTo(test::TestClock::start + std::chrono::milliseconds(1999));
    pollOpenChat(drain({message(" Hello / \"you\"\n")}));
    ASSERT_THAT(records(), SizeIs(1));
    auto record = records()[0];
    EXPECT_TRUE(test::isCanonicalUuid(record["messageId"].get<std::string>()));
    record.erase("messageId");
    EXPECT_EQ(record, (test::Json{{"conversationId", "family-id"},
                                  {"conversationTitle", "Family"},
                                  {"senderId", "ann-lee"},
                                  {"senderDisplayName", "Ann Lee"},
                                  {"text", " Hello / \"you\"\n"},
                                  {"timestampISO8601", "2026-01-05T09:30:01Z"},
                                  {"isDirectMessage", true},
                                  {"rawReference", "raw-print"}}));
}

TEST_F(InboundCaptureTests, RecordLiesUnderItsIdentifierFlushedToDisk) {
    pollOpenChat(drain({message("Hello")}));
    const auto& write = parts_.files.writes().at(0);
    const auto identifier = test::Json::parse(write.content)["messageId"].get<std::string>();
    EXPECT_EQ(write.path, parts_.directory.inbound + "/" + identifier + ".json");
    EXPECT_EQ(write.durability, Durability::disk);
    EXPECT_THAT(test::namesIn(parts_.directory.inbound), ElementsAre(identifier + ".json"));
    EXPECT_THAT(write.content, StartsWith("{\n  \"conversationId\": \"family-id\",\n"));
}

TEST_F(InboundCaptureTests, CaptureIsPublishedWithTheNumberOfMessages) {
    pollOpenChat(drain({message("a", "1"), message("b", "2")}));
    EXPECT_THAT(
        parts_.published(),
        ElementsAre(
            "watching_chat: Watching chat 'Family' through the managed WhatsApp worker. Captured 2 inbound message(s). (Account)"));
    EXPECT_THAT(texts(), ElementsAre("a", "b"));
    EXPECT_EQ(state_.lastSeenMessageFingerprint, "2");
}

TEST_F(InboundCaptureTests, RecordsAreWrittenBeforeTheStatus) {
    pollOpenChat(drain({message("a")}));
    EXPECT_EQ(parts_.files.writes().back().path, parts_.directory.workerStatusFile);
}

TEST_F(InboundCaptureTests, EveryRecordHasAnIdentifierOfItsOwn) {
    pollOpenChat(drain({message("same"), message("same"), message("same")}));
    EXPECT_THAT(test::namesIn(parts_.directory.inbound), SizeIs(3));
}

TEST_F(InboundCaptureTests, WithoutConversationIdentifierTheTitleStandsIn) {
    state_.currentConversationID.reset();
    pollOpenChat(drain({message("a")}));
    EXPECT_EQ(records().at(0)["conversationId"], "Family");
}

TEST_F(InboundCaptureTests, EmptyConversationIdentifierIsOne) {
    state_.currentConversationID = "";
    pollOpenChat(drain({message("a")}));
    EXPECT_EQ(records().at(0)["conversationId"], "");
}

TEST_F(InboundCaptureTests, ConversationTitleIsThatOfTheOpenChat) {
    auto payload = drain({message("a")});
    payload["activeChatTitle"] = "Family & friends";
    pollOpenChat(payload);
    EXPECT_EQ(records().at(0)["conversationTitle"], "Family & friends");
    EXPECT_THAT(state_.workerDetail, StartsWith("Watching chat 'Family & friends' through"));
}

TEST_F(InboundCaptureTests, SenderIdentifierIsLowerCaseWithDashes) {
    struct Case {
        std::string sender;
        std::string identifier;
    };
    const std::vector<Case> cases{{"Ann Lee", "ann-lee"},
                                  {" A  B ", "-a--b-"},
                                  {"ZOË ÄRGER", "zoë-ärger"},
                                  {"ЖАННА Б", "жанна-б"},
                                  {"A\u00A0B\tC", "a\u00A0b\tc"},
                                  {"🙂", "🙂"},
                                  {"", ""}};
    std::vector<test::Json> messages;
    for (const auto& each : cases) {
        messages.push_back(message("t"));
        messages.back()["senderDisplayName"] = each.sender;
    }
    pollOpenChat(drain(messages));
    const auto written = records();
    ASSERT_EQ(written.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(written[i]["senderId"], cases[i].identifier);
        EXPECT_EQ(written[i]["senderDisplayName"], cases[i].sender);
    }
}

TEST_F(InboundCaptureTests, MissingSenderHasADefault) {
    auto anonymous = message("a");
    anonymous["senderDisplayName"] = nullptr;
    auto missing = message("b");
    missing.erase("senderDisplayName");
    pollOpenChat(drain({anonymous, missing}));
    for (const auto& record : records()) {
        EXPECT_EQ(record["senderDisplayName"], "WhatsApp Web Sender");
        EXPECT_EQ(record["senderId"], "whatsapp-web-sender");
    }
    EXPECT_THAT(records(), SizeIs(2));
}

TEST_F(InboundCaptureTests, MissingReferenceIsReplacedByTheFingerprint) {
    auto without = message("a", "Family::x::Ann::a");
    without.erase("rawReference");
    auto null = message("b", "other");
    null["rawReference"] = nullptr;
    pollOpenChat(drain({without, null}));
    EXPECT_EQ(records().at(0)["rawReference"], "Family::x::Ann::a");
    EXPECT_EQ(records().at(1)["rawReference"], "other");
}

TEST_F(InboundCaptureTests, BlankMessageIsSkippedButCounted) {
    pollOpenChat(drain({message("  \n\u00A0", "blank"), message("real", "real"), message("", "empty")}));
    EXPECT_THAT(texts(), ElementsAre("real"));
    EXPECT_THAT(state_.workerDetail, HasSubstr("Captured 3 inbound message(s)."));
    EXPECT_EQ(state_.lastSeenMessageFingerprint, "real");
}

TEST_F(InboundCaptureTests, MessageWithoutTextOrFingerprintIsSkippedButCounted) {
    auto noText = message("x");
    noText["text"] = nullptr;
    auto noFingerprint = message("y");
    noFingerprint.erase("fingerprint");
    pollOpenChat(drain({noText, noFingerprint, test::Json::object()}));
    EXPECT_THAT(records(), IsEmpty());
    EXPECT_THAT(
        parts_.published(),
        ElementsAre(
            "watching_chat: Watching chat 'Family' through the managed WhatsApp worker. Captured 3 inbound message(s). (Account)"));
    EXPECT_EQ(state_.lastSeenMessageFingerprint, std::nullopt);
}

TEST_F(InboundCaptureTests, DrainWithoutChatOrMessagesChangesNothing) {
    auto noChat = drain({message("a")});
    noChat["activeChatTitle"] = nullptr;
    auto noMessages = drain({});
    auto missing = drain({});
    missing.erase("messages");
    for (const auto& payload : {noChat, noMessages, missing}) pollOpenChat(payload);
    EXPECT_THAT(parts_.published(), IsEmpty());
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(InboundCaptureTests, OtherOpenChatIsPublished) {
    pollOpenChat(test::Json{{"state", "wrong-chat"}, {"activeChatTitle", "Work"}, {"watchedTitle", "Fam"}});
    pollOpenChat(test::Json{{"state", "wrong-chat"}, {"activeChatTitle", nullptr}});
    EXPECT_THAT(parts_.published(),
                ElementsAre("wrong_chat: Active chat is 'Work' while watching 'Fam'. (Account)",
                            "wrong_chat: Active chat is '?' while watching 'Family'. (Account)"));
}

TEST_F(InboundCaptureTests, MissingChatIsPublished) {
    pollOpenChat(test::Json{{"state", "no-active-chat"}, {"activeChatTitle", nullptr}});
    EXPECT_THAT(
        parts_.published(),
        ElementsAre(
            "no_active_chat: WhatsApp Web is linked, but no active chat is available in the managed runtime session. (Account)"));
}

TEST_F(InboundCaptureTests, OpenChatWithoutNewMessageIsPublished) {
    pollOpenChat(test::Json{{"state", "no-incoming-message"},
                            {"activeChatTitle", "Family!"},
                            {"visibleInboundCount", 12},
                            {"messages", test::Json::array()}});
    pollOpenChat(test::Json{{"state", "no-incoming-message"}});
    EXPECT_THAT(
        parts_.published(),
        ElementsAre(
            "watching_chat: Watching chat 'Family!'. No incoming message yet. Visible inbound nodes: 12. (Account)",
            "watching_chat: Watching chat 'Family'. No incoming message yet. Visible inbound nodes: 0. (Account)"));
}

TEST_F(InboundCaptureTests, UnknownStateChangesNothing) {
    for (const std::string word : {"", "OK", "error"}) {
        auto payload = drain({message("a")});
        payload["state"] = word;
        pollOpenChat(payload);
    }
    EXPECT_THAT(parts_.published(), IsEmpty());
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(InboundCaptureTests, MissingResultChangesNothing) {
    pollOpenChat(test::noResult());
    EXPECT_THAT(parts_.published(), IsEmpty());
    EXPECT_THAT(parts_.host.log, IsEmpty());
}

TEST_F(InboundCaptureTests, FailedScriptIsPublished) {
    pollOpenChat(test::failure("RangeError: too much."));
    EXPECT_THAT(
        parts_.published(),
        ElementsAre(
            "error: Managed WhatsApp worker failed to poll inbound messages: RangeError: too much. (Account)"));
}

TEST_F(InboundCaptureTests, UndecodableResultIsPublished) {
    pollOpenChat(test::result(R"({"state":"ok","messages":[{"text":7}]})"));
    EXPECT_THAT(
        parts_.published(),
        ElementsAre(
            "error: Managed WhatsApp worker failed to poll inbound messages: The data cannot be used because it has a number where a string is expected (at messages[0].text). (Account)"));
}

TEST_F(InboundCaptureTests, NamesStandInThePagesOrder) {
    std::vector<test::Json> messages;
    for (int i = 0; i < 20; ++i) messages.push_back(message(std::to_string(i), std::to_string(i)));
    pollOpenChat(drain(messages));
    pollOpenChat(drain(messages));
    std::vector<std::string> paths;
    for (const auto& write : parts_.files.writes()) {
        if (write.path.starts_with(parts_.directory.inbound)) paths.push_back(write.path);
    }
    EXPECT_THAT(paths, SizeIs(40));
    EXPECT_TRUE(std::is_sorted(paths.begin(), paths.end()));
}

TEST_F(InboundCaptureTests, NamesStandBehindThoseThatAnEarlierWorkerLeft) {
    const std::string earlier = "EB29FC40-CA47-4067-B31D-00DD010662DA.json";
    test::writeFileAtomically(parts_.directory.inbound + "/" + earlier, "{}");
    pollOpenChat(drain({message("a", "1")}));
    const auto names = test::namesIn(parts_.directory.inbound);
    ASSERT_THAT(names, SizeIs(2));
    EXPECT_EQ(names[0], earlier);
}

TEST_F(InboundCaptureTests, DirectoryThatCannotBeListedDoesNotLoseAMessage) {
    parts_.faults.set(Fault{.operation = 1, .code = EMFILE});
    pollOpenChat(drain({message("a", "1")}));
    EXPECT_THAT(parts_.faults.failures(), ElementsAre("list " + parts_.directory.inbound));
    EXPECT_THAT(texts(), ElementsAre("a"));
}

TEST_F(InboundCaptureTests, FailedWriteInTheMiddleEndsTheDrain) {
    parts_.faults.set(Fault{.operation = 2, .code = ENOSPC, .action = "write"});
    pollOpenChat(drain({message("a", "1"), message("b", "2"), message("c", "3")}));
    EXPECT_THAT(texts(), ElementsAre("a"));
    EXPECT_THAT(test::namesIn(parts_.directory.inbound), SizeIs(1));
    EXPECT_THAT(
        parts_.published(),
        ElementsAre(AllOf(
            StartsWith("error: Managed WhatsApp worker failed to poll inbound messages: Cannot write \"" +
                       parts_.directory.inbound + "/"),
            HasSubstr("No space left on device."))));
    EXPECT_EQ(state_.lastSeenMessageFingerprint, "2");
}

TEST_F(InboundCaptureTests, TitlesOfThePageAreCutInSentencesAndWholeInRecords) {
    const std::string title(1001, 'x');
    const std::string shown = "'" + std::string(1000, 'x') + "\u2026'";
    const test::Json wrongChat = {
        {"state", "wrong-chat"}, {"activeChatTitle", title}, {"watchedTitle", title}};
    pollOpenChat(wrongChat);
    EXPECT_EQ(state_.workerDetail, "Active chat is " + shown + " while watching " + shown + ".");
    poll(test::result(
        test::Json{{"state", "wrong-active-chat"}, {"activeChatTitle", title}, {"matchedTitle", title}}
            .dump()));
    EXPECT_EQ(state_.workerDetail, "Active chat is " + shown + ". Switching to " + shown + ".");
    auto capture = drain({message("a")});
    capture["activeChatTitle"] = title;
    pollOpenChat(capture);
    EXPECT_THAT(state_.workerDetail, StartsWith("Watching chat " + shown + " through"));
    EXPECT_EQ(records().at(0)["conversationTitle"], title);
}

/// A page that makes messages up as fast as it is asked.
class FloodTests : public ChatCaptureTests {
  protected:
    static constexpr std::size_t kibibyte = 1024;
    static constexpr const char* waiting =
        "Watching chat 'Family'. The page has delivered 32 MiB of messages within a minute, which is all that is "
        "taken from it; the next ones wait.";

    /// Messages of which `count` have nearly the length of a record of `record_bytes`.
    static test::Json flood(std::size_t count, std::size_t record_bytes) {
        const std::string text(record_bytes - kibibyte, 'x');
        return drain(std::vector<test::Json>(count, message(text)));
    }
    /// Begins a step in an open chat; what does not fit is left waiting.
    Task<> begin(const test::Json& capture) {
        auto task = capture_.pollInboundMessages();
        task.start();
        parts_.host.answerOnly(test::result(R"({"state":"active"})"));
        parts_.host.answerOnly(test::result(capture.dump()));
        return task;
    }
    std::size_t writtenBytes() const {
        std::size_t sum = 0;
        for (const auto& write : parts_.files.writes()) {
            if (write.path.starts_with(parts_.directory.inbound)) sum += write.content.size();
        }
        return sum;
    }
};

TEST_F(FloodTests, OfAMinuteWritesNoMoreThanTheBudget) {
    std::optional<Task<>> step;
    for (int second = 0; second < 60; ++second) {
        if (!step || step->isDone()) step.emplace(begin(flood(100, 64 * kibibyte)));
        parts_.host.advance(std::chrono::seconds(1));
    }
    EXPECT_LE(writtenBytes(), RecordBudget::budget_bytes);
    EXPECT_GT(writtenBytes(), RecordBudget::budget_bytes * 9 / 10);
    EXPECT_FALSE(step->isDone());
}

TEST_F(FloodTests, WaitsAndSaysWhyUntilTheMinuteIsOver) {
    auto step = begin(flood(40, 1024 * kibibyte));
    EXPECT_THAT(records(), SizeIs(32));
    EXPECT_EQ(state_.workerState, "watching_chat");
    EXPECT_EQ(state_.workerDetail, waiting);
    // Meanwhile nothing is asked of the page, which keeps what it captures.
    parts_.host.advance(std::chrono::seconds(59));
    finish(parts_.host, *std::make_unique<Task<>>(capture_.pollInboundMessages()));
    EXPECT_THAT(parts_.host.pending, IsEmpty());
    EXPECT_THAT(records(), SizeIs(32));
    parts_.host.advance(std::chrono::seconds(3));
    EXPECT_THAT(records(), SizeIs(40));
    EXPECT_TRUE(step.isDone());
    EXPECT_THAT(state_.workerDetail, HasSubstr("Captured 40 inbound message(s)."));
}

TEST_F(FloodTests, WhatThePageCouldNotHaveKeptDoesNotWait) {
    auto messages = std::vector<test::Json>(200, message("short"));
    messages.resize(250, message(std::string(1023 * kibibyte, 'x')));
    auto step = begin(drain(messages));
    parts_.host.advance(std::chrono::milliseconds(1));
    EXPECT_TRUE(step.isDone());
    EXPECT_THAT(records(), SizeIs(200 + 31));
    EXPECT_EQ(
        state_.workerDetail,
        "Managed WhatsApp worker failed to poll inbound messages: The page delivers more than the 32 MiB a "
        "minute that are taken from it, and more than it could have kept; the rest was dropped.");
}

TEST_F(FloodTests, MessageThatFitsIntoNoMinuteIsDroppedAndTold) {
    auto step = begin(flood(1, RecordBudget::budget_bytes + 2 * kibibyte));
    EXPECT_TRUE(step.isDone());
    EXPECT_THAT(records(), IsEmpty());
    EXPECT_EQ(state_.workerState, "error");
    pollOpenChat(drain({message("a")}));
    EXPECT_THAT(texts(), ElementsAre("a"));
}

TEST_F(FloodTests, WorkerThatEndsGivesUpWhatWaits) {
    {
        const auto step = begin(flood(40, 1024 * kibibyte));
        EXPECT_FALSE(step.isDone());
    }
    EXPECT_EQ(parts_.host.runningTimers(), 0U);
}

/// The page has given the messages away, so dropping a late answer would lose them.
class LateCaptureTests : public ChatCaptureTests {
  protected:
    /// A step in which the page does not answer the capture in time.
    void pollSlowPage() {
        auto task = capture_.pollInboundMessages();
        task.start();
        parts_.host.answer(parts_.host.pending.size() - 1, test::result(R"({"state":"active"})"));
        parts_.host.advance(std::chrono::seconds(30));
        EXPECT_TRUE(task.isDone());
        EXPECT_THAT(
            parts_.published().back(),
            StartsWith("error: Managed WhatsApp worker failed to poll inbound messages: The page did not"));
    }
};

TEST_F(LateCaptureTests, MessagesAreDelivered) {
    pollSlowPage();
    state_.currentWatchedTitle = "Work";
    state_.currentConversationID = "work-id";
    parts_.host.answerOnly(test::result(drain({message("a", "1"), message("b", "2")}).dump()));
    EXPECT_THAT(texts(), ElementsAre("a", "b"));
    EXPECT_EQ(records().at(0)["conversationId"], "family-id");
    EXPECT_THAT(parts_.published().back(), HasSubstr("Captured 2 inbound message(s)."));
}

TEST_F(LateCaptureTests, EveryLateAnswerCounts) {
    pollSlowPage();
    pollSlowPage();
    parts_.host.answer(0, test::result(drain({message("a")}).dump()));
    pollSlowPage();
    parts_.host.answer(0, test::result(drain({message("b")}).dump()));
    parts_.host.answer(0, test::result(drain({message("c")}).dump()));
    EXPECT_THAT(texts(), ElementsAre("a", "b", "c"));
}

TEST_F(LateCaptureTests, WhatElseALateAnswerSaysIsOutOfDate) {
    for (const auto& answer :
         {test::result(R"({"state":"wrong-chat"})"), test::noResult(), test::failure("The page is gone.")}) {
        pollSlowPage();
        const auto publishedBefore = parts_.published().size();
        parts_.host.answerOnly(answer);
        EXPECT_THAT(parts_.published(), SizeIs(publishedBefore));
    }
}

TEST_F(LateCaptureTests, FailedWriteIsPublished) {
    pollSlowPage();
    parts_.faults.set(Fault{.operation = 1, .code = ENOSPC, .action = "write"});
    parts_.host.answerOnly(test::result(drain({message("a")}).dump()));
    EXPECT_THAT(parts_.published().back(), AllOf(StartsWith("error: "), HasSubstr("No space left")));
}

TEST_F(LateCaptureTests, AnswerAfterTheEndOfTheCaptureDoesNothing) {
    {
        ChatCapture ended(parts_.scripts, parts_.host, parts_.files, parts_.directory.inbound, parts_.clock,
                          state_, parts_.publisher, parts_.log);
        auto task = ended.pollInboundMessages();
        task.start();
        parts_.host.answerOnly(test::result(R"({"state":"active"})"));
        parts_.host.advance(std::chrono::seconds(30));
    }
    parts_.host.answerOnly(test::result(drain({message("a")}).dump()));
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(InboundCaptureTests, HalfSurrogatesDoNotLoseTheMessage) {
    pollOpenChat(test::result(
        R"({"state":"ok","activeChatTitle":"Fam\ud83d","messages":[{"text":"cut \ud83d","fingerprint":"f"}]})"));
    EXPECT_EQ(records().at(0)["text"], "cut \uFFFD");
    EXPECT_EQ(records().at(0)["conversationTitle"], "Fam\uFFFD");
}

TEST_F(InboundCaptureTests, NothingFromThePageReachesAFileName) {
    state_.currentConversationID = "../../outside";
    auto hostile = message("../../etc/passwd", "/etc/passwd");
    hostile["rawReference"] = "../../../tmp/x";
    hostile["senderDisplayName"] = "../x";
    auto payload = drain({hostile});
    payload["activeChatTitle"] = "/../../y";
    pollOpenChat(payload);
    const auto names = test::namesIn(parts_.directory.inbound);
    ASSERT_THAT(names, SizeIs(1));
    EXPECT_TRUE(test::isCanonicalUuid(names[0].substr(0, names[0].size() - std::string(".json").size())));
    EXPECT_EQ(records().at(0)["conversationId"], "../../outside");
    for (const auto& write : parts_.files.writes()) {
        EXPECT_THAT(write.path, StartsWith(parts_.directory.path + "/"));
        EXPECT_EQ(write.path.find(".."), std::string::npos);
    }
}

TEST_F(InboundCaptureTests, ControlChangeDuringTheActivationLeavesTheStepItsTitle) {
    auto task = capture_.pollInboundMessages();
    task.start();
    state_.currentWatchedTitle = "Work";
    parts_.host.answerOnly(test::result(R"({"state":"active"})"));
    EXPECT_EQ(parts_.host.pending.at(0).script,
              scriptWithWatchedTitle(page_script::inbound_capture, "Family"));
    state_.currentWatchedTitle.reset();
    parts_.host.answerOnly(test::result(R"({"state":"wrong-chat","activeChatTitle":"X"})"));
    EXPECT_EQ(state_.workerDetail, "Active chat is 'X' while watching 'Family'.");
}

TEST_F(InboundCaptureTests, MessageKeepsTheConversationItWasCapturedForWhenTheControlChanges) {
    auto task = capture_.pollInboundMessages();
    task.start();
    parts_.host.answerOnly(test::result(R"({"state":"active"})"));
    state_.currentConversationID = "new-id";
    parts_.host.answerOnly(test::result(drain({message("a")}).dump()));
    EXPECT_EQ(records().at(0)["conversationId"], "family-id");
}

TEST_F(InboundCaptureTests, MessageIsNotCopiedBetweenItsDecodingAndItsWriting) {
    constexpr std::size_t large = std::size_t{1} << 20U;
    const std::string payload = drain({message(std::string(large, 'x'))}).dump();
    const auto largePieces = [](const auto& work) {
        const test::LargePieces pieces(large);
        work();
        return pieces.count();
    };
    const int whileDecoding =
        largePieces([&] { decodedPageResult<ManagedWhatsAppObservedInboundDrainPayload>(payload); });
    ManagedWhatsAppWorkerInboundRecord record;
    record.messageId = "m";
    record.text = std::string(large, 'x');
    const int whileWriting = largePieces(
        [&] { capture_.writeInboundRecord(record.messageId, encodedRecord(record, JsonStyle::pretty)); });
    auto task = capture_.pollInboundMessages();
    task.start();
    parts_.host.answerOnly(test::result(R"({"state":"active"})"));
    auto answer = test::result(payload);
    const int altogether = largePieces([&] { parts_.host.answerOnly(std::move(answer)); });
    EXPECT_THAT(texts(), ElementsAre(record.text, record.text));
    EXPECT_EQ(altogether, whileDecoding + whileWriting);
}

TEST_F(InboundCaptureTests, RecordWriterReportsAFailure) {
    parts_.faults.set(Fault{.operation = 1, .code = EIO});
    EXPECT_THROW(capture_.writeInboundRecord("m", "{}"), FileSystemFailure);
    capture_.writeInboundRecord("m", "{}");
    EXPECT_THAT(test::namesIn(parts_.directory.inbound), ElementsAre("m.json"));
}

}  // namespace
}  // namespace brindle

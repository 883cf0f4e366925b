#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "support/DrivenPage.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/TextForms.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

namespace brindle::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* three_chats = "client.chats(['Family', 'Team Room', 'Ann Lee'])";

class WebWorkerInbound : public WebWorkerTest {};

/// A linked page with some chats and a worker that has found it.
class WebWorkerCapture : public WebWorkerTest {
  protected:
    void SetUp() override {
        WebWorkerTest::SetUp();
        if (IsSkipped()) return;
        page_.emplace(three_chats);
        worker_.emplace(WebWorkerOptions().withUrl(page_->url()));
        worker_->waitForState("linked");
    }

    DrivenPage& page() { return *page_; }
    WebWorkerProcess& worker() { return *worker_; }
    /// Lets a message arrive in a chat of the page.
    void receive(const std::string& title, const Json& message) {
        page_->run("client.receive(" + scriptString(title) + ", " + message.dump() + ")");
    }

  private:
    std::optional<DrivenPage> page_;
    std::optional<WebWorkerProcess> worker_;
};

TEST_F(WebWorkerCapture, AMessageBecomesARecordWithTheseFieldsAndNoOthers) {
    worker().watchUntilOpen("Team Room", "team-room-id");
    const auto from = worker().journal().size();
    receive("Team Room", {{"id", "m1"}, {"sender", "Ann Lee"}, {"text", "On my way \U0001F600 / \"soon\""}});
    const auto record = worker().waitForRecords(1).front();
    EXPECT_TRUE(isCanonicalUuid(record["messageId"].get<std::string>())) << record;
    EXPECT_TRUE(isTimestamp(record["timestampISO8601"].get<std::string>())) << record;
    auto rest = record;
    rest.erase("messageId");
    rest.erase("timestampISO8601");
    EXPECT_EQ(rest, (Json{{"conversationId", "team-room-id"},
                          {"conversationTitle", "Team Room"},
                          {"senderId", "ann-lee"},
                          {"senderDisplayName", "Ann Lee"},
                          {"text", "On my way \U0001F600 / \"soon\""},
                          {"isDirectMessage", true},
                          {"rawReference", "m1"}}));
    const auto captured = worker().waitForDetail("Captured 1 inbound message(s).", from);
    const auto status = worker().journal().statuses()[captured];
    EXPECT_EQ(status["state"], "watching_chat");
    EXPECT_EQ(
        status["detail"],
        "Watching chat 'Team Room' through the managed WhatsApp worker. Captured 1 inbound message(s).");
    EXPECT_EQ(status["displayName"], "WhatsApp Web");
}

TEST_F(WebWorkerCapture, AMessageWithoutSenderGetsADefaultOneAndAWatchedChatWithoutIdItsTitle) {
    worker().control({{"kind", "thread"}, {"title", "  Team Room\n"}});
    worker().waitForState("watching_chat");
    receive("Team Room", {{"id", "m1"}, {"text", "who am I"}});
    const auto record = worker().waitForRecords(1).front();
    EXPECT_EQ(record["senderDisplayName"], "WhatsApp Web Sender");
    EXPECT_EQ(record["senderId"], "whatsapp-web-sender");
    EXPECT_EQ(record["conversationId"], "Team Room");
}

TEST_F(WebWorkerCapture, OpensTheWatchedChatWithAClickOnItsRow) {
    worker().watch("Team Room");
    const auto opening = worker().waitForDetail("Opening chat 'Team Room' in the managed WhatsApp worker.");
    EXPECT_EQ(worker().journal().statuses()[opening]["state"], "activating_chat");
    const auto watching = worker().waitForState("watching_chat", opening);
    EXPECT_EQ(worker().journal().details()[watching],
              "Watching chat 'Team Room'. No incoming message yet. Visible inbound nodes: 0.");
    // The dispatched click and the row's own.
    EXPECT_EQ(page().run("client.clicks"), "Team Room,Team Room");
}

TEST_F(WebWorkerCapture, FindsAChatThatIsNotInTheListBySearching) {
    page().run("client.hide('Old Friends')");
    worker().watch("Old Friends");
    const auto searching = worker().waitForDetail("Searching for chat 'Old Friends' in WhatsApp Web.");
    worker().waitForDetail("Opening chat 'Old Friends' in the managed WhatsApp worker.", searching);
    worker().waitForState("watching_chat", searching);
    EXPECT_EQ(page().run("client.searches"), "Old Friends");
}

TEST_F(WebWorkerCapture, HistoryIsNotDeliveredAndWhatFollowsIsOnce) {
    receive("Team Room", {{"id", "h1"}, {"sender", "Ann"}, {"text", "yesterday"}});
    receive("Team Room", {{"id", "h2"}, {"sender", "Bob"}, {"text", "this morning"}});
    worker().watchUntilOpen("Team Room");
    worker().waitForDetail("Visible inbound nodes: 2.");
    receive("Team Room", {{"id", "m1"}, {"sender", "Ann"}, {"text", "now"}});
    receive("Team Room", {{"id", "m2"}, {"sender", "Ann"}, {"text", "now"}});
    receive("Team Room", {{"id", "m3"}, {"sender", "Bob"}, {"text", "and then"}});
    EXPECT_EQ(worker().waitForTexts(3).size(), 3U);
    worker().waitForMoreStatuses(4);
    EXPECT_THAT(worker().waitForTexts(3), ElementsAre("now", "now", "and then"));
}

TEST_F(WebWorkerCapture, MessagesOfOneMomentStandInThePagesOrderByName) {
    worker().watchUntilOpen("Team Room");
    page().run(
        "for (let n = 0; n < 20; ++n) client.receive('Team Room', { id: 'm' + n, sender: 'Ann', text: 'no ' + n })");
    std::vector<std::string> received;
    for (int n = 0; n < 20; ++n) received.push_back("no " + std::to_string(n));
    EXPECT_EQ(worker().waitForTexts(20), received);
    worker().waitForDetail("Captured 20 inbound message(s).");
}

TEST_F(WebWorkerInbound, MessagesStandBehindThoseThatAnEarlierWorkerLeft) {
    const auto place = WebWorkerOptions();
    std::vector<std::string> received;
    for (const std::string text : {"first", "second", "third"}) {
        received.push_back(text);
        DrivenPage page(three_chats);
        WebWorkerProcess worker(WebWorkerOptions(place).withUrl(page.url()));
        worker.waitForState("linked");
        worker.watchUntilOpen("Team Room");
        page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: '" + text + "' })");
        EXPECT_EQ(worker.waitForTexts(received.size()), received);
    }
}

TEST_F(WebWorkerCapture, AMessageThatLeavesTheListBeforeTheNextLookIsDelivered) {
    worker().watchUntilOpen("Team Room");
    page().run(
        "client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'fleeting' });"
        "setTimeout(() => document.querySelector('.message-in').remove(), 0)");
    EXPECT_THAT(worker().waitForTexts(1), ElementsAre("fleeting"));
}

TEST_F(WebWorkerCapture, MessagesOfAGroupNameTheirSenders) {
    worker().watchUntilOpen("Family");
    receive("Family", {{"id", "m1"}, {"sender", "Ann Lee"}, {"text", "from Ann"}});
    receive("Family", {{"id", "m2"}, {"sender", "Bob"}, {"text", "from Bob"}});
    std::vector<std::string> senders;
    for (const auto& record : worker().waitForRecords(2)) {
        senders.push_back(record["senderId"].get<std::string>() + ": " + record["text"].get<std::string>());
        EXPECT_EQ(record["conversationTitle"], "Family");
        EXPECT_EQ(record["isDirectMessage"], true);
    }
    EXPECT_THAT(senders, ElementsAre("ann-lee: from Ann", "bob: from Bob"));
}

TEST_F(WebWorkerCapture, ComesBackToTheWatchedChatWhenAnotherOneWasOpened) {
    worker().watchUntilOpen("Team Room");
    const auto before = worker().journal().size();
    page().run("client.open('Ann Lee')");
    const auto opening = worker().waitForDetail("Opening chat 'Team Room'", before);
    worker().waitForState("watching_chat", opening);
    receive("Team Room", {{"id", "m1"}, {"sender", "Ann"}, {"text", "back again"}});
    EXPECT_THAT(worker().waitForTexts(1), ElementsAre("back again"));
}

TEST_F(WebWorkerCapture, SaysSoWhileItCannotLeaveAnotherChat) {
    page().run(
        "client.open('Ann Lee'); document.getElementById('pane-side').remove();"
        "document.querySelector('#side input').style.display = 'none'");
    worker().watch("Team Room");
    const auto switching = worker().waitForDetail("Active chat is 'Ann Lee'. Switching to 'Team Room'.");
    EXPECT_EQ(worker().journal().statuses()[switching]["state"], "activating_chat");
    page().run("document.getElementById('main').replaceChildren()");
    worker().waitForDetail("Selecting chat 'Team Room' in the managed runtime session.", switching);
}

TEST_F(WebWorkerCapture, WhatArrivedInTheWatchedChatIsDeliveredAfterAnAbsence) {
    worker().watchUntilOpen("Team Room");
    page().run(
        "client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'just before' });"
        "setTimeout(() => client.open('Ann Lee'), 0)");
    EXPECT_THAT(worker().waitForTexts(1), ElementsAre("just before"));
}

TEST_F(WebWorkerCapture, FollowsTheScopeToAnotherChat) {
    worker().watchUntilOpen("Team Room", "first");
    receive("Team Room", {{"id", "m1"}, {"sender", "Ann"}, {"text", "in the first"}});
    worker().waitForRecords(1);
    worker().watch("Family", "second");
    const auto linked = worker().waitForDetail("Managed live listening is configured for 'Family'.");
    worker().waitForDetail("Watching chat 'Family'", linked);
    receive("Team Room", {{"id", "m2"}, {"sender", "Ann"}, {"text", "not listened to"}});
    receive("Family", {{"id", "m3"}, {"sender", "Ann"}, {"text", "in the second"}});
    for (const auto& record : worker().waitForRecords(2)) {
        EXPECT_EQ(record["conversationId"], record["text"] == "in the first" ? "first" : "second") << record;
    }
}

TEST_F(WebWorkerCapture, StopsWhenTheControlRecordIsGone) {
    worker().watchUntilOpen("Team Room");
    const auto before = worker().journal().size();
    std::filesystem::remove(worker().path("runtime/worker-control.json"));
    const std::string unwatched = "Select a watched chat title to start live listening.";
    // What was asked of the page before the record went may be answered until the next tick.
    const auto first = worker().waitForDetail(unwatched, before);
    const auto linked = worker().waitForDetail(unwatched, first + 1);
    receive("Team Room", {{"id", "m1"}, {"sender", "Ann"}, {"text", "unheard"}});
    worker().waitForMoreStatuses();
    const auto statuses = worker().journal().statuses();
    for (auto index = linked; index < statuses.size(); ++index) EXPECT_EQ(statuses[index]["state"], "linked");
    EXPECT_THAT(namesIn(worker().path("inbound")), testing::IsEmpty());
}

/// Control records that select no chat.
struct NoSelection {
    const char* name;
    const char* content;
};

class WebWorkerControl : public WebWorkerCapture, public testing::WithParamInterface<NoSelection> {};

TEST_P(WebWorkerControl, EndsTheWatch) {
    worker().watchUntilOpen("Team Room");
    const auto before = worker().journal().size();
    writeFileAtomically(worker().path("runtime/worker-control.json"), GetParam().content);
    worker().waitForDetail("Select a watched chat title to start live listening.", before);
    worker().watchUntilOpen("Family");
}

INSTANTIATE_TEST_SUITE_P(
    NoChat, WebWorkerControl,
    testing::Values(
        NoSelection{"Garbage", "no JSON"}, NoSelection{"Empty", ""},
        NoSelection{"WithoutScope", R"({"platform":"whatsapp","updatedAtISO8601":"2026-01-05T09:30:00Z"})"},
        NoSelection{
            "NullScope",
            R"({"platform":"whatsapp","activeScope":null,"updatedAtISO8601":"2026-01-05T09:30:00Z"})"},
        NoSelection{
            "TestOnly",
            R"({"platform":"whatsapp","activeScope":{"kind":"testOnly","title":"Team Room"},"updatedAtISO8601":"x"})"},
        NoSelection{
            "BlankTitle",
            R"({"platform":"whatsapp","activeScope":{"kind":"channel","id":"a","title":" \n"},"updatedAtISO8601":"x"})"},
        NoSelection{"MistypedScope",
                    R"({"platform":"whatsapp","activeScope":"Team Room","updatedAtISO8601":"x"})"}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(WebWorkerCapture, ARecordForAnotherPlatformChangesNothing) {
    worker().watchUntilOpen("Team Room");
    worker().control({{"kind", "conversation"}, {"id", "x"}, {"title", "Family"}}, "signal");
    worker().waitForMoreStatuses(6);
    receive("Team Room", {{"id", "m1"}, {"sender", "Ann"}, {"text", "still heard"}});
    EXPECT_THAT(worker().waitForTexts(1), ElementsAre("still heard"));
    for (const auto& detail : worker().journal().details()) EXPECT_THAT(detail, Not(HasSubstr("Family")));
}

TEST_F(WebWorkerInbound, ARecordThatCannotBeWrittenIsAnErrorAndTheNextOneIsDelivered) {
    DrivenPage page(three_chats);
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.waitForState("linked");
    worker.watchUntilOpen("Team Room");
    std::filesystem::remove(worker.path("inbound"));
    page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'lost' })");
    const auto failed = worker.waitForDetail("Managed WhatsApp worker failed to poll inbound messages: ");
    EXPECT_EQ(worker.journal().statuses()[failed]["state"], "error");
    std::filesystem::create_directory(worker.path("inbound"));
    page.run("client.receive('Team Room', { id: 'm2', sender: 'Ann', text: 'kept' })");
    EXPECT_THAT(worker.waitForTexts(1), ElementsAre("kept"));
}

}  // namespace
}  // namespace brindle::test

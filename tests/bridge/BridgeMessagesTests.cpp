#include "bridge/BridgeMessages.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "records/DecodingFailure.h"
#include "support/WantOfMemory.h"

namespace brindle {
namespace {

using Kind = DecodingFailure::Kind;

BridgeInboundMessageEvent sampleEvent() {
    return {.messageId = "m-1",
            .conversationId = "team-room",
            .conversationTitle = "Team Room",
            .senderId = "s-1",
            .senderDisplayName = "Zoë",
            .text = "On my way/now",
            .timestampISO8601 = "2026-01-05T09:30:00Z",
            .isDirectMessage = true,
            .rawReference = "raw"};
}

struct Message {
    std::string description;
    BridgeEnvelope envelope;
    std::string json;
};

void PrintTo(const Message& message, std::ostream* stream) {
    *stream << message.json;
}

std::vector<Message> everyMessage() {
    auto eventWithoutReference = sampleEvent();
    eventWithoutReference.rawReference.reset();
    eventWithoutReference.isDirectMessage = false;
    const BridgeAttachment full{.id = "a-1",
                                .kind = "image",
                                .fileName = "cat.png",
                                .mimeType = "image/png",
                                .localPath = "/tmp/cat.png",
                                .dataBase64 = "aGk=",
                                .caption = "A cat"};
    const BridgeAttachment bare{.id = {},
                                .kind = "document",
                                .fileName = "",
                                .mimeType = "text/plain",
                                .localPath = {},
                                .dataBase64 = {},
                                .caption = {}};
    return {
        {"Hello", BridgeHello{"whatsapp", "managed-whatsapp-backend-3"},
         R"({"hello":{"_0":{"bridgeVersion":"managed-whatsapp-backend-3","platform":"whatsapp"}}})"},
        {"Connect", BridgeConnectRequest{"whatsapp"}, R"({"connect":{"_0":{"platform":"whatsapp"}}})"},
        {"Disconnect", BridgeDisconnectRequest{"whatsapp"},
         R"({"disconnect":{"_0":{"platform":"whatsapp"}}})"},
        {"StartListeningConversation",
         BridgeStartListeningRequest{"whatsapp", BridgeConversationScope{"team-room", "Team Room"}},
         R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"conversation":{"id":"team-room","title":"Team Room"}}}}})"},
        {"StartListeningChannel", BridgeStartListeningRequest{"whatsapp", BridgeChannelScope{"news", "News"}},
         R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"channel":{"id":"news","title":"News"}}}}})"},
        {"StartListeningThread", BridgeStartListeningRequest{"whatsapp", BridgeThreadScope{"t-9", "Launch"}},
         R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"thread":{"id":"t-9","title":"Launch"}}}}})"},
        {"StartListeningThreadWithoutTitle",
         BridgeStartListeningRequest{"whatsapp", BridgeThreadScope{"t-9", std::nullopt}},
         R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"thread":{"id":"t-9"}}}}})"},
        {"StartListeningThreadWithEmptyTitle",
         BridgeStartListeningRequest{"whatsapp", BridgeThreadScope{"t-9", ""}},
         R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"thread":{"id":"t-9","title":""}}}}})"},
        {"StartListeningTestOnly", BridgeStartListeningRequest{"whatsapp", BridgeTestOnlyScope{"Smoke test"}},
         R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"testOnly":{"title":"Smoke test"}}}}})"},
        {"StopListening", BridgeStopListeningRequest{"whatsapp"},
         R"({"stopListening":{"_0":{"platform":"whatsapp"}}})"},
        {"SendMessage",
         BridgeSendMessageRequest{"whatsapp",
                                  {.conversationId = "team-room",
                                   .text = "On my way",
                                   .replyToMessageId = "m-17",
                                   .attachments = {}}},
         R"({"sendMessage":{"_0":{"message":{"conversationId":"team-room","replyToMessageId":"m-17","text":"On my way"},"platform":"whatsapp"}}})"},
        {"SendMessageWithAttachments",
         BridgeSendMessageRequest{"whatsapp",
                                  {.conversationId = "c",
                                   .text = "",
                                   .replyToMessageId = {},
                                   .attachments = std::vector{full, bare}}},
         R"({"sendMessage":{"_0":{"message":{"attachments":[{"caption":"A cat","dataBase64":"aGk=","fileName":"cat.png","id":"a-1","kind":"image","localPath":"\/tmp\/cat.png","mimeType":"image\/png"},{"fileName":"","kind":"document","mimeType":"text\/plain"}],"conversationId":"c","text":""},"platform":"whatsapp"}}})"},
        {"SendMessageWithEmptyAttachments",
         BridgeSendMessageRequest{"whatsapp",
                                  {.conversationId = "c",
                                   .text = "t",
                                   .replyToMessageId = {},
                                   .attachments = std::vector<BridgeAttachment>{}}},
         R"({"sendMessage":{"_0":{"message":{"attachments":[],"conversationId":"c","text":"t"},"platform":"whatsapp"}}})"},
        {"InboundEvent", BridgeInboundEvent{sampleEvent()},
         R"({"inboundEvent":{"_0":{"event":{"conversationId":"team-room","conversationTitle":"Team Room","isDirectMessage":true,"messageId":"m-1","rawReference":"raw","senderDisplayName":"Zoë","senderId":"s-1","text":"On my way\/now","timestampISO8601":"2026-01-05T09:30:00Z"}}}})"},
        {"InboundEventWithoutReference", BridgeInboundEvent{eventWithoutReference},
         R"({"inboundEvent":{"_0":{"event":{"conversationId":"team-room","conversationTitle":"Team Room","isDirectMessage":false,"messageId":"m-1","senderDisplayName":"Zoë","senderId":"s-1","text":"On my way\/now","timestampISO8601":"2026-01-05T09:30:00Z"}}}})"},
        {"StateDisconnected", BridgeStateChangedEvent{BridgeDisconnectedState{}},
         R"({"stateChanged":{"_0":{"state":{"disconnected":{}}}}})"},
        {"StateConnecting", BridgeStateChangedEvent{BridgeConnectingState{}},
         R"({"stateChanged":{"_0":{"state":{"connecting":{}}}}})"},
        {"StateConnected", BridgeStateChangedEvent{BridgeConnectedState{"Brindle Managed WhatsApp Backend"}},
         R"({"stateChanged":{"_0":{"state":{"connected":{"accountDisplayName":"Brindle Managed WhatsApp Backend"}}}}})"},
        {"StateConnectedWithoutName", BridgeStateChangedEvent{BridgeConnectedState{std::nullopt}},
         R"({"stateChanged":{"_0":{"state":{"connected":{}}}}})"},
        {"StateError", BridgeStateChangedEvent{BridgeErrorState{"worker stopped"}},
         R"({"stateChanged":{"_0":{"state":{"error":{"message":"worker stopped"}}}}})"},
        {"Error", BridgeErrorEvent{"example failure text"},
         R"({"error":{"_0":{"message":"example failure text"}}})"},
    };
}

class BridgeMessageTests : public testing::TestWithParam<Message> {};

TEST_P(BridgeMessageTests, IsWrittenAsOneLine) {
    EXPECT_EQ(encodedLine(GetParam().envelope), GetParam().json + "\n");
}

TEST_P(BridgeMessageTests, IsReadFromItsLine) {
    const auto envelope = decodedRecord<BridgeEnvelope>(GetParam().json);
    EXPECT_EQ(envelope.index(), GetParam().envelope.index());
    EXPECT_EQ(encodedLine(envelope), GetParam().json + "\n");
}

INSTANTIATE_TEST_SUITE_P(Messages, BridgeMessageTests, testing::ValuesIn(everyMessage()),
                         [](const auto& each) { return each.param.description; });

TEST(BridgeReadingTests, EveryCaseHasAnExample) {
    std::vector<bool> seen(BridgeEnvelope::case_names.size());
    for (const auto& message : everyMessage()) seen[message.envelope.index()] = true;
    EXPECT_EQ(seen, std::vector<bool>(BridgeEnvelope::case_names.size(), true));
}

TEST(BridgeReadingTests, OrderAndWhiteSpaceDoNotMatter) {
    const auto envelope = decodedRecord<BridgeEnvelope>(
        " { \"sendMessage\" : {\t\"_0\" : { \"platform\":\"p\" , \"message\":\r{ \"text\":\"t\", \"conversationId\":\"c\" } } } } ");
    EXPECT_EQ(std::get<BridgeSendMessageRequest>(envelope).message.text, "t");
}

TEST(BridgeReadingTests, UnknownMembersAreIgnoredEverywhere) {
    const auto envelope =
        decodedRecord<BridgeEnvelope>(R"({"note":1,"startListening":{"x":{},"_0":{"y":1e999,"platform":"p",)"
                                      R"("scope":{"z":[],"thread":{"w":null,"id":"t"}}}}})");
    const auto& request = std::get<BridgeStartListeningRequest>(envelope);
    EXPECT_EQ(std::get<BridgeThreadScope>(request.scope).id, "t");
}

TEST(BridgeReadingTests, NullOptionsAreAbsent) {
    const auto envelope = decodedRecord<BridgeEnvelope>(
        R"({"sendMessage":{"_0":{"platform":"p","message":{"conversationId":"c","text":"t",)"
        R"("replyToMessageId":null,"attachments":null}}}})");
    const auto& message = std::get<BridgeSendMessageRequest>(envelope).message;
    EXPECT_EQ(message.replyToMessageId, std::nullopt);
    EXPECT_FALSE(message.attachments.has_value());
}

TEST(BridgeReadingTests, NullOptionsOfAttachmentsAreAbsent) {
    const auto envelope = decodedRecord<BridgeEnvelope>(
        R"({"sendMessage":{"_0":{"platform":"p","message":{"conversationId":"c","text":"t","attachments":[)"
        R"({"id":null,"kind":"k","fileName":"f","mimeType":"m","localPath":null,"dataBase64":null,"caption":null}]}}}})");
    const auto& attachments = std::get<BridgeSendMessageRequest>(envelope).message.attachments;
    ASSERT_TRUE(attachments && attachments->size() == 1);
    EXPECT_EQ(encodedRecord(attachments->front(), JsonStyle::compact),
              R"({"fileName":"f","kind":"k","mimeType":"m"})");
}

TEST(BridgeReadingTests, Base64IsNotInspected) {
    const auto envelope = decodedRecord<BridgeEnvelope>(
        R"({"sendMessage":{"_0":{"platform":"p","message":{"conversationId":"c","text":"t","attachments":[)"
        R"({"kind":"k","fileName":"f","mimeType":"m","dataBase64":"not base64 at all!"}]}}}})");
    EXPECT_EQ(std::get<BridgeSendMessageRequest>(envelope).message.attachments->front().dataBase64,
              "not base64 at all!");
}

struct BadMessage {
    std::string json;
    Kind kind;
    std::string path;
};

void PrintTo(const BadMessage& message, std::ostream* stream) {
    *stream << message.json;
}

class BadMessageTests : public testing::TestWithParam<BadMessage> {};

TEST_P(BadMessageTests, FailsNamingThePlace) {
    const auto& [json, kind, path] = GetParam();
    try {
        decodedRecord<BridgeEnvelope>(json);
        ADD_FAILURE() << "accepted: " << json;
    } catch (const DecodingFailure& failure) {
        EXPECT_EQ(failure.kind(), kind) << json;
        const std::string description = failure.what();
        const std::string place = path.empty() ? "." : " (at " + path + ").";
        EXPECT_TRUE(description.ends_with(place)) << description;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Messages, BadMessageTests,
    testing::Values(
        BadMessage{R"({})", Kind::typeMismatch, ""}, BadMessage{R"([])", Kind::typeMismatch, ""},
        BadMessage{R"("connect")", Kind::typeMismatch, ""},
        BadMessage{R"({"Connect":{"_0":{"platform":"x"}}})", Kind::typeMismatch, ""},
        BadMessage{R"({"connect":{"_0":{"platform":"x"}},"disconnect":{"_0":{"platform":"x"}}})",
                   Kind::typeMismatch, ""},
        BadMessage{R"({"connect":{"_0":{"platform":"x"}},"connect":{"_0":{"platform":"x"}}})",
                   Kind::typeMismatch, ""},
        BadMessage{R"({"connect":{"platform":"whatsapp"}})", Kind::missingKey, "connect._0"},
        BadMessage{R"({"connect":{"_0":null}})", Kind::missingValue, "connect._0"},
        BadMessage{R"({"connect":{"_0":"x"}})", Kind::typeMismatch, "connect._0"},
        BadMessage{R"({"connect":[]})", Kind::typeMismatch, "connect"},
        BadMessage{R"({"connect":{"_0":{}}})", Kind::missingKey, "connect._0.platform"},
        BadMessage{R"({"connect":{"_0":{"platform":null}}})", Kind::missingValue, "connect._0.platform"},
        BadMessage{R"({"connect":{"_0":{"platform":1}}})", Kind::typeMismatch, "connect._0.platform"},
        BadMessage{R"({"startListening":{"_0":{"platform":"p"}}})", Kind::missingKey,
                   "startListening._0.scope"},
        BadMessage{R"({"startListening":{"_0":{"platform":"p","scope":{}}}})", Kind::typeMismatch,
                   "startListening._0.scope"},
        BadMessage{
            R"({"startListening":{"_0":{"platform":"p","scope":{"channel":{"id":"a","title":"b"},"testOnly":{"title":"c"}}}}})",
            Kind::typeMismatch, "startListening._0.scope"},
        BadMessage{R"({"startListening":{"_0":{"platform":"p","scope":{"channel":{"id":"a"}}}}})",
                   Kind::missingKey, "startListening._0.scope.channel.title"},
        BadMessage{
            R"({"startListening":{"_0":{"platform":"p","scope":{"channel":{"_0":{"id":"a","title":"b"}}}}}})",
            Kind::missingKey, "startListening._0.scope.channel.id"},
        BadMessage{R"({"startListening":{"_0":{"platform":"p","scope":{"thread":{"id":"a","title":1}}}}})",
                   Kind::typeMismatch, "startListening._0.scope.thread.title"},
        BadMessage{R"({"startListening":{"_0":{"platform":"p","scope":"thread"}}})", Kind::typeMismatch,
                   "startListening._0.scope"},
        BadMessage{
            R"({"sendMessage":{"_0":{"platform":"p","message":{"conversationId":"c","text":"t","attachments":[{"fileName":"f","mimeType":"m"}]}}}})",
            Kind::missingKey, "sendMessage._0.message.attachments[0].kind"},
        BadMessage{
            R"({"sendMessage":{"_0":{"platform":"p","message":{"conversationId":"c","text":"t","attachments":{}}}}})",
            Kind::typeMismatch, "sendMessage._0.message.attachments"},
        BadMessage{R"({"inboundEvent":{"_0":{"event":{}}}})", Kind::missingKey,
                   "inboundEvent._0.event.messageId"},
        BadMessage{R"({"stateChanged":{"_0":{"state":{"unknown":{}}}}})", Kind::typeMismatch,
                   "stateChanged._0.state"},
        BadMessage{R"({"error":{"_0":{"message":{}}}})", Kind::typeMismatch, "error._0.message"},
        BadMessage{R"({"connect":{"_0":{"platform":"x"}}}{"connect":{"_0":{"platform":"x"}}})",
                   Kind::malformedData, ""}));

TEST(BridgeReadingTests, WrongNumberOfCasesHasItsDetail) {
    for (const std::string_view text :
         {"{}", R"({"connect":{"_0":{"platform":"x"}},"disconnect":{"_0":{"platform":"x"}}})",
          R"({"startListening":{"_0":{"platform":"p","scope":{}}}})"}) {
        try {
            decodedRecord<BridgeEnvelope>(text);
            ADD_FAILURE() << "accepted: " << text;
        } catch (const DecodingFailure& failure) {
            EXPECT_EQ(failure.detail(), "Invalid number of keys found, expected one.");
        }
    }
}

TEST(BridgeMessagesTests, EndingALargeEnvelopesLineCopiesNothing) {
    constexpr std::size_t large = std::size_t{1} << 20U;
    const BridgeEnvelope envelope = BridgeErrorEvent{std::string(large, 'x')};
    const auto largePieces = [](const auto& encode) {
        const test::LargePieces pieces(large);
        encode();
        return pieces.count();
    };
    const int ofTheDocument = largePieces([&] { encodedRecord(envelope, JsonStyle::compact); });
    EXPECT_GE(ofTheDocument, 1);
    EXPECT_EQ(largePieces([&] { encodedLine(envelope); }), ofTheDocument);
}

}  // namespace
}  // namespace brindle

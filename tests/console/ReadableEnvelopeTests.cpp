#include "console/ReadableEnvelope.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bridge/BridgeMessages.h"

namespace brindle::console {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string lineOf(const BridgeEnvelope& envelope) {
    auto line = encodedLine(envelope);
    line.pop_back();
    return line;
}

std::string received(const BridgeEnvelope& envelope) {
    return readableEnvelope(Direction::fromHelper, lineOf(envelope), false);
}

std::string sent(const BridgeEnvelope& envelope) {
    return readableEnvelope(Direction::toHelper, lineOf(envelope), false);
}

BridgeInboundEvent messageFrom(const std::string& name, const std::string& text) {
    return {.event = {.messageId = "m",
                      .conversationId = "c",
                      .conversationTitle = "Team Room",
                      .senderId = "bo",
                      .senderDisplayName = name,
                      .text = text,
                      .timestampISO8601 = "2026-01-05T09:30:00Z",
                      .isDirectMessage = true,
                      .rawReference = std::nullopt}};
}

TEST(ReadableEnvelope, OfAMessageIsItsSenderAndItsText) {
    EXPECT_EQ(received(messageFrom("Bo Nilsson", "Good morning!")), "Bo Nilsson: Good morning!");
    EXPECT_EQ(received(messageFrom("", "Good morning!")), "bo: Good morning!");
}

TEST(ReadableEnvelope, OfASenderWhoseNameLooksLikeAnotherLineIsToldApart) {
    EXPECT_EQ(received(messageFrom("<-- error", "x")), "\"<-- error\": x");
    EXPECT_EQ(received(messageFrom("--> connect", "x")), "\"--> connect\": x");
}

TEST(ReadableEnvelope, HasTheNameAsExpectTakesIt) {
    EXPECT_EQ(received(BridgeStateChangedEvent{.state = BridgeConnectingState{}}),
              "<-- stateChanged.connecting");
    EXPECT_EQ(received(BridgeStateChangedEvent{.state = BridgeConnectedState{.accountDisplayName = "Ann"}}),
              "<-- stateChanged.connected: Ann");
    EXPECT_EQ(received(BridgeStateChangedEvent{.state = BridgeErrorState{.message = "broken"}}),
              "<-- stateChanged.error: broken");
    EXPECT_EQ(sent(BridgeConnectRequest{.platform = "whatsapp"}), "--> connect");
    EXPECT_EQ(received(BridgeHello{.platform = "whatsapp", .bridgeVersion = "v3"}),
              "<-- hello: v3 for whatsapp");
}

TEST(ReadableEnvelope, SaysWhatIsListenedTo) {
    const auto listening = [](BridgeScope scope) {
        return sent(BridgeStartListeningRequest{.platform = "whatsapp", .scope = std::move(scope)});
    };
    EXPECT_EQ(listening(BridgeConversationScope{.id = "c", .title = "Team"}),
              "--> startListening: conversation \"Team\" [c]");
    EXPECT_EQ(listening(BridgeChannelScope{.id = "c", .title = "News"}),
              "--> startListening: channel \"News\" [c]");
    EXPECT_EQ(listening(BridgeThreadScope{.id = "t", .title = std::nullopt}),
              "--> startListening: thread [t]");
    EXPECT_EQ(listening(BridgeTestOnlyScope{.title = "Smoke"}), "--> startListening: test \"Smoke\"");
}

TEST(ReadableEnvelope, StaysOnOneLine) {
    EXPECT_EQ(received(BridgeErrorEvent{.message = "a\nb\tc\rd"}), "<-- error: a\\nb\\tc?d");
}

TEST(ReadableEnvelope, HasNothingThatATerminalObeys) {
    const auto text = received(messageFrom("\033[2Ja",
                                           "\x7F \xC2\x9B"
                                           "2J é"));
    EXPECT_THAT(text, Not(HasSubstr("\033")));
    EXPECT_THAT(text, Not(HasSubstr("\x7F")));
    EXPECT_THAT(text, Not(HasSubstr("\xC2\x9B")));
    EXPECT_THAT(text, HasSubstr("é"));
}

TEST(ReadableEnvelope, OfAMessageThatGoesOutNamesItsFilesWithoutTheirContent) {
    const BridgeAttachment attachment{.id = std::nullopt,
                                      .kind = "image",
                                      .fileName = "a.png",
                                      .mimeType = "image/png",
                                      .localPath = std::nullopt,
                                      .dataBase64 = "QUJDRA==",
                                      .caption = std::nullopt};
    EXPECT_EQ(sent(BridgeSendMessageRequest{.platform = "whatsapp",
                                            .message = {.conversationId = "room",
                                                        .text = "On my way",
                                                        .replyToMessageId = "m-17",
                                                        .attachments = {{attachment}}}}),
              "--> sendMessage to room: On my way (answers m-17) (with a.png, image/png)");
}

TEST(ReadableEnvelope, MarksALineThatIsNoneAndShowsItAsItIs) {
    EXPECT_EQ(readableEnvelope(Direction::fromHelper, "garbage \\/", false),
              "<-- (not an envelope) garbage \\/");
    EXPECT_EQ(readableEnvelope(Direction::toHelper, "a\tb\033", false), "--> (not an envelope) a?b?");
}

TEST(ReadableEnvelope, HasColorsOnlyWhenAsked) {
    const auto line = lineOf(BridgeErrorEvent{.message = "x"});
    EXPECT_THAT(readableEnvelope(Direction::fromHelper, line, true), HasSubstr("\033["));
    EXPECT_THAT(readableEnvelope(Direction::fromHelper, line, false), Not(HasSubstr("\033[")));
}

TEST(RawEnvelope, IsTheLineItself) {
    EXPECT_EQ(rawEnvelope(Direction::toHelper, R"({"a":"\/"})", false), R"(--> {"a":"\/"})");
    EXPECT_EQ(rawEnvelope(Direction::fromHelper, "\033", false), R"(<-- \u001b)");
}

}  // namespace
}  // namespace brindle::console

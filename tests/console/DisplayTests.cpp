#include "console/Display.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bridge/BridgeMessages.h"

namespace brindle::console {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string readable(const BridgeEnvelope& envelope) {
    auto line = encodedLine(envelope);
    line.pop_back();
    return readableEnvelope(line, false);
}

TEST(ReadableEnvelope, ShowsTheNameAsExpectTakesIt) {
    EXPECT_EQ(readable(BridgeStateChangedEvent{.state = BridgeConnectingState{}}),
              R"(stateChanged.connecting {"state":{"connecting":{}}})");
    EXPECT_EQ(readable(BridgeConnectRequest{.platform = "whatsapp"}), R"(connect {"platform":"whatsapp"})");
}

TEST(ReadableEnvelope, ShowsSlashesPlain) {
    EXPECT_EQ(readable(BridgeErrorEvent{.message = "/skiff \\/ help"}),
              R"(error {"message":"/skiff \\/ help"})");
}

TEST(ReadableEnvelope, StaysOnOneLine) {
    EXPECT_EQ(readable(BridgeErrorEvent{.message = "a\nb\rc"}), R"(error {"message":"a\nb\rc"})");
}

TEST(ReadableEnvelope, HasNothingThatATerminalObeys) {
    const auto text = readable(BridgeErrorEvent{.message = "\033[2J \x7F \xC2\x9B"
                                                           "2J é"});
    EXPECT_THAT(text, Not(HasSubstr("\033")));
    EXPECT_THAT(text, Not(HasSubstr("\x7F")));
    EXPECT_THAT(text, Not(HasSubstr("\xC2\x9B")));
    EXPECT_THAT(text, HasSubstr("é"));
}

TEST(ReadableEnvelope, OnlyCountsContentOfAttachments) {
    const BridgeAttachment attachment{.id = std::nullopt,
                                      .kind = "image",
                                      .fileName = "a.png",
                                      .mimeType = "image/png",
                                      .localPath = std::nullopt,
                                      .dataBase64 = "QUJDRA==",
                                      .caption = std::nullopt};
    const auto text = readable(BridgeSendMessageRequest{.platform = "whatsapp",
                                                        .message = {.conversationId = "c",
                                                                    .text = "t",
                                                                    .replyToMessageId = std::nullopt,
                                                                    .attachments = {{attachment}}}});
    EXPECT_THAT(text, HasSubstr(R"x("dataBase64":"(8 characters)")x"));
    EXPECT_THAT(text, HasSubstr(R"("fileName":"a.png")"));
}

TEST(ReadableEnvelope, MarksALineThatIsNoneAndShowsItAsItIs) {
    EXPECT_EQ(readableEnvelope("garbage \\/", false), "(not an envelope) garbage \\/");
    EXPECT_EQ(readableEnvelope("a\tb\033", false), "(not an envelope) a?b?");
}

TEST(ReadableEnvelope, HasColorsOnlyWhenAsked) {
    const auto line = encodedLine(BridgeErrorEvent{.message = "x"});
    EXPECT_THAT(readableEnvelope(line, true), HasSubstr("\033["));
    EXPECT_THAT(readableEnvelope(line, false), Not(HasSubstr("\033[")));
}

TEST(DisplayStyle, FollowsAnExplicitChoiceWhateverTheEnvironmentSays) {
    Options options;
    options.color = ColorChoice::always;
    EXPECT_TRUE(DisplayStyle::from(options, {{"NO_COLOR", "1"}, {"TERM", "dumb"}}).colorsOutput);
    options.color = ColorChoice::never;
    EXPECT_FALSE(DisplayStyle::from(options, {{"TERM", "xterm"}}).colorsOutput);
}

}  // namespace
}  // namespace brindle::console

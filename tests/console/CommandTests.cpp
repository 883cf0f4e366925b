#include "console/Command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "text/Failure.h"

namespace brindle::console {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

template <class Expected>
Expected parsed(std::string_view line) {
    const auto command = parseCommand(line);
    if (!command) throw Failure("no command");
    return std::get<Expected>(*command);
}

std::string refusal(std::string_view line) {
    try {
        parseCommand(line);
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "(accepted)";
}

TEST(Command, OfABlankLineOrACommentIsNone) {
    EXPECT_FALSE(parseCommand(""));
    EXPECT_FALSE(parseCommand("  \t"));
    EXPECT_FALSE(parseCommand("  # connect"));
}

TEST(Command, WithoutArgumentsIsKnownByItsName) {
    EXPECT_NO_THROW(parsed<ConnectCommand>("connect"));
    EXPECT_NO_THROW(parsed<DisconnectCommand>(" disconnect "));
    EXPECT_NO_THROW(parsed<StopCommand>("stop"));
    EXPECT_NO_THROW(parsed<StatusCommand>("status"));
    EXPECT_NO_THROW(parsed<HelpCommand>("help"));
    EXPECT_NO_THROW(parsed<QuitCommand>("quit"));
}

TEST(Command, WithoutArgumentsRefusesAny) {
    EXPECT_EQ(refusal("connect now"), "Usage: connect");
}

TEST(Command, ThatIsUnknownIsNamed) {
    EXPECT_EQ(refusal("conect"), "Unknown command \"conect\"; \"help\" lists the commands.");
}

TEST(Command, ThatIsUnknownCannotSendControlCharactersToTheTerminal) {
    EXPECT_EQ(refusal("\"\033[2J\""), "Unknown command \"?[2J\"; \"help\" lists the commands.");
}

TEST(Command, ListenTakesEveryScope) {
    const auto conversation =
        std::get<BridgeConversationScope>(parsed<ListenCommand>("listen conversation c1 'Team Room'").scope);
    EXPECT_EQ(conversation.id, "c1");
    EXPECT_EQ(conversation.title, "Team Room");
    const auto channel = std::get<BridgeChannelScope>(parsed<ListenCommand>("listen channel n News").scope);
    EXPECT_EQ(channel.id, "n");
    EXPECT_EQ(channel.title, "News");
    const auto test = std::get<BridgeTestOnlyScope>(parsed<ListenCommand>("listen test 'Smoke test'").scope);
    EXPECT_EQ(test.title, "Smoke test");
}

TEST(Command, ListenThreadMayLackItsTitle) {
    EXPECT_EQ(std::get<BridgeThreadScope>(parsed<ListenCommand>("listen thread t").scope).title,
              std::nullopt);
    EXPECT_EQ(std::get<BridgeThreadScope>(parsed<ListenCommand>("listen thread t L").scope).title, "L");
    EXPECT_EQ(std::get<BridgeThreadScope>(parsed<ListenCommand>("listen thread t ''").scope).title, "");
}

TEST(Command, ListenRefusesWhatIsMissingUnknownOrTooMuch) {
    for (const auto* line : {"listen", "listen room a b", "listen conversation a", "listen channel a",
                             "listen thread", "listen test", "listen test a b", "listen thread a b c"}) {
        EXPECT_THAT(refusal(line), HasSubstr("Usage: listen")) << line;
    }
}

TEST(Command, SendTakesOptionsAnywhere) {
    const auto command =
        parsed<SendCommand>("send --reply m-17 room --attach a.png \"On my way\" --attach b.txt");
    EXPECT_EQ(command.conversation, "room");
    EXPECT_EQ(command.text, "On my way");
    EXPECT_EQ(command.replyTo, "m-17");
    EXPECT_THAT(command.files, ElementsAre("a.png", "b.txt"));
}

TEST(Command, SendTakesATextThatLooksLikeAnOptionAfterTwoDashes) {
    const auto command = parsed<SendCommand>("send room -- --reply");
    EXPECT_EQ(command.text, "--reply");
    EXPECT_EQ(command.replyTo, std::nullopt);
}

TEST(Command, SendAsksForQuotesWhenTheTextHasSeveralWords) {
    EXPECT_EQ(refusal("send room On my way"), "The text to send is one word; put it in quotes.");
}

TEST(Command, SendRefusesWhatIsMissingOrUnknown) {
    for (const auto* line :
         {"send", "send room", "send room text --reply", "send room text --attach", "send room --loud"}) {
        EXPECT_THAT(refusal(line), HasSubstr("Usage: send")) << line;
    }
}

TEST(Command, RawKeepsTheRestOfTheLineAsItIs) {
    EXPECT_EQ(parsed<RawCommand>("raw {\"a\": 'b \\").line, "{\"a\": 'b \\");
    EXPECT_EQ(parsed<RawCommand>("  raw   x  ").line, "  x  ");
    EXPECT_EQ(parsed<RawCommand>("raw").line, "");
    EXPECT_THAT(refusal("rawx"), HasSubstr("Unknown command"));
}

TEST(Command, RawOnAndOffChooseWhatIsShown) {
    EXPECT_TRUE(parsed<RawModeCommand>("raw on").isOn);
    EXPECT_FALSE(parsed<RawModeCommand>(" raw off ").isOn);
    EXPECT_EQ(parsed<RawCommand>("raw once").line, "once");
}

TEST(Command, HasOtherNamesWherePeopleTryThem) {
    EXPECT_NO_THROW(parsed<HelpCommand>("?"));
    EXPECT_NO_THROW(parsed<QuitCommand>("exit"));
}

TEST(Command, ExpectHasDefaults) {
    const auto command = parsed<ExpectCommand>("expect stateChanged.connected");
    EXPECT_EQ(command.expectation.name, "stateChanged");
    EXPECT_EQ(command.expectation.innerName, "connected");
    EXPECT_EQ(command.expectation.containing, std::nullopt);
    EXPECT_EQ(command.patience, default_patience);
}

TEST(Command, ExpectTakesTextAndPatienceInAnyOrder) {
    const auto command = parsed<ExpectCommand>("expect error within 0.25 containing 'no such'");
    EXPECT_EQ(command.expectation.containing, "no such");
    EXPECT_EQ(command.patience, std::chrono::milliseconds(250));
}

TEST(Command, ExpectRefusesNamesThatNoEnvelopeHas) {
    EXPECT_EQ(
        refusal("expect inbound"),
        "The helper sends no envelope \"inbound\"; those that it sends are hello, inboundEvent, stateChanged, error.");
    EXPECT_THAT(refusal("expect connect"), HasSubstr("The helper sends no envelope \"connect\""));
    EXPECT_THAT(refusal("expect stateChanged.online"), HasSubstr("There is no state \"online\""));
    EXPECT_THAT(refusal("expect hello.connected"), HasSubstr("has no inner cases"));
    EXPECT_THAT(refusal("expect hello soon"), HasSubstr("Usage: expect"));
    EXPECT_THAT(refusal("expect hello containing"), HasSubstr("Usage: expect"));
}

TEST(Command, PatienceIsAPositiveNumberOfSeconds) {
    for (const auto* text : {"0", "-1", "soon", "1s", "nan", "inf", "1e9", ""}) {
        const auto line = std::string("expect hello within '").append(text).append("'");
        EXPECT_THAT(refusal(line), HasSubstr("is not a number of seconds")) << text;
    }
}

TEST(Command, WaitStatusTakesFieldValueAndPatience) {
    const auto command = parsed<WaitStatusCommand>("wait-status workerState linked within 3");
    EXPECT_EQ(command.field, "workerState");
    EXPECT_EQ(command.value, "linked");
    EXPECT_EQ(command.patience, std::chrono::seconds(3));
    EXPECT_EQ(parsed<WaitStatusCommand>("wait-status workerProcessRunning true").patience, default_patience);
}

TEST(Command, WaitStatusRefusesAFieldThatTheStatusLacks) {
    EXPECT_EQ(refusal("wait-status state linked"),
              "The runtime status has no field \"state\"; \"status\" shows its fields.");
    EXPECT_THAT(refusal("wait-status workerState"), HasSubstr("Usage: wait-status"));
    EXPECT_THAT(refusal("wait-status workerState linked soon"), HasSubstr("Usage: wait-status"));
}

TEST(Command, RefusalIsOneLineWhateverAWordHolds) {
    EXPECT_EQ(refusal("wait-status \"a\\nb\" linked"),
              "The runtime status has no field \"a?b\"; \"status\" shows its fields.");
    EXPECT_THAT(refusal("expect \"a\\nb\""), HasSubstr("The helper sends no envelope \"a?b\";"));
    EXPECT_THAT(refusal("expect \"stateChanged.a\x1B[2J\""), HasSubstr("There is no state \"a?[2J\";"));
    EXPECT_EQ(refusal("qr within \"1\\t\""), "\"1?\" is not a number of seconds between 0 and 86400.");
    EXPECT_EQ(refusal("fly\\naway"), "Unknown command \"fly?away\"; \"help\" lists the commands.");
}

TEST(Command, QRTakesPatience) {
    EXPECT_EQ(parsed<QRCommand>("qr").patience, default_patience);
    EXPECT_EQ(parsed<QRCommand>("qr within 0.5").patience, std::chrono::milliseconds(500));
    for (const auto* line : {"qr 5", "qr within", "qr within 5 seconds", "qr until", "qr until scanned"}) {
        EXPECT_EQ(refusal(line), "Usage: qr [until linked] [within SECONDS]") << line;
    }
    EXPECT_THAT(refusal("qr within soon"), HasSubstr("is not a number of seconds"));
}

TEST(Command, QRShowsOneCodeOrAllUntilLinked) {
    EXPECT_FALSE(parsed<QRCommand>("qr within 5").untilLinked);
    EXPECT_TRUE(parsed<QRCommand>("qr until linked").untilLinked);
    EXPECT_TRUE(parsed<QRCommand>("qr within 5 until linked").untilLinked);
    EXPECT_EQ(parsed<QRCommand>("qr until linked within 5").patience, std::chrono::seconds(5));
}

TEST(Command, HelpNamesEveryCommand) {
    const auto help = commandHelp();
    for (const auto* name : {"connect", "disconnect", "listen", "stop", "send", "status", "qr", "raw",
                             "expect", "wait-status", "help", "quit"}) {
        EXPECT_THAT("\n" + help, HasSubstr(std::string("\n") + name)) << name;
    }
}

}  // namespace
}  // namespace brindle::console

#include "console/CommandGrammar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace brindle::console {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

std::set<std::string> next(std::string_view usage, const std::vector<std::string>& words) {
    return expectedNext(usage, words);
}

constexpr std::string_view listen = "listen conversation|channel ID TITLE | thread ID [TITLE] | test TITLE";
constexpr std::string_view send = "send CONVERSATION TEXT [--reply ID] [--attach FILE]...";

TEST(CommandGrammar, ExpectsEveryAlternative) {
    EXPECT_THAT(next(listen, {"listen"}), UnorderedElementsAre("conversation", "channel", "thread", "test"));
}

TEST(CommandGrammar, FollowsTheAlternativeThatWasChosen) {
    EXPECT_THAT(next(listen, {"listen", "channel"}), ElementsAre("ID"));
    EXPECT_THAT(next(listen, {"listen", "channel", "c"}), ElementsAre("TITLE"));
    EXPECT_THAT(next(listen, {"listen", "test"}), ElementsAre("TITLE"));
    EXPECT_THAT(next(listen, {"listen", "thread", "t"}), ElementsAre("TITLE"));
}

TEST(CommandGrammar, ExpectsNothingBehindTheEnd) {
    EXPECT_THAT(next(listen, {"listen", "test", "t"}), IsEmpty());
    EXPECT_THAT(next("stop", {"stop"}), IsEmpty());
}

TEST(CommandGrammar, ExpectsNothingBehindAWordThatDoesNotBelong) {
    EXPECT_THAT(next(listen, {"listen", "room"}), IsEmpty());
}

TEST(CommandGrammar, TakesOptionsInAnyOrderAndAgain) {
    EXPECT_THAT(next(send, {"send", "c", "t"}), UnorderedElementsAre("--reply", "--attach"));
    EXPECT_THAT(next(send, {"send", "c", "t", "--attach"}), ElementsAre("FILE"));
    EXPECT_THAT(next(send, {"send", "c", "t", "--attach", "f", "--reply"}), ElementsAre("ID"));
    EXPECT_THAT(next(send, {"send", "c", "t", "--attach", "f"}), UnorderedElementsAre("--reply", "--attach"));
}

TEST(CommandGrammar, KeepsABracketInsideOfAWord) {
    EXPECT_THAT(next("expect CASE[.STATE] [within SECONDS]", {"expect"}), ElementsAre("CASE[.STATE]"));
    EXPECT_THAT(next("expect CASE[.STATE] [within SECONDS]", {"expect", "hello"}), ElementsAre("within"));
}

TEST(CommandGrammar, TellsWordsFromWhatSomebodyPutsThere) {
    EXPECT_TRUE(isPlaceholder("FILE"));
    EXPECT_FALSE(isPlaceholder("within"));
    EXPECT_FALSE(isPlaceholder("--reply"));
}

}  // namespace
}  // namespace brindle::console

#include "console/CommandWords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "text/Failure.h"

namespace brindle::console {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(CommandWords, AreSeparatedByAnyAmountOfWhiteSpace) {
    EXPECT_THAT(splitWords("  send \t team-room  hello "), ElementsAre("send", "team-room", "hello"));
}

TEST(CommandWords, OfABlankLineAreNone) {
    EXPECT_THAT(splitWords(" \t "), IsEmpty());
}

TEST(CommandWords, KeepWhiteSpaceInEitherQuotes) {
    EXPECT_THAT(splitWords(R"("On my way" 'Team  Room')"), ElementsAre("On my way", "Team  Room"));
}

TEST(CommandWords, KeepOneKindOfQuoteInsideTheOther) {
    EXPECT_THAT(splitWords(R"("it's" 'say "hi"')"), ElementsAre("it's", R"(say "hi")"));
}

TEST(CommandWords, CanBeEmptyInQuotes) {
    EXPECT_THAT(splitWords(R"(a "" '')"), ElementsAre("a", "", ""));
}

TEST(CommandWords, JoinQuotedAndUnquotedParts) {
    EXPECT_THAT(splitWords(R"(a" b "c)"), ElementsAre("a b c"));
}

TEST(CommandWords, TakeACharacterAfterABackslashAsItIs) {
    EXPECT_THAT(splitWords(R"(a\ b \"c\" "d\"e" \\)"), ElementsAre("a b", "\"c\"", "d\"e", "\\"));
}

TEST(CommandWords, KnowLineFeedAndTabByName) {
    EXPECT_THAT(splitWords(R"("a\nb" c\td)"), ElementsAre("a\nb", "c\td"));
}

TEST(CommandWords, KeepABackslashInSingleQuotes) {
    EXPECT_THAT(splitWords(R"('a\nb')"), ElementsAre(R"(a\nb)"));
}

TEST(CommandWords, KeepBytesBeyondAscii) {
    EXPECT_THAT(splitWords("Zoë 家族"), ElementsAre("Zoë", "家族"));
}

TEST(CommandWords, RefuseAnOpenQuote) {
    EXPECT_THROW(splitWords("send \"a b"), Failure);
    EXPECT_THROW(splitWords("send 'a b"), Failure);
}

TEST(CommandWords, RefuseABackslashAtTheEnd) {
    EXPECT_THROW(splitWords("send a\\"), Failure);
}

TEST(UnfinishedWords, EndWithTheWordThatIsBeingTyped) {
    const auto typed = splitUnfinished("send 'team room' he");
    EXPECT_THAT(typed.words, ElementsAre("send", "team room"));
    EXPECT_EQ(typed.last, "he");
    EXPECT_EQ(typed.lastBegin, 17U);
}

TEST(UnfinishedWords, BehindABlankHaveAnEmptyLast) {
    const auto typed = splitUnfinished("send ");
    EXPECT_THAT(typed.words, ElementsAre("send"));
    EXPECT_EQ(typed.last, "");
    EXPECT_EQ(typed.lastBegin, 5U);
}

TEST(UnfinishedWords, MayEndInAnOpenQuoteOrABackslash) {
    EXPECT_EQ(splitUnfinished("send \"team ro").last, "team ro");
    EXPECT_EQ(splitUnfinished("send \"team ro").lastBegin, 5U);
    EXPECT_EQ(splitUnfinished("send a\\").last, "a");
}

TEST(QuotedWord, IsReadBackAsItWas) {
    for (const std::string word :
         {"plain", "two words", "", "it's", "say \"hi\"", "back\\slash", "#x", "é"}) {
        EXPECT_THAT(splitWords(quotedWord(word)), ElementsAre(word));
    }
    EXPECT_EQ(quotedWord("plain"), "plain");
}

}  // namespace
}  // namespace brindle::console

#include "console/Words.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "text/Failure.h"

namespace brindle::console {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Words, AreSeparatedByAnyAmountOfWhiteSpace) {
    EXPECT_THAT(splitWords("  send \t team-room  hello "), ElementsAre("send", "team-room", "hello"));
}

TEST(Words, OfABlankLineAreNone) {
    EXPECT_THAT(splitWords(" \t "), IsEmpty());
}

TEST(Words, KeepWhiteSpaceInEitherQuotes) {
    EXPECT_THAT(splitWords(R"("On my way" 'Team  Room')"), ElementsAre("On my way", "Team  Room"));
}

TEST(Words, KeepOneKindOfQuoteInsideTheOther) {
    EXPECT_THAT(splitWords(R"("it's" 'say "hi"')"), ElementsAre("it's", R"(say "hi")"));
}

TEST(Words, CanBeEmptyInQuotes) {
    EXPECT_THAT(splitWords(R"(a "" '')"), ElementsAre("a", "", ""));
}

TEST(Words, JoinQuotedAndUnquotedParts) {
    EXPECT_THAT(splitWords(R"(a" b "c)"), ElementsAre("a b c"));
}

TEST(Words, TakeACharacterAfterABackslashAsItIs) {
    EXPECT_THAT(splitWords(R"(a\ b \"c\" "d\"e" \\)"), ElementsAre("a b", "\"c\"", "d\"e", "\\"));
}

TEST(Words, KnowLineFeedAndTabByName) {
    EXPECT_THAT(splitWords(R"("a\nb" c\td)"), ElementsAre("a\nb", "c\td"));
}

TEST(Words, KeepABackslashInSingleQuotes) {
    EXPECT_THAT(splitWords(R"('a\nb')"), ElementsAre(R"(a\nb)"));
}

TEST(Words, KeepBytesBeyondAscii) {
    EXPECT_THAT(splitWords("Zoë 家族"), ElementsAre("Zoë", "家族"));
}

TEST(Words, RefuseAnOpenQuote) {
    EXPECT_THROW(splitWords("send \"a b"), Failure);
    EXPECT_THROW(splitWords("send 'a b"), Failure);
}

TEST(Words, RefuseABackslashAtTheEnd) {
    EXPECT_THROW(splitWords("send a\\"), Failure);
}

}  // namespace
}  // namespace brindle::console

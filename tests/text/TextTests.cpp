#include "text/Text.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace brindle {
namespace {

/// Every code point with the property White_Space.
constexpr std::array<std::string_view, 25> white_space{
    "\t",     "\n",     "\v",     "\f",     "\r",     " ",      "\u0085", "\u00A0", "\u1680",
    "\u2000", "\u2001", "\u2002", "\u2003", "\u2004", "\u2005", "\u2006", "\u2007", "\u2008",
    "\u2009", "\u200A", "\u2028", "\u2029", "\u202F", "\u205F", "\u3000"};

TEST(TrimmingTests, RemovesEveryWhiteSpaceCodePointAtBothEnds) {
    for (const auto space : white_space) {
        const std::string s(space);
        EXPECT_EQ(trimmed(s + "a" + s + "b" + s + s), "a" + s + "b") << static_cast<int>(s.back());
    }
}

TEST(TrimmingTests, RemovesMixtureOfAllWhiteSpace) {
    std::string all;
    for (const auto space : white_space) all += space;
    EXPECT_EQ(trimmed(all + "é" + all), "é");
    EXPECT_EQ(trimmed(all), "");
}

TEST(TrimmingTests, KeepsInvisibleCharactersThatAreNotWhiteSpace) {
    for (const std::string text : {"\u200B", "\u200C", "\u200D", "\u2060", "\uFEFF", "\u180E", "\u00AD"}) {
        EXPECT_EQ(trimmed(" " + text + " "), text);
    }
}

TEST(TrimmingTests, KeepsControlCharactersThatAreNotWhiteSpace) {
    const std::string text("\0a\x1B", 3);
    EXPECT_EQ(trimmed(" " + text + "\x1C "), text + "\x1C");
}

TEST(TrimmingTests, KeepsBytesThatAreNotUtf8) {
    // 0x85 and 0xA0 alone are not the white space of those numbers.
    for (const std::string text : {"\x85", "\xA0", "\xFF", "\xC2", "a\xA0", "\xE2\x80", "\x80\x85"}) {
        EXPECT_EQ(trimmed(" " + text + " "), text);
    }
}

TEST(TrimmingTests, HasNothingToRemoveFromEmptyOrTightText) {
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed("a b"), "a b");
    EXPECT_EQ(trimmed("🙂"), "🙂");
}

TEST(GraphemeClusterTests, CountsUserPerceivedCharacters) {
    struct Case {
        std::string_view text;
        std::size_t count;
    };
    for (const auto& [text, count] : {
             Case{"", 0},
             Case{"abc", 3},
             Case{"日本", 2},
             Case{"\r\n", 1},
             Case{"\n\r", 2},
             Case{"e\u0301", 1},
             Case{"a\u0300\u0301\u0302b", 2},
             Case{"\u1112\u1161\u11AB", 1},
             Case{"👍🏽", 1},
             Case{"👨‍👩‍👧‍👦", 1},
             Case{"🏳️‍🌈", 1},
             Case{"🇩🇪", 1},
             Case{"🇩🇪🇫🇷", 2},
             Case{"🇩🇪🇫", 2},
             Case{"नि", 1},
             Case{"a\u200Db", 2},
         }) {
        EXPECT_EQ(graphemeClusterCount(text), count) << text;
    }
}

TEST(GraphemeClusterTests, CountsNullAsACharacter) {
    EXPECT_EQ(graphemeClusterCount(std::string_view("a\0b", 3)), 3U);
}

TEST(CanonicalEquivalenceTests, ComposedAndDecomposedAreEqual) {
    EXPECT_TRUE(canonicallyEquivalent("Zo\u00EB", "Zoe\u0308"));
    EXPECT_TRUE(canonicallyEquivalent("\u1E69", "s\u0323\u0307"));
    EXPECT_TRUE(canonicallyEquivalent("s\u0307\u0323", "s\u0323\u0307"));
    EXPECT_TRUE(canonicallyEquivalent("\u212B", "\u00C5"));
    EXPECT_TRUE(canonicallyEquivalent("\uAC00", "\u1100\u1161"));
}

TEST(CanonicalEquivalenceTests, DifferentTextsAreNotEqual) {
    EXPECT_FALSE(canonicallyEquivalent("whatsapp", "whatsapp "));
    EXPECT_FALSE(canonicallyEquivalent("a", ""));
    EXPECT_FALSE(canonicallyEquivalent("a\u0301\u0300", "a\u0300\u0301"));
    EXPECT_FALSE(canonicallyEquivalent(std::string_view("a\0b", 3), std::string_view("a\0c", 3)));
}

TEST(CanonicalEquivalenceTests, CaseMatters) {
    EXPECT_FALSE(canonicallyEquivalent("WhatsApp", "whatsapp"));
}

TEST(CanonicalEquivalenceTests, CompatibilityVariantsAreNotEqual) {
    EXPECT_FALSE(canonicallyEquivalent("ﬁ", "fi"));
    EXPECT_FALSE(canonicallyEquivalent("①", "1"));
    EXPECT_FALSE(canonicallyEquivalent("a\u00AD", "a"));
    EXPECT_FALSE(canonicallyEquivalent("a\u200B", "a"));
}

TEST(CanonicalEquivalenceTests, TextsThatAreNotUtf8AreEqualByteForByteOnly) {
    EXPECT_TRUE(canonicallyEquivalent("\xFF", "\xFF"));
    EXPECT_FALSE(canonicallyEquivalent("\xFF", "\xFE"));
    EXPECT_FALSE(canonicallyEquivalent("e\u0301\xFF", "é\xFF"));
    EXPECT_FALSE(canonicallyEquivalent("\xFF", ""));
}

TEST(CanonicalEquivalenceTests, SecretComparisonGivesTheSameAnswers) {
    const std::array<std::string_view, 12> texts{"",     "a",    "A",           "ab",    "é", "e\u0301",
                                                 "\xFF", "\xFE", "e\u0301\xFF", "é\xFF", "ﬁ", "fi"};
    for (const auto left : texts) {
        for (const auto right : texts) {
            EXPECT_EQ(canonicallyEquivalentInConstantTime(left, right), canonicallyEquivalent(left, right))
                << left << " " << right;
        }
    }
}

TEST(Utf8Tests, TellsWellFormedTextApart) {
    for (const std::string_view text : {"", "a", "é", "日", "🙂", "\uFFFF", "\U0010FFFF"}) {
        EXPECT_TRUE(isValidUtf8(text)) << text;
    }
    EXPECT_TRUE(isValidUtf8(std::string_view("\0", 1)));
    for (const std::string_view bytes :
         {"\x80", "\xC3", "\xC0\x80", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80",
          "\xF8\x88\x80\x80\x80", "a\xFF"}) {
        EXPECT_FALSE(isValidUtf8(bytes));
    }
}

TEST(Utf8Tests, RepairReplacesInvalidBytes) {
    EXPECT_EQ(repairedUtf8("a\xFF"
                           "b"),
              "a\uFFFDb");
    EXPECT_EQ(repairedUtf8("\xC3"), "\uFFFD");
    EXPECT_EQ(repairedUtf8("é\xA9"), "é\uFFFD");
}

TEST(Utf8Tests, RepairLeavesValidTextAsItIs) {
    const std::string text("é🙂\0\n", 8);
    EXPECT_EQ(repairedUtf8(text), text);
    EXPECT_EQ(repairedUtf8(""), "");
}

TEST(Utf8Tests, RepairedTextIsAlwaysValid) {
    for (unsigned first = 0; first < 256; ++first) {
        for (unsigned second = 0; second < 256; ++second) {
            const std::string bytes{'\xF0', static_cast<char>(first), static_cast<char>(second), 'x'};
            const auto repaired = repairedUtf8(bytes);
            ASSERT_TRUE(isValidUtf8(repaired)) << first << " " << second;
            ASSERT_EQ(repaired.back(), 'x');
        }
    }
}

TEST(SingleLineTests, ShowsControlCharactersAsQuestionMarks) {
    EXPECT_EQ(singleLine("a\nb\rc\td\x7F"
                         "e"),
              "a?b?c?d?e");
    EXPECT_EQ(singleLine(std::string_view("\0", 1)), "?");
}

TEST(SingleLineTests, ShowsBreaksOfLinesAndReadingDirectionsAsQuestionMarks) {
    EXPECT_EQ(singleLine("a\u0085b\u009Bc\u2028d\u2029e"), "a?b?c?d?e");
    EXPECT_EQ(singleLine("a\u202Eb\u2066c\u2069d\u200Ee\u061Cf"), "a?b?c?d?e?f");
}

TEST(SingleLineTests, KeepsOtherText) {
    EXPECT_EQ(singleLine("Zoë 🙂 / \""), "Zoë 🙂 / \"");
    // Hebrew, and a family that a joiner without width holds together.
    EXPECT_EQ(singleLine("\u05D0\u05D1 👩\u200D👧"), "\u05D0\u05D1 👩\u200D👧");
}

TEST(SingleLineTests, RepairsText) {
    EXPECT_EQ(singleLine("\xFF\n"), "\uFFFD?");
}

TEST(ShortenedTests, KeepsWhatIsShortEnough) {
    EXPECT_EQ(shortened("", 0), "");
    EXPECT_EQ(shortened("abc", 3), "abc");
    EXPECT_EQ(shortened("Zoë 🙂", 5), "Zoë 🙂");
}

TEST(ShortenedTests, CutsBetweenCharacters) {
    EXPECT_EQ(shortened("abcd", 3), "abc…");
    EXPECT_EQ(shortened("Zoë 🙂!", 5), "Zoë 🙂…");
    EXPECT_EQ(shortened("🙂🙂", 1), "🙂…");
    EXPECT_EQ(shortened("a", 0), "…");
}

TEST(LowercaseTests, LowersAsciiLettersOnly) {
    EXPECT_EQ(asciiLowercased("AZ az 09 ÄÉ @[`{"), "az az 09 ÄÉ @[`{");
}

TEST(LowercaseTests, LowersLettersOfEveryScript) {
    EXPECT_EQ(lowercased("Ann LEE 09"), "ann lee 09");
    EXPECT_EQ(lowercased("ÄÉØŽ"), "äéøž");
    EXPECT_EQ(lowercased("ΑΒΓ ЖДИ ԱԲ"), "αβγ жди աբ");
    EXPECT_EQ(lowercased("\U00010400\u1E9E\u2126"), "\U00010428ß\u03C9");
}

TEST(LowercaseTests, LowersEachCharacterByItself) {
    EXPECT_EQ(lowercased("ΟΔΟΣ"), "οδοσ");
    EXPECT_EQ(lowercased("I\u0130\u0131"), "ii\u0307\u0131");
}

TEST(LowercaseTests, LeavesEverythingElse) {
    const std::string text("ab 日本 🙂\u0301\0\xFFß", 20);
    EXPECT_EQ(lowercased(text), text);
    EXPECT_EQ(lowercased("\xFF\xC3"
                         "A\xC3"),
              "\xFF\xC3"
              "a\xC3");
    EXPECT_EQ(lowercased(""), "");
}

}  // namespace
}  // namespace brindle

#include "records/JsonParser.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "records/DecodingFailure.h"
#include "support/Json.h"
#include "support/WantOfMemory.h"

namespace brindle {
namespace {

/// The text of a document that is a single string.
std::string parsedString(std::string_view document) {
    JsonParser parser;
    const auto value = parser.parse(document);
    EXPECT_EQ(value.kind(), JsonValue::Kind::string);
    return std::string(value.string());
}

JsonValue::Kind kindOf(std::string_view document) {
    JsonParser parser;
    return parser.parse(document).kind();
}

void expectMalformed(std::string_view document) {
    JsonParser parser;
    try {
        parser.parse(document);
        ADD_FAILURE() << "accepted: " << document.substr(0, 80);
    } catch (const DecodingFailure& failure) {
        EXPECT_EQ(failure.kind(), DecodingFailure::Kind::malformedData) << document.substr(0, 80);
        EXPECT_STREQ(failure.what(), "The data cannot be used because it is not one valid JSON document.");
        EXPECT_FALSE(failure.detail().empty());
    }
}

std::optional<std::int64_t> integerIn(std::string_view document) {
    JsonParser parser;
    return parser.parse(document).integer();
}

/// The integer beside a number that is larger than the machine's, which takes the parser another way.
std::optional<std::int64_t> integerBesideHugeNumber(std::string_view number) {
    JsonParser parser;
    return parser.parse(R"({"huge":1e999,"n":)" + std::string(number) + "}").member("n")->integer();
}

constexpr auto smallest_integer = std::numeric_limits<std::int64_t>::min();
constexpr auto largest_integer = std::numeric_limits<std::int64_t>::max();

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JsonParserTests, TellsTheKindsOfValuesApart) {
    EXPECT_EQ(kindOf("{}"), JsonValue::Kind::object);
    EXPECT_EQ(kindOf("[]"), JsonValue::Kind::array);
    EXPECT_EQ(kindOf("\"\""), JsonValue::Kind::string);
    EXPECT_EQ(kindOf("true"), JsonValue::Kind::boolean);
    EXPECT_EQ(kindOf("false"), JsonValue::Kind::boolean);
    EXPECT_EQ(kindOf("0"), JsonValue::Kind::number);
    EXPECT_EQ(kindOf("-1.5e3"), JsonValue::Kind::number);
    EXPECT_EQ(kindOf("18446744073709551615"), JsonValue::Kind::number);
    EXPECT_EQ(kindOf("null"), JsonValue::Kind::null);
}

TEST(JsonParserTests, ReadsBooleans) {
    JsonParser parser;
    EXPECT_TRUE(parser.parse("true").boolean());
    EXPECT_FALSE(parser.parse("false").boolean());
}

TEST(JsonParserTests, ReadsEveryEscape) {
    EXPECT_EQ(parsedString(R"("\"\\\/\b\f\n\r\t\u0041\u00e9\uD83D\uDE42")"), "\"\\/\b\f\n\r\tAé🙂");
}

TEST(JsonParserTests, KeepsNullCharacters) {
    EXPECT_EQ(parsedString(R"("a\u0000b")"), std::string("a\0b", 3));
}

TEST(JsonParserTests, IgnoresInsignificantWhiteSpace) {
    JsonParser parser;
    const auto root = parser.parse(" \t\r\n{ \"a\" :\n\"b\" } \r\n");
    ASSERT_TRUE(root.member("a").has_value());
    EXPECT_EQ(root.member("a")->string(), "b");
}

TEST(JsonParserTests, FindsMembersByUnescapedName) {
    JsonParser parser;
    EXPECT_TRUE(parser.parse(R"({"pl\u0061tform":1})").member("platform").has_value());
}

TEST(JsonParserTests, HasNoMemberThatIsAbsent) {
    JsonParser parser;
    EXPECT_FALSE(parser.parse(R"({"a":1})").member("b").has_value());
}

TEST(JsonParserTests, TakesFirstOfSeveralMembersOfOneName) {
    JsonParser parser;
    EXPECT_EQ(parser.parse(R"({"a":"first","a":"second"})").member("a")->string(), "first");
}

TEST(JsonParserTests, VisitsEveryMemberInOrder) {
    JsonParser parser;
    std::vector<std::string> names;
    parser.parse(R"({"b":1,"a":{"c":2},"b":3})").forEachMember([&](std::string_view name, JsonValue) {
        names.emplace_back(name);
    });
    EXPECT_EQ(names, (std::vector<std::string>{"b", "a", "b"}));
}

TEST(JsonParserTests, VisitsEveryElementInOrder) {
    JsonParser parser;
    std::string text;
    parser.parse(R"(["a","b","c"])").forEachElement([&](JsonValue element) { text += element.string(); });
    EXPECT_EQ(text, "abc");
}

TEST(JsonParserTests, ReadsOneDocumentAfterAnother) {
    JsonParser parser;
    EXPECT_EQ(parser.parse(R"("one")").string(), "one");
    EXPECT_THROW(parser.parse("{"), DecodingFailure);
    EXPECT_EQ(parser.parse(R"("two")").string(), "two");
}

TEST(JsonParserTests, LooksAtNothingBehindTheText) {
    const std::string text = R"({"a":"bcdefgh"})";
    for (std::size_t length = 0; length < text.size(); ++length) {
        for (const std::string_view behind : {"\"}", "}", "]", "\\", "0", "u0041", "\xFF"}) {
            std::string padded = text.substr(0, length) + std::string(behind);
            JsonParser parser;
            EXPECT_THROW(parser.parseInPlace(std::span(padded).first(length)), DecodingFailure) << padded;
        }
    }
}

TEST(JsonParserTests, LeavesTheTextsWhereTheyStand) {
    const std::string longText(100'000, 'x');
    std::string text =
        R"({"plain":")" + longText + R"(","escaped":")" + longText + R"(\/\u00e9\ud83d\ude42y"})";
    JsonParser parser;
    const test::LargePieces pieces(longText.size());
    const auto root = parser.parseInPlace(text);
    for (const char* name : {"plain", "escaped"}) {
        const auto value = root.member(name)->string();
        EXPECT_GE(value.data(), text.data());
        EXPECT_LE(value.data() + value.size(), text.data() + text.size());
    }
    EXPECT_EQ(pieces.count(), 0);
    EXPECT_TRUE(root.isInPlace());
    EXPECT_EQ(root.member("plain")->string(), longText);
    EXPECT_EQ(root.member("escaped")->string(), longText + "/é🙂y");
}

TEST(JsonParserTests, LeavesTheCallersTextAsItIsUnlessItReadsInPlace) {
    const std::string text = R"(["a\/b"])";
    JsonParser parser;
    const auto root = parser.parse(text);
    EXPECT_FALSE(root.isInPlace());
    EXPECT_EQ(text, R"(["a\/b"])");
}

/// A text with a special character at that place, which falls anywhere in what the machine takes at a time.
TEST(JsonParserTests, FindsWhatEndsAStringWhereverItStands) {
    for (std::size_t length = 0; length < 40; ++length) {
        for (std::size_t place = 0; place < length; ++place) {
            std::string text(length, 'x');
            for (const std::string_view special : {"\x80", "\xFF", "\x1F", "\n", "\"", "\\"}) {
                auto spoilt = text;
                spoilt.replace(place, 1, special);
                expectMalformed('"' + spoilt + '"');
            }
            for (const std::string_view harmless : {" ", "!", "#", "[", "]", "/", "\x7F", "é", "🙂"}) {
                auto other = text;
                other.replace(place, 1, harmless);
                EXPECT_EQ(parsedString('"' + other + '"'), other);
            }
            auto escaped = text;
            escaped.replace(place, 1, "\\n");
            text[place] = '\n';
            EXPECT_EQ(parsedString('"' + escaped + '"'), text);
        }
    }
}

TEST(JsonParserTests, TakesAndRefusesWhatAnotherReaderDoes) {
    using namespace std::string_view_literals;
    constexpr std::array pieces{"{"sv,  "}"sv,     "["sv,    "]"sv,    ","sv,       ":"sv,
                                "\""sv, "\"a\""sv, "\\"sv,   "\\n"sv,  "\\u00e9"sv, "\\ud83d"sv,
                                "0"sv,  "-1.5"sv,  "2E-1"sv, "true"sv, "nul"sv,     "null"sv,
                                " "sv,  "\n"sv,    "\xC3"sv, "é"sv,    "\\ude42"sv, "x"sv};
    std::mt19937_64 random(7);
    int accepted = 0;
    for (int round = 0; round < 50'000; ++round) {
        std::string text;
        for (auto count = random() % 9; count > 0; --count) text += pieces[random() % pieces.size()];
        JsonParser parser;
        bool isAccepted = true;
        try {
            parser.parse(text);
        } catch (const DecodingFailure&) {
            isAccepted = false;
        }
        ASSERT_EQ(isAccepted, test::Json::parseIfPossible(text).has_value()) << text;
        if (isAccepted) ++accepted;
    }
    EXPECT_GT(accepted, 250);
}

TEST(JsonParserTests, AcceptsNumbersLargerThanTheMachines) {
    for (const std::string_view number :
         {"18446744073709551616", "-9223372036854775809", "1e400", "-1E+999", "1e-999999",
          "123456789012345678901234567890.123456789012345678901234567890e123456789"}) {
        const auto document = R"({"n":)" + std::string(number) + R"(,"s":"kept","d":"1e999 \" 1e999"})";
        JsonParser parser;
        const auto root = parser.parse(document);
        EXPECT_EQ(root.member("n")->kind(), JsonValue::Kind::number) << number;
        EXPECT_EQ(root.member("s")->string(), "kept") << number;
        EXPECT_EQ(root.member("d")->string(), "1e999 \" 1e999") << number;
    }
}

TEST(JsonParserTests, AcceptsHugeNumberAtTheTop) {
    EXPECT_EQ(kindOf("1e400"), JsonValue::Kind::number);
}

TEST(JsonParserTests, ReadsIntegers) {
    EXPECT_EQ(integerIn("0"), 0);
    EXPECT_EQ(integerIn("-0"), 0);
    EXPECT_EQ(integerIn("-42"), -42);
    EXPECT_EQ(integerIn("9223372036854775807"), largest_integer);
    EXPECT_EQ(integerIn("-9223372036854775808"), smallest_integer);
}

TEST(JsonParserTests, ReadsIntegersHoweverTheyAreWritten) {
    EXPECT_EQ(integerIn("3.0"), 3);
    EXPECT_EQ(integerIn("3.000e0"), 3);
    EXPECT_EQ(integerIn("-0.0"), 0);
    EXPECT_EQ(integerIn("1.5e1"), 15);
    EXPECT_EQ(integerIn("1E3"), 1000);
    EXPECT_EQ(integerIn("-9.223372036854775808e18"), smallest_integer);
}

TEST(JsonParserTests, NumberWithFractionIsNoInteger) {
    for (const std::string_view number : {"3.5", "-0.1", "1e-1", "1e-300"}) {
        EXPECT_EQ(integerIn(number), std::nullopt) << number;
        EXPECT_EQ(integerBesideHugeNumber(number), std::nullopt) << number;
    }
}

TEST(JsonParserTests, NumberThatDoesNotFitIsNoInteger) {
    for (const std::string_view number :
         {"9223372036854775808", "18446744073709551615", "18446744073709551616", "-9223372036854775809",
          "9.223372036854775808e18", "-1e19", "1e300", "1e999", "-1e999"}) {
        EXPECT_EQ(integerIn(number), std::nullopt) << number;
        EXPECT_EQ(integerBesideHugeNumber(number), std::nullopt) << number;
    }
}

TEST(JsonParserTests, KeepsIntegersBesideNumberLargerThanTheMachines) {
    EXPECT_EQ(integerBesideHugeNumber("7"), 7);
    EXPECT_EQ(integerBesideHugeNumber("-42.0"), -42);
    EXPECT_EQ(integerBesideHugeNumber("9223372036854775807"), largest_integer);
    EXPECT_EQ(integerBesideHugeNumber("-9223372036854775808"), smallest_integer);
}

TEST(JsonParserTests, RejectsInvalidNumberBesideHugeOne) {
    for (const std::string_view number : {"01", "1.", ".5", "+1", "1e", "1e+", "--1", "-", "1.5.5", "1-2",
                                          "1e5e5", "0x10", "NaN", "Infinity", "-Infinity", "1_000"}) {
        expectMalformed("[1e400," + std::string(number) + "]");
    }
}

TEST(JsonParserTests, RejectsWhatIsNotJson) {
    const std::vector<std::string> documents{
        "",
        " ",
        "{",
        "}",
        "[",
        "]",
        "{]",
        "[}",
        "{}{}",
        "{} {}",
        "[] 1",
        "1 2",
        "\"a\" \"b\"",
        "{\"a\":1,}",
        "[1,]",
        "[,1]",
        "[1 2]",
        "{,}",
        "{\"a\"}",
        "{\"a\":}",
        "{\"a\" 1}",
        "{a:1}",
        "{'a':1}",
        "{1:1}",
        "{\"a\":1 \"b\":2}",
        "'a'",
        "\"a",
        "\"\\",
        "\"\\\"",
        "\"\\x41\"",
        "\"\\u12\"",
        "\"\\u12G4\"",
        "\"\\U0041\"",
        "tru",
        "True",
        "TRUE",
        "truefalse",
        "nul",
        "nil",
        "undefined",
        "NaN",
        "Infinity",
        "-Infinity",
        "+1",
        ".5",
        "5.",
        "01",
        "-01",
        "-",
        "1e",
        "0x1",
        "// comment\n{}",
        "{} // comment",
        "/* comment */ {}",
        "{}x",
        "\"tab\there\"",
        "\"line\nfeed\"",
        std::string("\"nul\0\"", 6),
        std::string("{}\0", 3),
        "\v{}",
        "\u00A0{}",
    };
    for (const auto& document : documents) expectMalformed(document);
}

TEST(JsonParserTests, RejectsLoneSurrogates) {
    for (const std::string_view text :
         {R"("\ud800")", R"("\udbff")", R"("\udc00")", R"("\udfff")", R"("\ud800x")", R"("\ud800\u0041")",
          R"("\ud800\n")", R"("\udc00\ud800")", R"("\ud800\ud800\udc00")", R"("a\udc00b")",
          R"("\ud83d\\ude42")"}) {
        expectMalformed(text);
    }
}

TEST(JsonParserTests, RejectsTextThatIsNotUtf8) {
    for (const std::string_view bytes : {"\"\xFF\"", "\"\xC3\"", "\"\xC0\xAF\"", "\"\xE0\x80\xAF\"",
                                         "\"\xED\xA0\x80\"", "\"\xF4\x90\x80\x80\"", "\"\x80\"", "{}\xFF"}) {
        expectMalformed(bytes);
    }
}

TEST(JsonParserTests, AcceptsOrdinaryDepth) {
    EXPECT_EQ(kindOf(nested(500)), JsonValue::Kind::array);
}

TEST(JsonParserTests, RejectsDepthThatCouldExhaustTheStack) {
    expectMalformed(nested(100'000));
}

TEST(JsonParserTests, RejectsEndlessOpeningBrackets) {
    expectMalformed(std::string(1'000'000, '['));
    std::string objects;
    for (int i = 0; i < 100'000; ++i) objects += "{\"a\":";
    expectMalformed(objects);
}

TEST(JsonParserTests, ReadsLongStrings) {
    const std::string text(std::size_t{5} << 20U, 'x');
    EXPECT_EQ(parsedString('"' + text + '"'), text);
}

TEST(LoneSurrogateTests, HalfAPairBecomesReplacementCharacter) {
    for (const auto& [text, expected] : std::vector<std::pair<std::string, std::string>>{
             {R"("\ud800")", R"("\ufffd")"},
             {R"("\uDFFF")", R"("\ufffd")"},
             {R"("a\udbffb\uDC00c")", R"("a\ufffdb\ufffdc")"},
             {R"("\udc00\ud800")", R"("\ufffd\ufffd")"},
             {R"("\ud800\u0041")", R"("\ufffd\u0041")"},
             {R"("\ud800\n")", R"("\ufffd\n")"},
             {R"("\ud800\ud83d\ude42")", R"("\ufffd\ud83d\ude42")"},
             {R"("\ud83d\ude42\ude42")", R"("\ud83d\ude42\ufffd")"},
             {R"("\ud83d\\ude42")", R"("\ufffd\\ude42")"},
             {R"("\\\ud83d")", R"("\\\ufffd")"},
         }) {
        EXPECT_EQ(withoutLoneSurrogates(text), expected);
        JsonParser parser;
        EXPECT_EQ(parser.parse(expected).kind(), JsonValue::Kind::string);
    }
}

TEST(LoneSurrogateTests, EverythingElseStays) {
    for (const std::string text :
         {"", R"("\ud83d\ude42")", R"("\uD83D\uDE42")", R"("\\ud800")", R"("\\\\ud800")", R"("ud800")",
          R"({"\u0041":"\ud7ff\ue000\uffff"})", R"("\" \/ \n")", "\"Zoë 🙂\""}) {
        EXPECT_EQ(withoutLoneSurrogates(text), text);
    }
}

TEST(LoneSurrogateTests, TextThatIsNoJsonStaysSo) {
    for (const std::string text : {"\\", "\"\\", "\"\\u", "\"\\ud8", "\"\\ud80", "\"\\ud8zz\"", "\"\\u-800\"",
                                   "\"\\u+800\"", "\\\\"}) {
        EXPECT_EQ(withoutLoneSurrogates(text), text);
    }
}

}  // namespace
}  // namespace brindle

#include "records/Problems.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <string_view>

namespace brindle::record {
namespace {

using Kind = JsonValue::Kind;

constexpr std::array<std::string_view, 3> cases{"connect", "disconnect", "hello"};

std::string problemOf(std::string_view document) {
    JsonParser parser;
    return ambiguousCase(parser.parse(document), cases);
}

TEST(ProblemsTests, TellsWhatWasMetAndWhatIsExpected) {
    EXPECT_EQ(mistypedValue(Kind::number, Kind::string), "it has a number where a string is expected");
    EXPECT_EQ(mistypedValue(Kind::array, Kind::object), "it has an array where an object is expected");
    EXPECT_EQ(mistypedValue(Kind::boolean, Kind::array), "it has true or false where an array is expected");
}

TEST(ProblemsTests, NamesAnUnknownCase) {
    EXPECT_EQ(problemOf(R"({"conect":{}})"),
              R"(it has "conect" where one of connect, disconnect and hello is expected)");
}

TEST(ProblemsTests, NamesTheFirstUnknownCasesAndCountsTheOthers) {
    EXPECT_EQ(problemOf(R"({"a":1,"b":2})"),
              R"(it has "a" and "b" where one of connect, disconnect and hello is expected)");
    EXPECT_EQ(problemOf(R"({"a":1,"b":2,"c":3,"d":4,"e":5})"),
              R"(it has "a", "b", "c" and 2 more where one of connect, disconnect and hello is expected)");
}

TEST(ProblemsTests, TellsAnEmptyObject) {
    EXPECT_EQ(problemOf("{}"), "it is an empty object, which names none of connect, disconnect and hello");
}

TEST(ProblemsTests, NamesCasesThatComeTogether) {
    EXPECT_EQ(problemOf(R"({"hello":{},"note":1,"connect":{}})"),
              R"(it names more than one case, "hello" and "connect")");
    EXPECT_EQ(problemOf(R"({"hello":{},"hello":{}})"), R"(it names more than one case, "hello" and "hello")");
}

TEST(ProblemsTests, ShowsOfALongNameItsBeginning) {
    const std::string beginning(40, 'x');
    EXPECT_EQ(problemOf("{\"" + beginning + "yz\":1}"),
              "it has \"" + beginning + "\u2026\" where one of connect, disconnect and hello is expected");
}

TEST(ProblemsTests, ShowsAnyNameOnOneLineWithinItsQuotes) {
    EXPECT_EQ(problemOf(R"({"a\nb\u0000c\"d\\e\u2028f\u0085g\u202eh":1})"),
              R"(it has "a?b?c\"d\\e?f?g?h" where one of connect, disconnect and hello is expected)");
}

TEST(ProblemsTests, NamesTheCaseThatLacksItsPayload) {
    EXPECT_EQ(missingPayload("connect", "_0"), R"("connect" lacks its "_0", which holds its values)");
}

}  // namespace
}  // namespace brindle::record

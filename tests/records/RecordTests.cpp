#include "records/Record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "records/DecodingFailure.h"
#include "text/Text.h"

namespace brindle {
namespace {

using ::testing::EndsWith;
using ::testing::StartsWith;

struct Leaf {
    std::string zeta;
    std::optional<std::string> alpha;
    bool middle = false;

    static constexpr auto fields() {
        return std::tuple{
            field("zeta", &Leaf::zeta, "Declared first."),
            field("alpha", &Leaf::alpha, "Sorted first."),
            field("middle", &Leaf::middle, "A flag."),
        };
    }
};

struct Other {
    std::optional<std::string> note;

    static constexpr auto fields() { return std::tuple{field("note", &Other::note, "A note.")}; }
};

struct Empty {
    static constexpr auto fields() { return std::tuple{}; }
};

/// An enumeration whose case object is the payload.
struct Choice : Enumeration<Case<"leaf", Leaf>, Case<"other", Other>, Case<"empty", Empty>> {
    using Enumeration::Enumeration;
    static constexpr std::string_view payload_name{};
};

/// An enumeration whose case object wraps the payload.
struct Wrapped : Enumeration<Case<"leaf", Leaf>, Case<"other", Other>> {
    using Enumeration::Enumeration;
    static constexpr std::string_view payload_name = "_0";
};

struct Tree {
    std::vector<Leaf> leaves;
    std::optional<std::vector<Leaf>> spareLeaves;
    std::optional<Leaf> favourite;
    Choice choice;

    static constexpr auto fields() {
        return std::tuple{
            field("leaves", &Tree::leaves, "All."),
            field("spareLeaves", &Tree::spareLeaves, "More."),
            field("favourite", &Tree::favourite, "One."),
            field("choice", &Tree::choice, "Another."),
        };
    }
};

struct Count {
    std::int64_t visible = 0;
    std::optional<std::int64_t> queued;

    static constexpr auto fields() {
        return std::tuple{
            field("visible", &Count::visible, "In view."),
            field("queued", &Count::queued, "Waiting."),
        };
    }
};

using Kind = DecodingFailure::Kind;

template <class T>
void expectFailure(std::string_view text, Kind kind, std::string_view description) {
    try {
        decodedRecord<T>(text);
        ADD_FAILURE() << "accepted: " << text;
    } catch (const DecodingFailure& failure) {
        EXPECT_EQ(failure.kind(), kind) << text;
        EXPECT_EQ(failure.what(), description) << text;
    }
}

std::string sentence(const std::string& problem, const std::string& path) {
    return "The data cannot be used because " + problem + (path.empty() ? "" : " (at " + path + ")") + ".";
}

/// What stands there instead of what is expected is ProblemsTests' subject.
template <class T>
void expectWrongType(std::string_view text, const std::string& path) {
    try {
        decodedRecord<T>(text);
        ADD_FAILURE() << "accepted: " << text;
    } catch (const DecodingFailure& failure) {
        EXPECT_EQ(failure.kind(), Kind::typeMismatch) << text;
        EXPECT_THAT(failure.what(), StartsWith("The data cannot be used because it has ")) << text;
        EXPECT_THAT(failure.what(), EndsWith(path.empty() ? "expected." : " (at " + path + ").")) << text;
    }
}

template <class T>
void expectMissing(std::string_view text, const std::string& path) {
    expectFailure<T>(text, Kind::missingKey, sentence("a required value is missing", path));
}

template <class T>
void expectNull(std::string_view text, const std::string& path) {
    expectFailure<T>(text, Kind::missingValue, sentence("a required value is null", path));
}

template <class T>
void expectWrongCaseCount(std::string_view text, const std::string& problem) {
    expectFailure<T>(text, Kind::typeMismatch, sentence(problem, ""));
    try {
        decodedRecord<T>(text);
    } catch (const DecodingFailure& failure) {
        EXPECT_EQ(failure.detail(), "Invalid number of keys found, expected one.") << text;
    }
}

TEST(RecordTests, WritesMembersInAscendingOrder) {
    EXPECT_EQ(encodedRecord(Leaf{.zeta = "z", .alpha = "a", .middle = true}, JsonStyle::compact),
              R"({"alpha":"a","middle":true,"zeta":"z"})");
}

TEST(RecordTests, LeavesAbsentOptionsOut) {
    EXPECT_EQ(encodedRecord(Leaf{.zeta = "z", .alpha = {}, .middle = false}, JsonStyle::compact),
              R"({"middle":false,"zeta":"z"})");
}

TEST(RecordTests, WritesEmptyStringOfPresentOption) {
    EXPECT_EQ(encodedRecord(Other{.note = ""}, JsonStyle::compact), R"({"note":""})");
}

TEST(RecordTests, WritesRecordWithoutFieldsAsEmptyObject) {
    EXPECT_EQ(encodedRecord(Empty{}, JsonStyle::compact), "{}");
}

TEST(RecordTests, WritesCaseWithoutPayloadName) {
    EXPECT_EQ(encodedRecord(Choice{Other{.note = "n"}}, JsonStyle::compact), R"({"other":{"note":"n"}})");
    EXPECT_EQ(encodedRecord(Choice{Empty{}}, JsonStyle::compact), R"({"empty":{}})");
}

TEST(RecordTests, WritesCaseWithPayloadName) {
    EXPECT_EQ(encodedRecord(Wrapped{Other{.note = "n"}}, JsonStyle::compact),
              R"({"other":{"_0":{"note":"n"}}})");
}

TEST(RecordTests, WritesPrettyForm) {
    const Tree tree{.leaves = {Leaf{.zeta = "z/1", .alpha = {}, .middle = true}},
                    .spareLeaves = std::vector<Leaf>{},
                    .favourite = {},
                    .choice = Other{}};
    EXPECT_EQ(encodedRecord(tree, JsonStyle::pretty), R"({
  "choice": {
    "other": {}
  },
  "leaves": [
    {
      "middle": true,
      "zeta": "z\/1"
    }
  ],
  "spareLeaves": []
}
)");
}

TEST(RecordTests, ReadsWhatItWrote) {
    const Tree tree{.leaves = {Leaf{.zeta = "1", .alpha = "a", .middle = true}, Leaf{}},
                    .spareLeaves = std::vector<Leaf>{Leaf{.zeta = "2", .alpha = {}, .middle = false}},
                    .favourite = Leaf{.zeta = "3", .alpha = "", .middle = true},
                    .choice = Leaf{.zeta = "4", .alpha = {}, .middle = false}};
    for (const auto style : {JsonStyle::compact, JsonStyle::pretty}) {
        const auto text = encodedRecord(tree, style);
        EXPECT_EQ(encodedRecord(decodedRecord<Tree>(text), style), text);
    }
}

TEST(RecordTests, ReadsMembersInAnyOrder) {
    const auto leaf = decodedRecord<Leaf>(R"({"middle":true,"zeta":"z","alpha":"a"})");
    EXPECT_EQ(leaf.zeta, "z");
    EXPECT_EQ(leaf.alpha, "a");
    EXPECT_TRUE(leaf.middle);
}

TEST(RecordTests, TreatsNullOptionAsAbsent) {
    EXPECT_EQ(decodedRecord<Leaf>(R"({"zeta":"z","alpha":null,"middle":true})").alpha, std::nullopt);
    EXPECT_EQ(decodedRecord<Leaf>(R"({"zeta":"z","middle":true})").alpha, std::nullopt);
}

TEST(RecordTests, TreatsEmptyStringAsPresent) {
    EXPECT_EQ(decodedRecord<Other>(R"({"note":""})").note, "");
}

TEST(RecordTests, IgnoresUnknownMembersOfAnyValue) {
    const auto other = decodedRecord<Other>(
        R"({"x":1e999,"y":[{"note":"inner"}],"Note":"case","note ":"space","z":null,"note":"n","":{}})");
    EXPECT_EQ(other.note, "n");
}

TEST(RecordTests, FirstValueOfDoubledFieldCounts) {
    EXPECT_EQ(decodedRecord<Other>(R"({"note":"first","note":"second"})").note, "first");
    EXPECT_EQ(decodedRecord<Other>(R"({"note":null,"note":"second"})").note, std::nullopt);
    expectWrongType<Other>(R"({"note":1,"note":"second"})", "note");
}

TEST(RecordTests, KeepsNullCharactersInStrings) {
    EXPECT_EQ(decodedRecord<Other>(R"({"note":"a\u0000b"})").note, std::string("a\0b", 3));
}

TEST(RecordTests, NamesMissingField) {
    expectMissing<Leaf>(R"({"zeta":"z"})", "middle");
}

TEST(RecordTests, NamesRequiredFieldThatIsNull) {
    expectNull<Leaf>(R"({"zeta":null,"middle":true})", "zeta");
    expectNull<Leaf>(R"({"zeta":"z","middle":null})", "middle");
}

TEST(RecordTests, NamesFieldOfWrongType) {
    for (const std::string value : {"1", "true", "[]", "{}", "1e999"}) {
        expectWrongType<Leaf>(R"({"middle":true,"zeta":)" + value + "}", "zeta");
        expectWrongType<Other>(R"({"note":)" + value + "}", "note");
    }
}

TEST(RecordTests, TellsWhatTheFieldHasInsteadOfWhatIsExpected) {
    expectFailure<Leaf>(R"({"middle":true,"zeta":1})", Kind::typeMismatch,
                        sentence("it has a number where a string is expected", "zeta"));
    expectFailure<Count>(R"({"visible":3.5})", Kind::typeMismatch,
                         sentence("it has a number that is no integer of 64 bits", "visible"));
}

TEST(RecordTests, TakesOnlyTrueAndFalseAsBoolean) {
    for (const std::string value : {"1", "0", "\"true\"", "[]", "{}"}) {
        expectWrongType<Leaf>(R"({"zeta":"z","middle":)" + value + "}", "middle");
    }
}

TEST(RecordTests, WritesIntegers) {
    EXPECT_EQ(encodedRecord(Count{.visible = -3, .queued = std::numeric_limits<std::int64_t>::max()},
                            JsonStyle::compact),
              R"({"queued":9223372036854775807,"visible":-3})");
    EXPECT_EQ(encodedRecord(Count{}, JsonStyle::compact), R"({"visible":0})");
}

TEST(RecordTests, ReadsNumbersWithoutFractionAsIntegers) {
    const auto count = decodedRecord<Count>(R"({"visible":3,"queued":-4.0})");
    EXPECT_EQ(count.visible, 3);
    EXPECT_EQ(count.queued, -4);
    EXPECT_EQ(decodedRecord<Count>(R"({"visible":3,"queued":null})").queued, std::nullopt);
    EXPECT_EQ(decodedRecord<Count>(R"({"other":1e999,"visible":3})").visible, 3);
}

TEST(RecordTests, TakesOnlyNumbersThatFitAsIntegers) {
    for (const std::string value : {"3.5", "\"3\"", "true", "[]", "{}", "9223372036854775808", "1e999"}) {
        expectWrongType<Count>(R"({"visible":)" + value + "}", "visible");
        expectWrongType<Count>(R"({"visible":1,"queued":)" + value + "}", "queued");
    }
    expectNull<Count>(R"({"visible":null})", "visible");
    expectMissing<Count>("{}", "visible");
}

TEST(RecordTests, NamesPlaceInsideListsAndRecords) {
    const std::string choice = R"("choice":{"empty":{}})";
    expectMissing<Tree>(R"({"leaves":[{"zeta":"z","middle":true},{"middle":true}],)" + choice + "}",
                        "leaves[1].zeta");
    expectWrongType<Tree>(R"({"leaves":[],"spareLeaves":[1],)" + choice + "}", "spareLeaves[0]");
    expectWrongType<Tree>(R"({"leaves":[],"favourite":{"zeta":"z","middle":1},)" + choice + "}",
                          "favourite.middle");
    expectNull<Tree>(R"({"leaves":[null],)" + choice + "}", "leaves[0]");
    expectWrongType<Tree>(R"({"leaves":{},)" + choice + "}", "leaves");
}

TEST(RecordTests, NamesPlaceInsideCases) {
    expectMissing<Choice>(R"({"leaf":{"middle":true}})", "leaf.zeta");
    expectMissing<Wrapped>(R"({"leaf":{"_0":{"middle":true}}})", "leaf._0.zeta");
    expectFailure<Wrapped>(R"({"leaf":{"zeta":"z"}})", Kind::missingKey,
                           sentence(R"("leaf" lacks its "_0", which holds its values)", "leaf._0"));
    expectNull<Wrapped>(R"({"leaf":{"_0":null}})", "leaf._0");
    expectWrongType<Wrapped>(R"({"leaf":{"_0":[]}})", "leaf._0");
    expectWrongType<Wrapped>(R"({"leaf":"text"})", "leaf");
    expectNull<Wrapped>(R"({"leaf":null})", "leaf");
}

TEST(RecordTests, RejectsTopThatIsNoObject) {
    for (const std::string_view text : {"[]", "\"leaf\"", "1", "true", "1e999"}) {
        expectWrongType<Leaf>(text, "");
        expectWrongType<Choice>(text, "");
    }
    expectNull<Leaf>("null", "");
    expectNull<Choice>("null", "");
}

TEST(RecordTests, KnowsACasesNameByItsRecord) {
    EXPECT_EQ(Choice::caseName<Leaf>(), "leaf");
    EXPECT_EQ(Choice::caseName<Other>(), "other");
    EXPECT_EQ(Choice::caseName<Empty>(), "empty");
}

TEST(RecordTests, RejectsEnumerationWithoutRecognisedCase) {
    expectWrongCaseCount<Choice>("{}", "it is an empty object, which names none of leaf, other and empty");
    expectWrongCaseCount<Choice>(
        R"({"Leaf":{},"unknown":{}})",
        R"(it has "Leaf" and "unknown" where one of leaf, other and empty is expected)");
}

TEST(RecordTests, RejectsEnumerationWithSeveralCases) {
    expectWrongCaseCount<Choice>(R"({"other":{},"empty":{}})",
                                 R"(it names more than one case, "other" and "empty")");
}

TEST(RecordTests, RejectsDoubledCaseName) {
    const std::string problem = R"(it names more than one case, "other" and "other")";
    expectWrongCaseCount<Choice>(R"({"other":{},"other":{}})", problem);
    expectWrongCaseCount<Wrapped>(R"({"other":{"_0":{}},"other":{"_0":{}}})", problem);
}

TEST(RecordTests, RecognisesCaseBesideUnknownMembers) {
    const auto choice = decodedRecord<Choice>(R"({"x":1,"other":{"note":"n","_0":2},"y":{}})");
    EXPECT_EQ(std::get<Other>(choice).note, "n");
}

TEST(RecordTests, RecognisesCaseByUnescapedName) {
    EXPECT_TRUE(std::holds_alternative<Empty>(decodedRecord<Choice>(R"({"\u0065mpty":{}})")));
}

TEST(RecordTests, IgnoresMembersBesideThePayload) {
    const auto wrapped = decodedRecord<Wrapped>(R"({"other":{"note":"outer","_0":{"note":"inner"}}})");
    EXPECT_EQ(std::get<Other>(wrapped).note, "inner");
}

TEST(RecordTests, MalformedTextIsCorruptData) {
    expectFailure<Leaf>("{", Kind::malformedData, sentence("it is not one valid JSON document", ""));
}

TEST(RecordTests, DescriptionsHaveNoLineBreakWhateverTheInput) {
    for (const std::string_view text :
         {"{\n", "\xFF\n", "{\"leaf\n\":1}", "[\n1\n]", R"({"a\nb":1})", R"({"a\u2028b":1})"}) {
        try {
            decodedRecord<Choice>(text);
            ADD_FAILURE() << "accepted: " << text;
        } catch (const DecodingFailure& failure) {
            EXPECT_EQ(singleLine(failure.what()), failure.what());
        }
    }
}

TEST(RecordTests, SeesThatAFieldWasForgotten) {
    struct Forgetful {
        std::string listed;
        std::string forgotten;
        static constexpr auto fields() {
            return std::tuple{field("listed", &Forgetful::listed, "The only one.")};
        }
    };
    static_assert(!record::listsEveryMember<Forgetful>());
    static_assert(record::listsEveryMember<Leaf>());
    static_assert(record::listsEveryMember<Empty>());
    EXPECT_EQ(record::field_count<Forgetful>, 1U);
}

TEST(RecordTests, SeesThatTwoCasesHaveOneName) {
    static_assert(record::areDistinctNames(Choice::case_names));
    static_assert(!record::areDistinctNames(std::array<std::string_view, 3>{"leaf", "other", "leaf"}));
    static_assert(!record::areDistinctNames(std::array<std::string_view, 2>{"leaf", ""}));
    EXPECT_EQ(Choice::case_names.size(), std::variant_size_v<Choice::Cases>);
}

TEST(RecordTests, VisitsFieldsAndCasesInOrderOfDeclaration) {
    std::vector<std::string_view> fields;
    forEachField<Leaf>([&](const auto& each) { fields.push_back(each.name); });
    EXPECT_EQ(fields, (std::vector<std::string_view>{"zeta", "alpha", "middle"}));
    std::vector<std::string_view> cases;
    Choice::forEachCase([&](const auto& each) { cases.push_back(each.name); });
    EXPECT_EQ(cases, (std::vector<std::string_view>{"leaf", "other", "empty"}));
}

}  // namespace
}  // namespace brindle

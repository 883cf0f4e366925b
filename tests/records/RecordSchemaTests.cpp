#include "records/RecordSchema.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace brindle {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

struct Petal {
    std::string hue;
    std::optional<std::string> note;

    static constexpr std::string_view meaning = "A leaf that shows colour.";
    static constexpr std::array<std::string_view, 2> hues{"red", "blue"};

    static constexpr auto fields() {
        return std::tuple{
            field("hue", &Petal::hue, "Its colour.", oneOf(hues)),
            field("note", &Petal::note, "A note.", like("torn")),
        };
    }
};

struct Thorn {
    std::int64_t length = 0;

    static constexpr auto fields() { return std::tuple{field("length", &Thorn::length, "How long.")}; }
};

struct Part : Enumeration<Case<"petal", Petal>, Case<"thorn", Thorn>> {
    using Enumeration::Enumeration;
    static constexpr std::string_view payload_name{};
};

struct Wrapping : Enumeration<Case<"petal", Petal>, Case<"thorn", Thorn>> {
    using Enumeration::Enumeration;
    static constexpr std::string_view payload_name = "_0";
    static constexpr std::array names{caseName<Thorn>()};
};

struct Flower {
    std::string pickedISO8601;
    std::optional<std::string> pictureBase64;
    std::vector<Petal> petals;
    std::optional<Petal> spare;
    std::optional<std::vector<Petal>> fallen;
    Part part;
    bool isFresh = false;

    static constexpr auto fields() {
        return std::tuple{
            field("pickedISO8601", &Flower::pickedISO8601, "When.", dateTime()),
            field("pictureBase64", &Flower::pictureBase64, "How it looks.", base64Of("AA==")),
            field("petals", &Flower::petals, "All."),
            field("spare", &Flower::spare, "One more."),
            field("fallen", &Flower::fallen, "Those on the ground."),
            field("part", &Flower::part, "What is looked at."),
            field("isFresh", &Flower::isFresh, "Whether it smells."),
        };
    }
};

SchemaTitle about() {
    return {.id = "urn:test:it", .title = "It", .meaning = "A test."};
}

/// The schema of a property, without white space.
std::string propertyOf(const std::string& schema, const std::string& name) {
    // Two spaces deep are the members of the document itself.
    const auto properties = schema.find("\n  \"properties\": {");
    const auto begin = schema.find("\n    \"" + name + "\": ", properties) + name.size() + 9;
    std::string value;
    int depth = 0;
    for (const char c : schema.substr(begin)) {
        if (c != ' ' && c != '\n') value += c;
        depth += (c == '{' ? 1 : 0) - (c == '}' ? 1 : 0);
        if (depth == 0) break;
    }
    return value;
}

TEST(RecordSchemaTests, SaysWhatItIs) {
    EXPECT_EQ(schemaOf<Petal>(about()), R"({
  "$id": "urn:test:it",
  "$schema": "https:\/\/json-schema.org\/draft\/2020-12\/schema",
  "description": "A test.",
  "examples": [
    {
      "hue": "red",
      "note": "torn"
    },
    {
      "hue": "red"
    }
  ],
  "properties": {
    "hue": {
      "description": "Its colour.",
      "enum": [
        "red",
        "blue"
      ],
      "examples": [
        "red"
      ],
      "type": "string"
    },
    "note": {
      "description": "A note.",
      "examples": [
        "torn"
      ],
      "type": [
        "string",
        "null"
      ]
    }
  },
  "required": [
    "hue"
  ],
  "title": "It",
  "type": "object"
}
)");
}

TEST(RecordSchemaTests, AnnotatesTimesAndBytes) {
    const auto schema = schemaOf<Flower>(about());
    EXPECT_EQ(
        propertyOf(schema, "pickedISO8601"),
        R"({"description":"When.","examples":["2026-01-05T09:30:00Z"],"format":"date-time","type":"string"})");
    EXPECT_THAT(propertyOf(schema, "pictureBase64"), HasSubstr(R"("contentEncoding":"base64")"));
}

TEST(RecordSchemaTests, TakesNullForWhatMayBeAbsentAlone) {
    const auto schema = schemaOf<Flower>(about());
    EXPECT_THAT(propertyOf(schema, "pictureBase64"), HasSubstr(R"("type":["string","null"])"));
    EXPECT_EQ(propertyOf(schema, "spare"),
              R"({"anyOf":[{"$ref":"#\/$defs\/Petal"},{"type":"null"}],"description":"Onemore."})");
    EXPECT_EQ(
        propertyOf(schema, "fallen"),
        R"({"description":"Thoseontheground.","items":{"$ref":"#\/$defs\/Petal"},"type":["array","null"]})");
    EXPECT_EQ(propertyOf(schema, "isFresh"), R"({"description":"Whetheritsmells.","type":"boolean"})");
}

TEST(RecordSchemaTests, DefinesEachHeldTypeOnce) {
    JsonParser parser;
    const auto text = schemaOf<Flower>(about());
    const auto definitions = parser.parse(text).member("$defs");
    std::vector<std::string> names;
    definitions->forEachMember([&](std::string_view name, JsonValue) { names.emplace_back(name); });
    EXPECT_THAT(names, ElementsAre("Part", "Petal", "Thorn"));
    EXPECT_EQ(definitions->member("Petal")->member("description")->string(), Petal::meaning);
}

TEST(RecordSchemaTests, TakesExactlyOneCaseAndLooksAtEveryOne) {
    JsonParser parser;
    const auto text = schemaOf<Flower>(about());
    const auto part = parser.parse(text).member("$defs")->member("Part");
    std::vector<std::string> required;
    part->member("oneOf")->forEachElement([&](JsonValue each) {
        each.member("required")->forEachElement([&](JsonValue name) {
            required.emplace_back(name.string());
        });
        EXPECT_TRUE(each.member("properties")->member(required.back())->boolean());
    });
    EXPECT_THAT(required, ElementsAre("petal", "thorn"));
    EXPECT_EQ(part->member("properties")->member("petal")->member("$ref")->string(), "#/$defs/Petal");
}

TEST(RecordSchemaTests, LooksForThePayloadUnderItsName) {
    EXPECT_EQ(propertyOf(schemaOf<Wrapping>(about()), "petal"),
              R"({"properties":{"_0":{"$ref":"#\/$defs\/Petal"}},"required":["_0"],"type":"object"})");
}

TEST(RecordSchemaTests, RefusesCasesThatDoNotOccur) {
    const auto schema = schemaOf<Wrapping>(about(), Wrapping::names);
    EXPECT_THAT(schema, HasSubstr(R"("petal": false)"));
    EXPECT_THAT(schema, HasSubstr("#\\/$defs\\/Thorn"));
    EXPECT_THAT(schema, Not(HasSubstr("Petal")));
    EXPECT_THAT(schema, Not(HasSubstr("torn")));
}

TEST(RecordSchemaTests, BoundsIntegers) {
    EXPECT_EQ(
        propertyOf(schemaOf<Thorn>(about()), "length"),
        R"({"description":"Howlong.","maximum":9223372036854775807,"minimum":-9223372036854775808,"type":"integer"})");
}

TEST(RecordSchemaTests, TableListsFieldsInOrderOfDeclaration) {
    EXPECT_EQ(fieldTable<Petal>(),
              "| field | type | presence | meaning |\n"
              "| --- | --- | --- | --- |\n"
              "| `hue` | string | always | Its colour. |\n"
              "| `note` | string | optional | A note. |\n");
}

TEST(RecordExamplesTests, ShowEverythingThenOnlyWhatMustBeThereThenOtherCases) {
    std::vector<std::string> shown;
    for (const auto& each : examplesOf<Flower>()) shown.push_back(encodedRecord(each, JsonStyle::compact));
    const std::string begin = R"({"fallen":[{"hue":"red","note":"torn"}],"isFresh":true,"part":)";
    const std::string end =
        R"("petals":[{"hue":"red","note":"torn"}],"pickedISO8601":"2026-01-05T09:30:00Z","pictureBase64":"AA==","spare":{"hue":"red","note":"torn"}})";
    EXPECT_THAT(
        shown,
        ElementsAre(
            begin + R"({"petal":{"hue":"red","note":"torn"}},)" + end,
            R"({"isFresh":true,"part":{"petal":{"hue":"red","note":"torn"}},"petals":[{"hue":"red","note":"torn"}],"pickedISO8601":"2026-01-05T09:30:00Z"})",
            begin + R"({"petal":{"hue":"red"}},)" + end, begin + R"({"thorn":{"length":1}},)" + end));
}

TEST(TypeNameTests, LeavesNamespacesOut) {
    EXPECT_EQ(typeName<Flower>(), "Flower");
    EXPECT_EQ(typeName<DecodingFailure>(), "DecodingFailure");
    EXPECT_EQ(typeName<bool>(), "bool");
}

}  // namespace
}  // namespace brindle

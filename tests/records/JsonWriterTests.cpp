#include "records/JsonWriter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "records/JsonParser.h"

namespace brindle {
namespace {

std::string stringDocument(std::string_view value) {
    JsonWriter writer(JsonStyle::compact);
    writer.string(value);
    return writer.finish();
}

/// The text of a document that is a single string.
std::string readBack(std::string_view document) {
    JsonParser parser;
    return std::string(parser.parse(document).string());
}

/// A document that is a single string, in the pieces in which it is handed on.
std::vector<std::string> piecesOf(std::string_view value) {
    std::vector<std::string> pieces;
    JsonWriter writer(JsonStyle::compact, [&](std::string_view piece) { pieces.emplace_back(piece); });
    writer.string(value);
    pieces.push_back(writer.finish());
    return pieces;
}

std::string joined(const std::vector<std::string>& pieces) {
    std::string text;
    for (const auto& piece : pieces) text += piece;
    return text;
}

TEST(JsonWriterTests, EscapesWhatJsonRequiresAndSlashes) {
    EXPECT_EQ(stringDocument("/a\"b\\c"), R"("\/a\"b\\c")");
}

TEST(JsonWriterTests, WritesShortEscapesForControlCharactersThatHaveOne) {
    EXPECT_EQ(stringDocument("\b\f\n\r\t"), R"("\b\f\n\r\t")");
}

TEST(JsonWriterTests, WritesOtherControlCharactersAsCodes) {
    EXPECT_EQ(stringDocument(std::string_view("\0\x01\x0b\x1f", 4)), R"("\u0000\u0001\u000b\u001f")");
}

TEST(JsonWriterTests, LeavesDeleteAndLineSeparatorsAsTheyAre) {
    EXPECT_EQ(stringDocument("\x7F\u2028\u2029\u0085"), "\"\x7F\u2028\u2029\u0085\"");
}

TEST(JsonWriterTests, WritesNonAsciiTextAsUtf8) {
    EXPECT_EQ(stringDocument("Zoë 日本 🙂"), "\"Zoë 日本 🙂\"");
}

TEST(JsonWriterTests, RepairsTextThatIsNotUtf8) {
    EXPECT_EQ(stringDocument("a\xFF/b"), "\"a\uFFFD\\/b\"");
}

TEST(JsonWriterTests, WritesEmptyString) {
    EXPECT_EQ(stringDocument(""), R"("")");
}

TEST(JsonWriterTests, EveryCharacterComesBack) {
    std::string every;
    for (int c = 0; c < 0x80; ++c) every += static_cast<char>(c);
    every += "é日🙂\uFFFD\U0010FFFF";
    EXPECT_EQ(readBack(stringDocument(every)), every);
}

TEST(JsonWriterTests, WritesIntegers) {
    JsonWriter writer(JsonStyle::compact);
    writer.beginArray();
    using Limits = std::numeric_limits<std::int64_t>;
    for (const std::int64_t value : {std::int64_t{0}, std::int64_t{-7}, Limits::min(), Limits::max()}) {
        writer.integer(value);
    }
    writer.endArray();
    EXPECT_EQ(writer.finish(), "[0,-7,-9223372036854775808,9223372036854775807]");
}

void writeSample(JsonWriter& writer) {
    writer.beginObject();
    writer.name("array");
    writer.beginArray();
    writer.string("one");
    writer.boolean(true);
    writer.beginObject();
    writer.endObject();
    writer.endArray();
    writer.name("emptyArray");
    writer.beginArray();
    writer.endArray();
    writer.name("emptyObject");
    writer.beginObject();
    writer.endObject();
    writer.name("last");
    writer.boolean(false);
    writer.endObject();
}

TEST(JsonWriterTests, CompactFormHasNoWhiteSpace) {
    JsonWriter writer(JsonStyle::compact);
    writeSample(writer);
    EXPECT_EQ(writer.finish(), R"({"array":["one",true,{}],"emptyArray":[],"emptyObject":{},"last":false})");
}

TEST(JsonWriterTests, PrettyFormIsIndentedByTwoSpaces) {
    JsonWriter writer(JsonStyle::pretty);
    writeSample(writer);
    EXPECT_EQ(writer.finish(), R"({
  "array": [
    "one",
    true,
    {}
  ],
  "emptyArray": [],
  "emptyObject": {},
  "last": false
}
)");
}

TEST(JsonWriterTests, EscapesWhereverTheCharacterStands) {
    for (std::size_t length = 1; length < 40; ++length) {
        for (std::size_t place = 0; place < length; ++place) {
            std::string text(length, 'x');
            text[place] = '/';
            EXPECT_EQ(stringDocument(text),
                      '"' + text.substr(0, place) + "\\/" + text.substr(place + 1) + '"');
            text[place] = '\xFF';
            EXPECT_EQ(stringDocument(text),
                      '"' + text.substr(0, place) + "\uFFFD" + text.substr(place + 1) + '"');
        }
    }
}

TEST(JsonWriterTests, PiecesMakeTheSameDocument) {
    constexpr std::size_t size = JsonWriter::piece_bytes;
    for (const std::string_view filling : {"x", "/", "ab/+", "é", "x日/", "\n🙂", "\xFF", "é\xC3"}) {
        for (std::size_t beginning = 0; beginning < 5; ++beginning) {
            std::string text(beginning, 'a');
            while (text.size() < 3 * size + 7) text += filling;
            const auto pieces = piecesOf(text);
            EXPECT_TRUE(joined(pieces) == stringDocument(text)) << filling;
            EXPECT_GE(pieces.size(), 3U) << filling;
            for (const auto& piece : pieces) EXPECT_LT(piece.size(), 3 * size) << filling;
        }
    }
}

TEST(JsonWriterTests, SmallDocumentIsOnePiece) {
    EXPECT_THAT(piecesOf("a/b"), testing::ElementsAre(R"("a\/b")"));
}

}  // namespace
}  // namespace brindle

#include "records/JsonParser.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

#include "records/DecodingFailure.h"
#include "records/JsonNumber.h"
#include "records/PlainRun.h"
#include "text/Text.h"

namespace brindle {
namespace {

using Kind = JsonValue::Kind;

/// Deeper documents could exhaust the stack of whoever goes through them.
constexpr std::size_t greatest_depth = 1024;

/// The length of "\u0041".
constexpr std::size_t escaped_code_unit_characters = 6;

/// The UTF-16 code unit that an escape at the start of `text` stands for.
std::optional<std::uint16_t> escapedCodeUnit(std::string_view text) {
    constexpr int hexadecimal = 16;
    if (!text.starts_with("\\u") || text.size() < escaped_code_unit_characters) return std::nullopt;
    std::uint16_t unit = 0;
    const char* end = text.data() + escaped_code_unit_characters;
    const auto parsed = std::from_chars(text.data() + 2, end, unit, hexadecimal);
    if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
    return unit;
}

bool isHighSurrogate(std::uint16_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLowSurrogate(std::uint16_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

bool isSurrogate(std::uint16_t unit) {
    return isHighSurrogate(unit) || isLowSurrogate(unit);
}

/// Writes the code point as UTF-8 and answers the place behind it.
char* putCodePoint(char* to, std::uint32_t point) {
    constexpr std::uint32_t one_byte = 0x80;
    constexpr std::uint32_t two_bytes = 0x800;
    constexpr std::uint32_t three_bytes = 0x10000;
    const auto continuing = [&](unsigned shift) { return static_cast<char>(0x80 | (point >> shift & 0x3F)); };
    if (point < one_byte) {
        *to++ = static_cast<char>(point);
        return to;
    }
    if (point < two_bytes) {
        *to++ = static_cast<char>(0xC0 | point >> 6U);
    } else {
        if (point < three_bytes) {
            *to++ = static_cast<char>(0xE0 | point >> 12U);
        } else {
            *to++ = static_cast<char>(0xF0 | point >> 18U);
            *to++ = continuing(12);
        }
        *to++ = continuing(6);
    }
    *to++ = continuing(0);
    return to;
}

[[noreturn]] void fail(const char* detail) {
    throw DecodingFailure(DecodingFailure::Kind::malformedData, "it is not one valid JSON document", "",
                          detail);
}

/// One way through a document, from its beginning to its end.
class Reading {
  public:
    Reading(std::span<char> text, std::vector<JsonNode>& nodes)
        : begin_(text.data()), at_(begin_), end_(begin_ + text.size()), nodes_(nodes) {}

    void readDocument() {
        readValue(0);
        if (next(); at_ != end_) fail("Something follows the document.");
    }

  private:
    void readValue(std::size_t depth);
    void readObject(std::size_t depth);
    void readArray(std::size_t depth);
    void readString();
    void readNumber();
    void readWord(std::string_view word, Kind kind, bool value);
    char* replaceEscape(char* to);
    char* replaceCodePoint(char* to);

    std::string_view rest() const { return {at_, static_cast<std::size_t>(end_ - at_)}; }
    /// What comes after white space; a null character, which has no place between values, at the end.
    char next();
    bool passes(char character);
    std::size_t open(Kind kind, std::size_t depth);
    void close(std::size_t node, char bracket);
    void add(Kind kind, const char* begin, std::size_t extent);

    char* begin_;
    char* at_;
    char* end_;
    std::vector<JsonNode>& nodes_;
};

char Reading::next() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) ++at_;
    return at_ == end_ ? '\0' : *at_;
}

bool Reading::passes(char character) {
    if (next() != character) return false;
    ++at_;
    return true;
}

void Reading::add(Kind kind, const char* begin, std::size_t extent) {
    nodes_.push_back({.begin = static_cast<std::uint32_t>(begin - begin_),
                      .extent = static_cast<std::uint32_t>(extent),
                      .kind = kind});
}

std::size_t Reading::open(Kind kind, std::size_t depth) {
    if (depth == greatest_depth) fail("The values are nested too deeply.");
    add(kind, at_++, 0);
    return nodes_.size() - 1;
}

void Reading::close(std::size_t node, char bracket) {
    if (!passes(bracket)) fail("A comma or a closing bracket is missing.");
    nodes_[node].extent = static_cast<std::uint32_t>(nodes_.size() - node);
}

void Reading::readValue(std::size_t depth) {
    switch (next()) {
        case '{':
            return readObject(depth);
        case '[':
            return readArray(depth);
        case '"':
            return readString();
        case 't':
            return readWord("true", Kind::boolean, true);
        case 'f':
            return readWord("false", Kind::boolean, false);
        case 'n':
            return readWord("null", Kind::null, false);
        default:
            return readNumber();
    }
}

void Reading::readObject(std::size_t depth) {
    const auto node = open(Kind::object, depth);
    if (next() != '}') {
        do {
            if (next() != '"') fail("A member has no name.");
            readString();
            if (!passes(':')) fail("The colon after a member's name is missing.");
            readValue(depth + 1);
        } while (passes(','));
    }
    close(node, '}');
}

void Reading::readArray(std::size_t depth) {
    const auto node = open(Kind::array, depth);
    if (next() != ']') {
        do readValue(depth + 1);
        while (passes(','));
    }
    close(node, ']');
}

void Reading::readWord(std::string_view word, Kind kind, bool value) {
    if (!rest().starts_with(word)) fail("A word is neither true nor false nor null.");
    add(kind, at_, value ? 1 : 0);
    at_ += word.size();
}

void Reading::readNumber() {
    const auto text = rest();
    const auto length = static_cast<std::size_t>(
        std::find_if_not(text.begin(), text.end(), isJsonNumberCharacter) - text.begin());
    if (!isJsonNumber(text.substr(0, length))) fail("There is something else where a value must be.");
    add(Kind::number, at_, length);
    at_ += length;
}

void Reading::readString() {
    char* const begin = ++at_;
    char* to = begin;
    bool isAscii = true;
    for (;;) {
        const auto run = plainRun<'"', '\\'>(rest());
        isAscii = isAscii && run.isAscii;
        if (to != at_) std::memmove(to, at_, run.length);
        to += run.length;
        at_ += run.length;
        if (at_ == end_) fail("A string has no end.");
        if (*at_ == '"') break;
        if (*at_ != '\\') fail("A string holds a control character.");
        to = replaceEscape(to);
    }
    ++at_;
    const auto length = static_cast<std::size_t>(to - begin);
    if (!isAscii && !isValidUtf8({begin, length})) fail("A string is not UTF-8.");
    add(Kind::string, begin, length);
}

char* Reading::replaceEscape(char* to) {
    constexpr std::string_view letters = "\"\\/bfnrt";
    constexpr std::string_view meanings = "\"\\/\b\f\n\r\t";
    if (end_ - at_ < 2) fail("A string has no end.");
    if (at_[1] == 'u') return replaceCodePoint(to);
    const auto place = letters.find(at_[1]);
    if (place == std::string_view::npos) fail("A string holds an escape that does not exist.");
    at_ += 2;
    *to++ = meanings[place];
    return to;
}

char* Reading::replaceCodePoint(char* to) {
    constexpr std::uint32_t surrogate_bits = 0x3FF;
    constexpr std::uint32_t first_beyond_units = 0x10000;
    const auto unit = escapedCodeUnit(rest());
    if (!unit || isLowSurrogate(*unit)) fail("A string holds an escape of no character.");
    at_ += escaped_code_unit_characters;
    if (!isHighSurrogate(*unit)) return putCodePoint(to, *unit);
    const auto low = escapedCodeUnit(rest());
    if (!low || !isLowSurrogate(*low)) fail("A string holds the escape of half a character.");
    at_ += escaped_code_unit_characters;
    return putCodePoint(to, first_beyond_units + ((*unit & surrogate_bits) << 10U | (*low & surrogate_bits)));
}

bool isContainer(Kind kind) {
    return kind == Kind::object || kind == Kind::array;
}

}  // namespace

const JsonNode& JsonValue::node() const {
    return document_->nodes[place_];
}

JsonValue::Kind JsonValue::kind() const {
    return node().kind;
}

std::string_view JsonValue::string() const {
    return {document_->text + node().begin, node().extent};
}

bool JsonValue::isInPlace() const {
    return document_->isInPlace;
}

bool JsonValue::boolean() const {
    return node().extent != 0;
}

std::optional<std::int64_t> JsonValue::integer() const {
    return wholeNumber(string());
}

std::size_t JsonValue::end() const {
    return place_ + (isContainer(kind()) ? node().extent : 1);
}

JsonValue JsonValue::next() const {
    return {*document_, end()};
}

std::optional<JsonValue> JsonValue::member(std::string_view name) const {
    const auto end = this->end();
    for (JsonValue each(*document_, place_ + 1); each.place_ != end; each = each.next().next()) {
        if (each.string() == name) return each.next();
    }
    return std::nullopt;
}

void JsonValue::forEachMember(const std::function<void(std::string_view, JsonValue)>& visit) const {
    const auto end = this->end();
    for (JsonValue each(*document_, place_ + 1); each.place_ != end; each = each.next().next()) {
        visit(each.string(), each.next());
    }
}

void JsonValue::forEachElement(const std::function<void(JsonValue)>& visit) const {
    const auto end = this->end();
    for (JsonValue each(*document_, place_ + 1); each.place_ != end; each = each.next()) visit(each);
}

JsonValue JsonParser::parse(std::string_view text) {
    copy_ = text;
    const auto root = parseInPlace(copy_);
    document_.isInPlace = false;
    return root;
}

JsonValue JsonParser::parseInPlace(std::span<char> text) {
    // What nodes can tell of.
    if (text.size() > std::numeric_limits<std::uint32_t>::max()) fail("The document is too large.");
    document_.text = text.data();
    document_.isInPlace = true;
    document_.nodes.clear();
    Reading(text, document_.nodes).readDocument();
    return {document_, 0};
}

std::string withoutLoneSurrogates(std::string_view json) {
    constexpr std::string_view replacement = "\\ufffd";
    std::string result;
    result.reserve(json.size());
    while (!json.empty()) {
        const auto escape = std::min(json.find('\\'), json.size());
        result.append(json, 0, escape);
        json.remove_prefix(escape);
        // The first character after a backslash belongs to it, even when it is another backslash.
        auto length = std::min<std::size_t>(json.size(), 2);
        if (const auto unit = escapedCodeUnit(json); unit && isSurrogate(*unit)) {
            const auto next = escapedCodeUnit(json.substr(escaped_code_unit_characters));
            const bool isPair = isHighSurrogate(*unit) && next && isLowSurrogate(*next);
            length = isPair ? 2 * escaped_code_unit_characters : escaped_code_unit_characters;
            result.append(isPair ? json.substr(0, length) : replacement);
        } else {
            result.append(json, 0, length);
        }
        json.remove_prefix(length);
    }
    return result;
}

}  // namespace brindle

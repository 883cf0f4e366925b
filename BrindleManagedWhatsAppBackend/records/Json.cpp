#include "records/Json.h"

#include <simdjson.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>

#include "records/DecodingFailure.h"
#include "text/Text.h"

namespace brindle {
namespace {

using simdjson::dom::element;

constexpr std::size_t indent_spaces = 2;

element elementOf(const std::array<void*, 2>& handle) {
    return std::bit_cast<element>(handle);
}

/// For each byte: 0 when it stands for itself, 'u' when it needs \u00XX, else the letter after the backslash.
constexpr auto escapes = [] {
    std::array<char, 256> table{};
    for (std::size_t control = 0; control < 0x20; ++control) table[control] = 'u';
    table['\b'] = 'b';
    table['\f'] = 'f';
    table['\n'] = 'n';
    table['\r'] = 'r';
    table['\t'] = 't';
    table['"'] = '"';
    table['\\'] = '\\';
    table['/'] = '/';
    return table;
}();

bool isNumberCharacter(char c) {
    return (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.' || c == 'e' || c == 'E';
}

std::size_t countDigits(std::string_view text) {
    const auto end = std::find_if(text.begin(), text.end(), [](char c) { return c < '0' || c > '9'; });
    return static_cast<std::size_t>(end - text.begin());
}

/// The number grammar of RFC 8259, section 6.
bool isNumber(std::string_view text) {
    if (text.starts_with('-')) text.remove_prefix(1);
    const auto whole = countDigits(text);
    if (whole == 0 || (whole > 1 && text.front() == '0')) return false;
    text.remove_prefix(whole);
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        const auto fraction = countDigits(text);
        if (fraction == 0) return false;
        text.remove_prefix(fraction);
    }
    if (text.starts_with('e') || text.starts_with('E')) {
        text.remove_prefix(1);
        if (text.starts_with('+') || text.starts_with('-')) text.remove_prefix(1);
        const auto exponent = countDigits(text);
        if (exponent == 0) return false;
        text.remove_prefix(exponent);
    }
    return text.empty();
}

template <class Number>
bool fits(std::string_view text) {
    Number value{};
    return std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc();
}

/// True when the parser library has a place for the number.
bool fitsTheMachine(std::string_view number) {
    if (number.find_first_of(".eE") != std::string_view::npos) return fits<double>(number);
    return fits<std::int64_t>(number) || fits<std::uint64_t>(number);
}

/// The document with every number larger than the machine's replaced by a small one and spaces, which lets
/// it pass: such a number is valid JSON, and a member that no record knows may hold it. The replacement is no
/// integer, so no record can take it for a value.
std::string withoutOversizeNumbers(std::string_view document) {
    constexpr std::string_view replacement = "0.5";
    std::string result(document);
    bool insideString = false;
    for (std::size_t i = 0; i < result.size(); ++i) {
        if (result[i] == '"') insideString = !insideString;
        if (insideString) {
            if (result[i] == '\\') ++i;
            continue;
        }
        if (!isNumberCharacter(result[i])) continue;
        std::size_t end = i;
        while (end < result.size() && isNumberCharacter(result[end])) ++end;
        const auto number = std::string_view(result).substr(i, end - i);
        // Whatever does not fit is longer than its replacement.
        if (isNumber(number) && !fitsTheMachine(number)) {
            result.replace(i, end - i, std::string(replacement).append(end - i - replacement.size(), ' '));
        }
        i = end - 1;
    }
    return result;
}

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

}  // namespace

void JsonWriter::name(std::string_view name) {
    beforeValue();
    appendString(name);
    text_ += style_ == JsonStyle::pretty ? ": " : ":";
    followsName_ = true;
}

void JsonWriter::string(std::string_view value) {
    beforeValue();
    appendString(value);
}

void JsonWriter::boolean(bool value) {
    beforeValue();
    text_ += value ? "true" : "false";
}

void JsonWriter::integer(std::int64_t value) {
    beforeValue();
    text_ += std::to_string(value);
}

std::string JsonWriter::finish() {
    if (style_ == JsonStyle::pretty) text_ += '\n';
    return std::move(text_);
}

void JsonWriter::begin(char bracket) {
    beforeValue();
    text_ += bracket;
    ++depth_;
    isFirst_ = true;
}

void JsonWriter::end(char bracket) {
    --depth_;
    if (!isFirst_) newLine();
    text_ += bracket;
    isFirst_ = false;
}

void JsonWriter::beforeValue() {
    if (followsName_) {
        followsName_ = false;
        return;
    }
    if (depth_ == 0) return;
    if (!isFirst_) text_ += ',';
    newLine();
    isFirst_ = false;
}

void JsonWriter::newLine() {
    if (style_ == JsonStyle::pretty) text_.append("\n").append(depth_ * indent_spaces, ' ');
}

void JsonWriter::appendString(std::string_view value) {
    if (!isValidUtf8(value)) return appendString(repairedUtf8(value));
    text_ += '"';
    std::size_t start = 0;
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char escape = escapes[static_cast<unsigned char>(value[i])];
        if (escape == 0) continue;
        text_.append(value, start, i - start).append(1, '\\').append(1, escape);
        if (escape == 'u') {
            constexpr std::string_view digits = "0123456789abcdef";
            const auto code = static_cast<unsigned char>(value[i]);
            text_.append("00").append(1, digits[code >> 4U]).append(1, digits[code & 0xFU]);
        }
        start = i + 1;
    }
    text_.append(value, start).append(1, '"');
}

JsonValue::Kind JsonValue::kind() const {
    switch (elementOf(handle_).type()) {
        case simdjson::dom::element_type::OBJECT:
            return Kind::object;
        case simdjson::dom::element_type::ARRAY:
            return Kind::array;
        case simdjson::dom::element_type::STRING:
            return Kind::string;
        case simdjson::dom::element_type::BOOL:
            return Kind::boolean;
        case simdjson::dom::element_type::NULL_VALUE:
            return Kind::null;
        default:
            return Kind::number;
    }
}

std::string_view JsonValue::string() const {
    return elementOf(handle_).get_string().value_unsafe();
}

bool JsonValue::boolean() const {
    return elementOf(handle_).get_bool().value_unsafe();
}

std::optional<std::int64_t> JsonValue::integer() const {
    // Every double from the lower limit up to, but not including, the upper one converts exactly.
    constexpr double lower_limit = -0x1p63;
    constexpr double upper_limit = 0x1p63;
    const auto number = elementOf(handle_);
    if (number.is_int64()) return number.get_int64().value_unsafe();
    if (!number.is_double()) return std::nullopt;
    const double value = number.get_double().value_unsafe();
    if (value != std::trunc(value) || value < lower_limit || value >= upper_limit) return std::nullopt;
    return static_cast<std::int64_t>(value);
}

std::optional<JsonValue> JsonValue::member(std::string_view name) const {
    element found;
    if (elementOf(handle_).get_object().value_unsafe().at_key(name).get(found) != simdjson::SUCCESS) {
        return std::nullopt;
    }
    JsonValue value;
    value.handle_ = std::bit_cast<std::array<void*, 2>>(found);
    return value;
}

void JsonValue::forEachMember(const std::function<void(std::string_view, JsonValue)>& visit) const {
    // Named: the library would hand out a reference into a temporary.
    const simdjson::dom::object object = elementOf(handle_).get_object();
    for (const auto member : object) {
        JsonValue value;
        value.handle_ = std::bit_cast<std::array<void*, 2>>(member.value);
        visit(member.key, value);
    }
}

void JsonValue::forEachElement(const std::function<void(JsonValue)>& visit) const {
    const simdjson::dom::array array = elementOf(handle_).get_array();
    for (const element entry : array) {
        JsonValue value;
        value.handle_ = std::bit_cast<std::array<void*, 2>>(entry);
        visit(value);
    }
}

struct JsonParser::Implementation {
    simdjson::dom::parser parser;
    std::string padded;
};

JsonParser::JsonParser() : implementation_(std::make_unique<Implementation>()) {
    static_assert(padding_bytes >= simdjson::SIMDJSON_PADDING);
    static_assert(sizeof(element) == sizeof(std::array<void*, 2>));
}

JsonParser::~JsonParser() = default;

JsonValue JsonParser::parse(std::string_view text) {
    auto& padded = implementation_->padded;
    padded.assign(text);
    padded.append(padding_bytes, ' ');
    return parsePadded(std::string_view(padded).substr(0, text.size()));
}

JsonValue JsonParser::parsePadded(std::string_view text) {
    element root;
    constexpr bool copy_first = false;
    auto error = implementation_->parser.parse(text.data(), text.size(), copy_first).get(root);
    // Which error a number too large causes differs between versions of the parser library.
    if (error != simdjson::SUCCESS && error != simdjson::MEMALLOC && error != simdjson::CAPACITY) {
        auto& padded = implementation_->padded;
        padded = withoutOversizeNumbers(text);
        padded.append(padding_bytes, ' ');
        error = implementation_->parser.parse(padded.data(), text.size(), copy_first).get(root);
    }
    if (error != simdjson::SUCCESS) {
        throw DecodingFailure(DecodingFailure::Kind::malformedData, "", simdjson::error_message(error));
    }
    JsonValue value;
    value.handle_ = std::bit_cast<std::array<void*, 2>>(root);
    return value;
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

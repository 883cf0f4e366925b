#include "foundation/Json.h"

#include <simdjson.h>

#include <algorithm>
#include <bit>

#include "foundation/Failure.h"
#include "foundation/Text.h"

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

/// The document with every number replaced by 0 and spaces. No record holds a number, so their values do not
/// matter; this lets a document pass whose numbers are valid JSON but larger than the machine's.
std::string withoutNumberValues(std::string_view document) {
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
        if (isNumber(std::string_view(result).substr(i, end - i))) {
            result[i] = '0';
            std::fill(result.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                      result.begin() + static_cast<std::ptrdiff_t>(end), ' ');
        }
        i = end - 1;
    }
    return result;
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
        padded = withoutNumberValues(text);
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

}  // namespace brindle

#include "records/JsonWriter.h"

#include <array>

#include "records/PlainRun.h"
#include "text/Text.h"

namespace brindle {
namespace {

constexpr std::size_t indent_spaces = 2;
/// Room for nearly every document, so that its text is not moved while it grows.
constexpr std::size_t usual_document_bytes = 512;

/// For each byte that does not stand for itself: 'u' when it needs \u00XX, else the letter after the
/// backslash.
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

}  // namespace

void JsonWriter::name(std::string_view name) {
    beforeValue();
    text_.append(1, '"').append(name).append(style_ == JsonStyle::pretty ? "\": " : "\":");
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
    if (text_.empty()) text_.reserve(usual_document_bytes);
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
    text_ += '"';
    // Most texts are short and stand for themselves.
    if (value.size() < piece_bytes) {
        const auto run = plainRun<'"', '\\', '/'>(value);
        if (run.isAscii && run.length == value.size()) {
            text_.append(value).append(1, '"');
            return handOn();
        }
    }
    std::string repaired;
    bool isKnownUtf8 = false;
    while (!value.empty()) {
        const auto run = plainRun<'"', '\\', '/'>(value.substr(0, piece_bytes));
        // What came before was ASCII, so a character begins here.
        if (!run.isAscii && !isKnownUtf8) {
            isKnownUtf8 = true;
            if (!isValidUtf8(value)) {
                value = repaired = repairedUtf8(value);
                continue;
            }
        }
        text_.append(value, 0, run.length);
        value.remove_prefix(run.length);
        if (run.length < piece_bytes && !value.empty()) {
            appendEscaped(value.front());
            value.remove_prefix(1);
        }
        handOn();
    }
    text_ += '"';
}

void JsonWriter::appendEscaped(char character) {
    const auto code = static_cast<unsigned char>(character);
    const char escape = escapes[code];
    text_.append(1, '\\').append(1, escape);
    if (escape == 'u') {
        constexpr std::string_view digits = "0123456789abcdef";
        text_.append("00").append(1, digits[code >> 4U]).append(1, digits[code & 0xFU]);
    }
}

void JsonWriter::handOn() {
    if (!take_ || text_.size() < piece_bytes) return;
    take_(text_);
    text_.clear();
}

}  // namespace brindle

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "text/Pieces.h"

namespace brindle {

/// How a document is laid out.
enum class JsonStyle {
    /// No white space at all.
    compact,
    /// One member a line, indented by two spaces, a line feed at the end.
    pretty,
};

/// Writes one JSON document (RFC 8259) member by member. The caller gives members in ascending order of their
/// names. Slashes are escaped; text that is not UTF-8 is repaired.
class JsonWriter {
  public:
    /// About how long a piece is.
    static constexpr std::size_t piece_bytes = std::size_t{32} << 10U;

    explicit JsonWriter(JsonStyle style) : style_(style) {}
    /// Hands the document on in pieces, so that a large one never stands in memory as a whole.
    JsonWriter(JsonStyle style, PieceTaker take) : style_(style), take_(std::move(take)) {}

    void beginObject() { begin('{'); }
    void endObject() { end('}'); }
    void beginArray() { begin('['); }
    void endArray() { end(']'); }
    /// The name of the next value: one of the code's own, which stands for itself (no control character,
    /// quotation mark, slash or backslash), because it is not looked through.
    void name(std::string_view name);
    void string(std::string_view value);
    void boolean(bool value);
    void integer(std::int64_t value);

    /// The finished document, or what of it was not handed on.
    std::string finish();

  private:
    void begin(char bracket);
    void end(char bracket);
    void beforeValue();
    void newLine();
    void appendString(std::string_view value);
    void appendEscaped(char character);
    void handOn();

    JsonStyle style_;
    PieceTaker take_;
    std::string text_;
    std::size_t depth_ = 0;
    bool isFirst_ = true;
    bool followsName_ = false;
};

}  // namespace brindle

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

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
    explicit JsonWriter(JsonStyle style) : style_(style) {}

    void beginObject() { begin('{'); }
    void endObject() { end('}'); }
    void beginArray() { begin('['); }
    void endArray() { end(']'); }
    /// The name of the next value.
    void name(std::string_view name);
    void string(std::string_view value);
    void boolean(bool value);
    void integer(std::int64_t value);

    /// The finished document.
    std::string finish();

  private:
    void begin(char bracket);
    void end(char bracket);
    void beforeValue();
    void newLine();
    void appendString(std::string_view value);

    JsonStyle style_;
    std::string text_;
    std::size_t depth_ = 0;
    bool isFirst_ = true;
    bool followsName_ = false;
};

/// A value inside a parsed document; valid until the parser reads the next one.
class JsonValue {
  public:
    enum class Kind { object, array, string, boolean, number, null };

    Kind kind() const;
    /// The text of a string. Precondition: kind() is string.
    std::string_view string() const;
    /// Precondition: kind() is boolean.
    bool boolean() const;
    /// The value of a number without a fraction ("3", "3.0", "3e2") that fits, else nothing. A number written
    /// with a point or an exponent is read as a double (IEEE 754). Precondition: kind() is number.
    std::optional<std::int64_t> integer() const;
    /// The member of that name, the first when there are several. Precondition: kind() is object.
    std::optional<JsonValue> member(std::string_view name) const;
    /// Precondition: kind() is object.
    void forEachMember(const std::function<void(std::string_view, JsonValue)>& visit) const;
    /// Precondition: kind() is array.
    void forEachElement(const std::function<void(JsonValue)>& visit) const;

  private:
    friend class JsonParser;
    // The parser library's own handle, kept out of this header because every record includes it.
    std::array<void*, 2> handle_{};
};

/// Parses JSON documents (RFC 8259, UTF-8 only), one at a time, reusing its memory.
class JsonParser {
  public:
    /// How many bytes after a text parsePadded may look at.
    static constexpr std::size_t padding_bytes = 64;

    JsonParser();
    ~JsonParser();
    JsonParser(const JsonParser&) = delete;
    JsonParser& operator=(const JsonParser&) = delete;

    /// The one document in `text`. Throws DecodingFailure (malformedData) for anything else.
    JsonValue parse(std::string_view text);
    /// As parse, without copying: padding_bytes after the text must be readable, with any content.
    JsonValue parsePadded(std::string_view text);

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

/// `json` with every escape of half a surrogate pair ("\ud800") replaced by that of U+FFFD. Scripts can hold
/// such halves in their strings and JSON.stringify passes them on, but no Unicode text can (RFC 8259,
/// section 8.2), so the parser refuses them.
std::string withoutLoneSurrogates(std::string_view json);

}  // namespace brindle

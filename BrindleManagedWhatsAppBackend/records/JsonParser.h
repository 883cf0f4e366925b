#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace brindle {

struct JsonDocument;
struct JsonNode;

/// A value inside a parsed document; valid until the parser reads the next one.
class JsonValue {
  public:
    enum class Kind : std::uint8_t { object, array, string, boolean, number, null };

    JsonValue() = default;
    /// The value whose node has that place.
    JsonValue(const JsonDocument& document, std::size_t place) : document_(&document), place_(place) {}

    Kind kind() const;
    /// The text of a string. Precondition: kind() is string.
    std::string_view string() const;
    /// Whether the texts of strings stand in memory of the parser's caller, and so stay as long as that does.
    bool isInPlace() const;
    /// Precondition: kind() is boolean.
    bool boolean() const;
    /// The value of a number without a fraction ("3", "3.0", "3e2") that fits, else nothing. Precondition:
    /// kind() is number.
    std::optional<std::int64_t> integer() const;
    /// The member of that name, the first when there are several. Precondition: kind() is object.
    std::optional<JsonValue> member(std::string_view name) const;
    /// Precondition: kind() is object.
    void forEachMember(const std::function<void(std::string_view, JsonValue)>& visit) const;
    /// Precondition: kind() is array.
    void forEachElement(const std::function<void(JsonValue)>& visit) const;

  private:
    const JsonNode& node() const;
    JsonValue next() const;
    std::size_t end() const;

    const JsonDocument* document_ = nullptr;
    std::size_t place_ = 0;
};

/// A value, or the name of a member, in a list that holds every value before those inside it.
struct JsonNode {
    /// Where the text of a string or number begins.
    std::uint32_t begin = 0;
    /// Of a string or number the length of its text in bytes, of an object or array the number of nodes that
    /// it takes, of a boolean its value.
    std::uint32_t extent = 0;
    JsonValue::Kind kind = JsonValue::Kind::null;
};

/// What a parser has read.
struct JsonDocument {
    /// With all escapes replaced by what they stand for.
    const char* text = nullptr;
    bool isInPlace = false;
    std::vector<JsonNode> nodes;
};

/// Parses JSON documents (RFC 8259, UTF-8 only), one at a time, reusing its memory. It checks all of a
/// document and leaves every text where it was read.
class JsonParser {
  public:
    JsonParser() = default;
    JsonParser(const JsonParser&) = delete;
    JsonParser& operator=(const JsonParser&) = delete;

    /// The one document in `text`. Throws DecodingFailure (malformedData) for anything else.
    JsonValue parse(std::string_view text);
    /// As parse, without a copy: escapes are replaced where they stand, which spoils `text` for others. The
    /// caller keeps it as long as a value, or the text of a string, is used.
    JsonValue parseInPlace(std::span<char> text);

  private:
    std::string copy_;
    JsonDocument document_;
};

/// `json` with every escape of half a surrogate pair ("\ud800") replaced by that of U+FFFD. Scripts can hold
/// such halves in their strings and JSON.stringify passes them on, but no Unicode text can (RFC 8259,
/// section 8.2), so the parser refuses them.
std::string withoutLoneSurrogates(std::string_view json);

}  // namespace brindle

#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace brindle::test {

/// A JSON document as an independent library reads and writes it: what our own reader and writer are held
/// against.
///
/// The library itself stays behind this type, which costs a test file next to nothing to compile. A braced
/// list of pairs whose first elements are texts is an object, any other braced list is an array. What a
/// document does not hold is a std::runtime_error, which ends the test.
class Json {
  public:
    using Array = std::vector<Json>;
    struct Member;
    /// In the order of the text that was parsed; two objects are equal whatever their order.
    using Object = std::vector<Member>;

    Json(std::nullptr_t = nullptr);
    Json(bool value);
    template <std::integral Integer>
    Json(Integer value) : Json(Number{static_cast<std::int64_t>(value)}) {}
    Json(double value);
    Json(const char* text);
    Json(std::string_view text);
    Json(std::string text);
    Json(std::initializer_list<Json> elements);
    template <class Element>
    Json(const std::vector<Element>& elements) : Json(array()) {
        for (const auto& element : elements) push_back(element);
    }

    Json(const Json& other);
    Json(Json&& other) noexcept;
    Json& operator=(const Json& other);
    Json& operator=(Json&& other) noexcept;
    ~Json();

    static Json array(std::initializer_list<Json> elements = {});
    static Json object();

    /// The one document in `text`; anything else is an error that shows the text.
    static Json parse(std::string_view text);
    /// The one document in `text`; nothing when it is something else.
    static std::optional<Json> parseIfPossible(std::string_view text);
    /// The document with sorted names: compact, or with each member on a line of its own.
    std::string dump(int indentSpaces = -1) const;
    /// The same, compact, with the names in the order in which they were parsed or added.
    std::string dumpInOrder() const;

    bool isNull() const;
    bool isString() const;
    bool isObject() const;
    bool isArray() const;
    bool isStructured() const { return isObject() || isArray(); }
    bool hasTypeOf(const Json& other) const { return value_.index() == other.value_.index(); }

    /// A text, a truth value or an integer.
    template <class T>
    T get() const;
    const std::string& text() const;
    operator std::string() const { return text(); }

    // Objects. A name that is missing is added by the operator of a document that can be changed, else an
    // error.
    Json& operator[](std::string_view name);
    const Json& operator[](std::string_view name) const { return at(name); }
    Json& operator[](const char* name) { return (*this)[std::string_view(name)]; }
    const Json& operator[](const char* name) const { return at(std::string_view(name)); }
    Json& at(std::string_view name);
    const Json& at(std::string_view name) const;
    const Json& at(const char* name) const { return at(std::string_view(name)); }
    Json& at(const char* name) { return at(std::string_view(name)); }
    bool contains(std::string_view name) const;
    Json value(std::string_view name, Json fallback) const;
    /// Says whether there was one.
    bool erase(std::string_view name);
    const Object& members() const;
    /// The name of an object's first member.
    const std::string& firstName() const;

    /// The value at a JSON Pointer (RFC 6901) without escapes: "/error/_0/message".
    Json& atPointer(std::string_view pointer);
    const Json& atPointer(std::string_view pointer) const;
    bool containsPointer(std::string_view pointer) const;

    // Arrays.
    const Json& operator[](std::size_t index) const { return at(index); }
    const Json& operator[](int index) const { return at(static_cast<std::size_t>(index)); }
    const Json& at(std::size_t index) const;
    const Json& at(int index) const { return at(static_cast<std::size_t>(index)); }
    // NOLINTNEXTLINE(readability-identifier-naming): as the standard's containers name it.
    void push_back(Json element);
    const Json& front() const { return at(std::size_t{0}); }
    Array::const_iterator begin() const;
    Array::const_iterator end() const;

    /// The elements of an array or the values of an object's members; none for anything else.
    std::vector<Json*> children();
    /// How many children there are.
    std::size_t size() const;
    bool empty() const { return size() == 0; }

    friend bool operator==(const Json& left, const Json& right);
    /// Texts compare by their bytes, integers by value; nothing else has an order.
    friend std::strong_ordering operator<=>(const Json& left, const Json& right);
    friend std::ostream& operator<<(std::ostream& stream, const Json& value);

  private:
    Json* find(std::string_view name);
    const Json* find(std::string_view name) const;

    /// Keeps integers apart from the constructor for truth values.
    struct Number {
        std::int64_t value;
        // NOLINTNEXTLINE(modernize-use-nullptr): it means the comparison with zero that the compiler writes.
        auto operator<=>(const Number&) const = default;
    };
    explicit Json(Number value);
    struct Codec;
    template <class Library>
    struct Encoder;

    std::variant<std::nullptr_t, bool, Number, double, std::string, Array, Object> value_;
};

/// One member of an object.
struct Json::Member {
    std::string name;
    Json value;

    friend bool operator==(const Member& left, const Member& right);
};

template <>
std::string Json::get<std::string>() const;
template <>
bool Json::get<bool>() const;
template <>
int Json::get<int>() const;
template <>
std::vector<std::string> Json::get<std::vector<std::string>>() const;

/// How GoogleTest shows a document.
void PrintTo(const Json& value, std::ostream* stream);

}  // namespace brindle::test

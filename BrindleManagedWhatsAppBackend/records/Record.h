#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "records/DecodingFailure.h"
#include "records/JsonParser.h"
#include "records/JsonWriter.h"
#include "records/LongText.h"

/// Records: plain structs that cross a boundary as JSON objects.
///
/// A record lists its fields once, in a static function `fields()`; reading, writing, the JSON Schema and the
/// reference pages come from that list. A field is a string (std::string, or LongText for one that may be
/// very long), a boolean, an integer (std::int64_t), another record, a list (std::vector) of these or an
/// option (std::optional) of any. An enumeration with payloads lists its cases once, each with its name.
namespace brindle {

/// One field of a record: its JSON name, the member that holds it and its meaning for the reference.
template <class Record, class Value>
struct Field {
    std::string_view name;
    Value Record::*member;
    std::string_view meaning;
};

template <class Record, class Value>
constexpr Field<Record, Value> field(std::string_view name, Value Record::*member, std::string_view meaning) {
    return {name, member, meaning};
}

template <class T>
concept RecordType = requires {
    T::fields();
};

/// Calls `visit` with each field of the record, in the order of their declaration.
template <RecordType R, class Visit>
constexpr void forEachField(const Visit& visit) {
    std::apply([&](const auto&... each) { (visit(each), ...); }, R::fields());
}

/// The text of a case's name, in a form that can be a template argument.
template <std::size_t size_with_end>
struct CaseName {
    // Implicit, so that a list of cases shows plain literals.
    consteval CaseName(const char (&literal)[size_with_end]) {
        std::copy_n(literal, size_with_end, characters.begin());
    }
    std::array<char, size_with_end> characters{};
};

/// One case of an enumeration: its JSON name and the record that goes with it.
template <CaseName case_name, class PayloadRecord>
struct Case {
    using Payload = PayloadRecord;
    static constexpr std::string_view name{case_name.characters.data(), case_name.characters.size() - 1};
};

namespace record {

/// True when every name tells its case apart from the others.
template <std::size_t count>
consteval bool areDistinctNames(std::array<std::string_view, count> names) {
    std::sort(names.begin(), names.end());
    return std::adjacent_find(names.begin(), names.end()) == names.end() &&
           (names.empty() || !names.front().empty());
}

}  // namespace record

/// An enumeration with payloads: a variant whose alternatives have names. The type derived from it says in
/// `payload_name` which member holds the payload inside the case's object; "" when that object is the
/// payload.
template <class... Each>
struct Enumeration : std::variant<typename Each::Payload...> {
    using Cases = std::variant<typename Each::Payload...>;
    using std::variant<typename Each::Payload...>::variant;

    /// The names of the alternatives, in their order.
    static constexpr std::array<std::string_view, sizeof...(Each)> case_names{Each::name...};
    static_assert(record::areDistinctNames(case_names));

    /// The name of the case that carries such a record.
    template <class PayloadRecord>
    static consteval std::string_view caseName() {
        static_assert((std::same_as<PayloadRecord, typename Each::Payload> + ...) == 1);
        std::size_t index = 0;
        static_cast<void>(((std::same_as<PayloadRecord, typename Each::Payload> || ++index == 0) || ...));
        return case_names[index];
    }

    /// Calls `visit` with each case, in the order of the alternatives.
    template <class Visit>
    static constexpr void forEachCase(const Visit& visit) {
        (visit(Each{}), ...);
    }
};

template <class T>
concept EnumerationType = requires {
    T::case_names;
    T::payload_name;
};

/// The place of a value in its document, for error messages.
class JsonPath {
  public:
    JsonPath() = default;
    JsonPath(const JsonPath& parent, std::string_view name) : parent_(&parent), name_(name) {}
    JsonPath(const JsonPath& parent, std::size_t index) : parent_(&parent), index_(index) {}

    std::string text() const {
        if (parent_ == nullptr) return {};
        std::string path = parent_->text();
        if (index_) return path.append("[").append(std::to_string(*index_)).append("]");
        if (!path.empty()) path += '.';
        return path.append(name_);
    }

    [[noreturn]] void fail(DecodingFailure::Kind kind, std::string detail) const {
        throw DecodingFailure(kind, text(), std::move(detail));
    }

  private:
    const JsonPath* parent_ = nullptr;
    std::string_view name_;
    std::optional<std::size_t> index_;
};

namespace record {

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};
template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};

template <RecordType R>
inline constexpr std::size_t field_count = std::tuple_size_v<decltype(R::fields())>;

template <RecordType R>
constexpr auto fieldNames() {
    return std::apply(
        [](const auto&... each) { return std::array<std::string_view, sizeof...(each)>{each.name...}; },
        R::fields());
}

/// The fields' places in ascending order of their names.
template <RecordType R>
consteval auto sortedOrder() {
    const auto names = fieldNames<R>();
    std::array<std::size_t, field_count<R>> order{};
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return names[a] < names[b]; });
    return order;
}

/// Calls `visit` with each field of the record, in the order of a JSON document: by ascending names.
template <RecordType R, class Visit>
constexpr void forEachFieldByName(const Visit& visit) {
    constexpr auto order = sortedOrder<R>();
    constexpr auto fields = R::fields();
    [&]<std::size_t... place>(std::index_sequence<place...>) {
        (visit(std::get<order[place]>(fields)), ...);
    }
    (std::make_index_sequence<order.size()>());
}

/// True when the listed fields account for the whole struct, so that no member can be forgotten in the list.
template <RecordType R>
consteval bool listsEveryMember() {
    std::size_t size = 0;
    std::size_t alignment = 1;
    forEachField<R>([&]<class Value>(const Field<R, Value>&) {
        size = (size + alignof(Value) - 1) / alignof(Value) * alignof(Value) + sizeof(Value);
        alignment = std::max(alignment, alignof(Value));
    });
    return field_count<R> == 0 || (size + alignment - 1) / alignment * alignment == sizeof(R);
}

inline void requireObject(JsonValue value, const JsonPath& path) {
    if (value.kind() == JsonValue::Kind::object) return;
    path.fail(value.kind() == JsonValue::Kind::null ? DecodingFailure::Kind::missingValue
                                                    : DecodingFailure::Kind::typeMismatch,
              "Expected an object.");
}

inline void requireKind(JsonValue value, JsonValue::Kind kind, const JsonPath& path,
                        const char* expectation) {
    if (value.kind() == kind) return;
    path.fail(value.kind() == JsonValue::Kind::null ? DecodingFailure::Kind::missingValue
                                                    : DecodingFailure::Kind::typeMismatch,
              expectation);
}

template <class T>
void encode(JsonWriter& writer, const T& value);

template <RecordType R>
void encodeFields(JsonWriter& writer, const R& value) {
    forEachFieldByName<R>([&]<class Value>(const Field<R, Value>& each) {
        const Value& member = value.*(each.member);
        if constexpr (IsOptional<Value>::value) {
            if (!member) return;
            writer.name(each.name);
            encode(writer, *member);
        } else {
            writer.name(each.name);
            encode(writer, member);
        }
    });
}

template <EnumerationType E>
void encodeCase(JsonWriter& writer, const E& value) {
    writer.beginObject();
    writer.name(E::case_names[value.index()]);
    if (!E::payload_name.empty()) {
        writer.beginObject();
        writer.name(E::payload_name);
    }
    std::visit([&](const auto& payload) { encode(writer, payload); }, value);
    if (!E::payload_name.empty()) writer.endObject();
    writer.endObject();
}

template <class T>
void encode(JsonWriter& writer, const T& value) {
    if constexpr (std::same_as<T, bool>) {
        writer.boolean(value);
    } else if constexpr (std::same_as<T, std::int64_t>) {
        writer.integer(value);
    } else if constexpr (std::same_as<T, std::string>) {
        writer.string(value);
    } else if constexpr (std::same_as<T, LongText>) {
        writer.string(value.view());
    } else if constexpr (IsVector<T>::value) {
        writer.beginArray();
        for (const auto& element : value) encode(writer, element);
        writer.endArray();
    } else if constexpr (EnumerationType<T>) {
        encodeCase(writer, value);
    } else {
        static_assert(listsEveryMember<T>());
        writer.beginObject();
        encodeFields(writer, value);
        writer.endObject();
    }
}

template <class T>
T decode(JsonValue value, const JsonPath& path);

template <class Value>
Value decodeMember(JsonValue object, std::string_view name, const JsonPath& path) {
    const JsonPath memberPath(path, name);
    const auto member = object.member(name);
    if constexpr (IsOptional<Value>::value) {
        if (!member || member->kind() == JsonValue::Kind::null) return std::nullopt;
        return decode<typename Value::value_type>(*member, memberPath);
    } else {
        if (!member) memberPath.fail(DecodingFailure::Kind::missingKey, "No such member.");
        return decode<Value>(*member, memberPath);
    }
}

template <RecordType R>
R decodeRecord(JsonValue value, const JsonPath& path) {
    requireObject(value, path);
    R result{};
    forEachField<R>([&]<class Value>(const Field<R, Value>& each) {
        result.*(each.member) = decodeMember<Value>(value, each.name, path);
    });
    return result;
}

/// The name of the case that the object names, and the value behind it.
template <EnumerationType E>
std::pair<std::string_view, JsonValue> recognizedCase(JsonValue value, const JsonPath& path) {
    std::size_t count = 0;
    std::pair<std::string_view, JsonValue> found;
    value.forEachMember([&](std::string_view name, JsonValue member) {
        const auto known = std::find(E::case_names.begin(), E::case_names.end(), name);
        if (known == E::case_names.end()) return;
        ++count;
        found = {*known, member};
    });
    if (count != 1) {
        path.fail(DecodingFailure::Kind::typeMismatch, "Invalid number of keys found, expected one.");
    }
    return found;
}

template <EnumerationType E>
E decodeCase(JsonValue value, const JsonPath& path) {
    requireObject(value, path);
    const auto recognized = recognizedCase<E>(value, path);
    const JsonPath casePath(path, recognized.first);
    requireObject(recognized.second, casePath);
    std::optional<E> result;
    E::forEachCase([&]<class EachCase>(EachCase) {
        using Payload = typename EachCase::Payload;
        if (EachCase::name != recognized.first) return;
        if constexpr (E::payload_name.empty()) {
            result.emplace(decode<Payload>(recognized.second, casePath));
        } else {
            result.emplace(decodeMember<Payload>(recognized.second, E::payload_name, casePath));
        }
    });
    return std::move(*result);
}

inline std::int64_t decodeInteger(JsonValue value, const JsonPath& path) {
    constexpr auto expectation = "Expected an integer of 64 bits.";
    requireKind(value, JsonValue::Kind::number, path, expectation);
    const auto integer = value.integer();
    if (!integer) path.fail(DecodingFailure::Kind::typeMismatch, expectation);
    return *integer;
}

template <class T>
T decode(JsonValue value, const JsonPath& path) {
    if constexpr (std::same_as<T, bool>) {
        requireKind(value, JsonValue::Kind::boolean, path, "Expected true or false.");
        return value.boolean();
    } else if constexpr (std::same_as<T, std::int64_t>) {
        return decodeInteger(value, path);
    } else if constexpr (std::same_as<T, std::string>) {
        requireKind(value, JsonValue::Kind::string, path, "Expected a string.");
        return std::string(value.string());
    } else if constexpr (std::same_as<T, LongText>) {
        requireKind(value, JsonValue::Kind::string, path, "Expected a string.");
        return value.isInPlace() ? LongText::borrowed(value.string()) : LongText(std::string(value.string()));
    } else if constexpr (IsVector<T>::value) {
        requireKind(value, JsonValue::Kind::array, path, "Expected an array.");
        T result;
        value.forEachElement([&](JsonValue element) {
            result.push_back(decode<typename T::value_type>(element, JsonPath(path, result.size())));
        });
        return result;
    } else if constexpr (EnumerationType<T>) {
        return decodeCase<T>(value, path);
    } else {
        static_assert(listsEveryMember<T>());
        return decodeRecord<T>(value, path);
    }
}

}  // namespace record

/// The JSON document of a record or enumeration, member names in ascending order, absent options left out.
template <class T>
std::string encodedRecord(const T& value, JsonStyle style) {
    JsonWriter writer(style);
    record::encode(writer, value);
    return writer.finish();
}

/// Writes that document piece by piece.
template <class T>
void encodeInPieces(const T& value, JsonStyle style, const PieceTaker& take) {
    JsonWriter writer(style, take);
    record::encode(writer, value);
    take(writer.finish());
}

/// The record in a parsed document. Throws DecodingFailure naming the place; nothing is read in part. Of a
/// document that was parsed in place the long texts are borrowed.
template <class T>
T decodedRecord(JsonValue root) {
    return record::decode<T>(root, JsonPath());
}

/// The record in a JSON text. Throws DecodingFailure.
template <class T>
T decodedRecord(std::string_view text) {
    JsonParser parser;
    return decodedRecord<T>(parser.parse(text));
}

}  // namespace brindle

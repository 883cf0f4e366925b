#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "records/DecodingFailure.h"
#include "records/JsonParser.h"
#include "records/JsonWriter.h"
#include "records/LongText.h"
#include "records/Problems.h"
#include "records/RecordDeclaration.h"

/// Reading and writing records.
namespace brindle {

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

    [[noreturn]] void fail(DecodingFailure::Kind kind, std::string_view problem, std::string detail) const {
        throw DecodingFailure(kind, problem, text(), std::move(detail));
    }

  private:
    const JsonPath* parent_ = nullptr;
    std::string_view name_;
    std::optional<std::size_t> index_;
};

namespace record {

/// Fails when the value is of another kind than a member of this type holds.
inline void requireKind(JsonValue value, JsonValue::Kind kind, const JsonPath& path) {
    if (value.kind() == kind) return;
    if (value.kind() == JsonValue::Kind::null) {
        path.fail(DecodingFailure::Kind::missingValue, "a required value is null", "Expected a value.");
    }
    const auto problem = mistypedValue(value.kind(), kind);
    path.fail(DecodingFailure::Kind::typeMismatch, problem, problem);
}

inline void requireObject(JsonValue value, const JsonPath& path) {
    requireKind(value, JsonValue::Kind::object, path);
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
        static_assert(listsEveryMember<T>() && hasPlainNames<T>());
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
        if (!member) {
            memberPath.fail(DecodingFailure::Kind::missingKey, "a required value is missing",
                            "No such member.");
        }
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
        path.fail(DecodingFailure::Kind::typeMismatch, ambiguousCase(value, E::case_names),
                  "Invalid number of keys found, expected one.");
    }
    return found;
}

inline void requirePayload(const std::pair<std::string_view, JsonValue>& recognized,
                           std::string_view payloadName, const JsonPath& casePath) {
    if (recognized.second.member(payloadName)) return;
    JsonPath(casePath, payloadName)
        .fail(DecodingFailure::Kind::missingKey, missingPayload(recognized.first, payloadName),
              "No such member.");
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
            requirePayload(recognized, E::payload_name, casePath);
            result.emplace(decodeMember<Payload>(recognized.second, E::payload_name, casePath));
        }
    });
    return std::move(*result);
}

inline std::int64_t decodeInteger(JsonValue value, const JsonPath& path) {
    requireKind(value, JsonValue::Kind::number, path);
    const auto integer = value.integer();
    if (!integer) {
        path.fail(DecodingFailure::Kind::typeMismatch, "it has a number that is no integer of 64 bits",
                  "Expected an integer of 64 bits.");
    }
    return *integer;
}

template <class T>
T decode(JsonValue value, const JsonPath& path) {
    if constexpr (std::same_as<T, bool>) {
        requireKind(value, JsonValue::Kind::boolean, path);
        return value.boolean();
    } else if constexpr (std::same_as<T, std::int64_t>) {
        return decodeInteger(value, path);
    } else if constexpr (std::same_as<T, std::string>) {
        requireKind(value, JsonValue::Kind::string, path);
        return std::string(value.string());
    } else if constexpr (std::same_as<T, LongText>) {
        requireKind(value, JsonValue::Kind::string, path);
        return value.isInPlace() ? LongText::borrowed(value.string()) : LongText(std::string(value.string()));
    } else if constexpr (IsVector<T>::value) {
        requireKind(value, JsonValue::Kind::array, path);
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

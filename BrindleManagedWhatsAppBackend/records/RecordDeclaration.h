#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

/// Records: plain structs that cross a boundary as JSON objects.
///
/// A record lists its fields once, in a static function `fields()`; reading, writing, the JSON Schema and the
/// reference pages come from that list. A field is a string (std::string, or LongText for one that may be
/// very long), a boolean, an integer (std::int64_t), another record, a list (std::vector) of these or an
/// option (std::optional) of any. An enumeration with payloads lists its cases once, each with its name. A
/// record or enumeration that is a whole document also has a `meaning`, a sentence.
namespace brindle {

/// What is written into a field, for schema and examples. It binds those who write; whoever reads takes every
/// value of the field's type.
struct Form {
    /// By the names of JSON Schema ("date-time").
    std::string_view format{};
    /// Of bytes in a text ("base64", RFC 4648).
    std::string_view encoding{};
    /// The only texts that are written; empty when there are others.
    std::span<const std::string_view> words{};
    std::string_view example{};
};

constexpr Form like(std::string_view example) {
    return {.example = example};
}
/// One of `words`, which live for ever.
constexpr Form oneOf(std::span<const std::string_view> words) {
    return {.words = words, .example = words.front()};
}
constexpr Form base64Of(std::string_view example) {
    return {.encoding = "base64", .example = example};
}
constexpr Form uuidLike(std::string_view example) {
    return {.format = "uuid", .example = example};
}
/// A time as RFC 3339 has it.
constexpr Form dateTime() {
    return {.format = "date-time", .example = "2026-01-05T09:30:00Z"};
}

/// One field of a record: its JSON name, the member that holds it, its meaning for the reference and its
/// form.
template <class Record, class Value>
struct Field {
    std::string_view name;
    Value Record::*member;
    std::string_view meaning;
    Form form;
};

template <class Record, class Value>
constexpr Field<Record, Value> field(std::string_view name, Value Record::*member, std::string_view meaning,
                                     Form form = {}) {
    return {name, member, meaning, form};
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

/// True when every name stands for itself in a JSON document (RFC 8259), so that it can be written as it is.
template <RecordType R>
consteval bool hasPlainNames() {
    bool isPlain = true;
    forEachField<R>([&]<class Value>(const Field<R, Value>& each) {
        for (const char character : each.name) {
            isPlain =
                isPlain && character >= ' ' && character != '"' && character != '\\' && character != '/';
        }
    });
    return isPlain;
}

}  // namespace record
}  // namespace brindle

#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "records/Record.h"

namespace brindle::test {

/// The numbers that decide what is generated; the same seed gives the same records on every machine.
using Seed = std::mt19937_64;

/// A number below `bound`.
inline std::size_t below(Seed& seed, std::size_t bound) {
    return static_cast<std::size_t>(seed() % bound);
}

/// A text of up to two dozen pieces, each with a difficulty of its own.
inline std::string generatedText(Seed& seed) {
    using namespace std::string_view_literals;
    static constexpr std::array pieces{
        "a"sv,    "Z"sv,      "7"sv,       " "sv,          "/"sv,      "\\"sv,     "\""sv,
        "\n"sv,   "\r\n"sv,   "\t"sv,      "\b"sv,         "\f"sv,     "\0"sv,     "\x1f"sv,
        "\x7f"sv, "\u00e9"sv, "e\u0301"sv, "\u2028"sv,     "\u2029"sv, "\ufeff"sv, "\ufffd"sv,
        "{"sv,    "}"sv,      "\\u0041"sv, "\U0001f469"sv, "null"sv,   "\uffff"sv, "\U0010ffff"sv};
    std::string text;
    for (auto count = below(seed, 24); count > 0; --count) text += pieces[below(seed, pieces.size())];
    return text;
}

inline std::int64_t generatedInteger(Seed& seed) {
    constexpr std::array edges{std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min(),
                               std::numeric_limits<std::int64_t>::max()};
    return below(seed, 2) == 0 ? edges[below(seed, edges.size())] : static_cast<std::int64_t>(seed());
}

/// A record, enumeration or field value with every part of it chosen by `seed`.
template <class T>
T generated(Seed& seed) {
    if constexpr (std::same_as<T, std::string> || std::same_as<T, LongText>) {
        return generatedText(seed);
    } else if constexpr (std::same_as<T, bool>) {
        return below(seed, 2) == 0;
    } else if constexpr (std::same_as<T, std::int64_t>) {
        return generatedInteger(seed);
    } else if constexpr (record::IsOptional<T>::value) {
        if (below(seed, 3) == 0) return std::nullopt;
        return generated<typename T::value_type>(seed);
    } else if constexpr (record::IsVector<T>::value) {
        T list;
        for (auto count = below(seed, 4); count > 0; --count) {
            list.push_back(generated<typename T::value_type>(seed));
        }
        return list;
    } else if constexpr (EnumerationType<T>) {
        const auto choice = T::case_names[below(seed, T::case_names.size())];
        T value = generated<std::variant_alternative_t<0, typename T::Cases>>(seed);
        T::forEachCase([&]<class EachCase>(EachCase) {
            if (EachCase::name == choice) value = generated<typename EachCase::Payload>(seed);
        });
        return value;
    } else {
        T value{};
        forEachField<T>(
            [&]<class Value>(const Field<T, Value>& each) { value.*(each.member) = generated<Value>(seed); });
        return value;
    }
}

/// True when both hold the same, part by part; the codec has no say in this.
template <class T>
bool areSame(const T& left, const T& right) {
    if constexpr (record::IsOptional<T>::value) {
        return left.has_value() == right.has_value() && (!left || areSame(*left, *right));
    } else if constexpr (record::IsVector<T>::value) {
        return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                          [](const auto& one, const auto& other) { return areSame(one, other); });
    } else if constexpr (EnumerationType<T>) {
        return left.index() == right.index() && std::visit(
                                                    [&]<class Payload>(const Payload& payload) {
                                                        return areSame(payload, std::get<Payload>(right));
                                                    },
                                                    left);
    } else if constexpr (RecordType<T>) {
        bool same = true;
        forEachField<T>([&]<class Value>(const Field<T, Value>& each) {
            same = same && areSame(left.*(each.member), right.*(each.member));
        });
        return same;
    } else {
        return left == right;
    }
}

}  // namespace brindle::test

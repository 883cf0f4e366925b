#pragma once

#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "records/LongText.h"
#include "records/RecordDeclaration.h"

/// Examples of records, made from the examples of their fields.
namespace brindle {

namespace record {

template <class T>
std::vector<T> examplesOf(const Form& form);

/// All that can be there, only what must be there, and each case of an enumeration that the record holds.
template <RecordType R>
std::vector<R> recordExamples() {
    R full{};
    R bare{};
    bool hasOptions = false;
    forEachField<R>([&]<class Value>(const Field<R, Value>& each) {
        full.*(each.member) = examplesOf<Value>(each.form).front();
        if constexpr (IsOptional<Value>::value) {
            hasOptions = true;
        } else {
            bare.*(each.member) = full.*(each.member);
        }
    });
    std::vector<R> examples{full};
    if (hasOptions) examples.push_back(std::move(bare));
    forEachField<R>([&]<class Value>(const Field<R, Value>& each) {
        const auto values = examplesOf<Value>(each.form);
        for (std::size_t i = 1; i < values.size(); ++i) {
            examples.push_back(full);
            examples.back().*(each.member) = values[i];
        }
    });
    return examples;
}

template <EnumerationType E>
std::vector<E> caseExamples() {
    std::vector<E> examples;
    E::forEachCase([&]<class EachCase>(EachCase) {
        for (auto& payload : examplesOf<typename EachCase::Payload>({})) {
            examples.emplace_back(std::move(payload));
        }
    });
    return examples;
}

/// The examples of a field of that type and form; the first shows the most.
template <class T>
std::vector<T> examplesOf(const Form& form) {
    if constexpr (std::same_as<T, bool>) {
        return {true};
    } else if constexpr (std::same_as<T, std::int64_t>) {
        return {1};
    } else if constexpr (std::same_as<T, std::string> || std::same_as<T, LongText>) {
        return {T(std::string(form.example))};
    } else if constexpr (IsOptional<T>::value) {
        return {examplesOf<typename T::value_type>(form).front()};
    } else if constexpr (IsVector<T>::value) {
        return {T{examplesOf<typename T::value_type>(form).front()}};
    } else if constexpr (EnumerationType<T>) {
        return caseExamples<T>();
    } else {
        return recordExamples<T>();
    }
}

}  // namespace record

/// Examples of a record or enumeration; the first of each case shows the most.
template <class T>
std::vector<T> examplesOf() {
    return record::examplesOf<T>({});
}

}  // namespace brindle

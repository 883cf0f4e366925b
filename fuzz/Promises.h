#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "records/DecodingFailure.h"
#include "records/Record.h"
#include "support/GeneratedRecords.h"
#include "text/Text.h"

/// What every fuzzer holds the system to.
namespace brindle::fuzz {

/// Separates the parts of an input that has several; no part that is text can hold it.
inline constexpr char part_separator = '\xFF';

/// Says which promise is broken and dies, which is how a fuzzer reports.
inline void require(bool isKept, const char* promise) {
    if (isKept) return;
    std::fprintf(stderr, "Broken promise: %s\n", promise);
    std::abort();
}

inline std::string_view inputText(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// At least one part.
inline std::vector<std::string_view> separated(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (;;) {
        const auto end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + 1);
    }
}

inline void requireSentence(std::string_view description) {
    require(!description.empty(), "a failure is described");
    require(singleLine(description) == description, "the description of a failure is one line of text");
}

/// The record survives being written and read, in either layout.
template <class Record>
void requireLasting(const Record& record) {
    const auto line = encodedRecord(record, JsonStyle::compact);
    const auto document = encodedRecord(record, JsonStyle::pretty);
    require(line.find('\n') == std::string::npos, "a compact document is one line");
    require(document.ends_with("}\n"), "a document ends with its line");
    const auto again = decodedRecord<Record>(std::string_view(line));
    require(test::areSame(record, again), "what was written compactly is read back whole");
    require(test::areSame(record, decodedRecord<Record>(std::string_view(document))),
            "what was written for people is read back whole");
    require(encodedRecord(again, JsonStyle::compact) == line, "equal records have one document");
}

/// `decode` yields a lasting record or fails with a sentence.
template <class Decode>
void requireLastingOrRefused(const Decode& decode) {
    try {
        requireLasting(decode());
    } catch (const DecodingFailure& failure) {
        requireSentence(failure.what());
    }
}

}  // namespace brindle::fuzz

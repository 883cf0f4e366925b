#pragma once

#include <span>
#include <string>
#include <string_view>

#include "records/JsonParser.h"

/// What is wrong with a document, for the sentences of decoding failures. What the document says itself is
/// shown on one line and cut, because anybody may have written it.
namespace brindle::record {

/// "it has a number where a string is expected"
std::string mistypedValue(JsonValue::Kind met, JsonValue::Kind expected);

/// Why an object does not name exactly one of the cases: what it names instead, or besides.
std::string ambiguousCase(JsonValue object, std::span<const std::string_view> cases);

/// "\"connect\" lacks its \"_0\"": the member that holds what goes with a case.
std::string missingPayload(std::string_view caseName, std::string_view payloadName);

}  // namespace brindle::record

#include "records/Problems.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "text/Text.h"

namespace brindle::record {
namespace {

/// Of a name that nobody knows, people are shown no more: in Unicode code points.
constexpr std::size_t longest_shown_name = 40;
/// Of the names that nobody knows, people are shown no more.
constexpr std::size_t most_shown_names = 3;

std::string_view nameOf(JsonValue::Kind kind) {
    switch (kind) {
        case JsonValue::Kind::object:
            return "an object";
        case JsonValue::Kind::array:
            return "an array";
        case JsonValue::Kind::string:
            return "a string";
        case JsonValue::Kind::boolean:
            return "true or false";
        case JsonValue::Kind::number:
            return "a number";
        case JsonValue::Kind::null:
            break;
    }
    return "null";
}

std::string quoted(std::string_view name) {
    std::string result = "\"";
    for (const char c : singleLine(shortened(name, longest_shown_name))) {
        if (c == '"' || c == '\\') result += '\\';
        result += c;
    }
    return result.append("\"");
}

/// Names that a document holds: the first of them, and how many more there are. A line of 64 MiB holds
/// millions.
struct MetNames {
    std::vector<std::string> shown;
    std::size_t rest = 0;

    void add(std::string_view name) {
        if (shown.size() < most_shown_names) {
            shown.push_back(quoted(name));
        } else {
            ++rest;
        }
    }
};

/// "a, b and c"
std::string listed(std::span<const std::string> words) {
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i > 0) text.append(i + 1 == words.size() ? " and " : ", ");
        text.append(words[i]);
    }
    return text;
}

std::string listed(MetNames names) {
    if (names.rest > 0) names.shown.push_back(std::to_string(names.rest) + " more");
    return listed(names.shown);
}

}  // namespace

std::string mistypedValue(JsonValue::Kind met, JsonValue::Kind expected) {
    std::string text = "it has ";
    return text.append(nameOf(met)).append(" where ").append(nameOf(expected)).append(" is expected");
}

std::string ambiguousCase(JsonValue object, std::span<const std::string_view> cases) {
    MetNames known;
    MetNames unknown;
    object.forEachMember([&](std::string_view name, JsonValue) {
        const bool isKnown = std::find(cases.begin(), cases.end(), name) != cases.end();
        (isKnown ? known : unknown).add(name);
    });
    if (!known.shown.empty()) return "it names more than one case, " + listed(std::move(known));
    const auto expected = listed(std::vector<std::string>(cases.begin(), cases.end()));
    if (unknown.shown.empty()) return "it is an empty object, which names none of " + expected;
    return "it has " + listed(std::move(unknown)) + " where one of " + expected + " is expected";
}

std::string missingPayload(std::string_view caseName, std::string_view payloadName) {
    return quoted(caseName) + " lacks its " + quoted(payloadName) + ", which holds its values";
}

}  // namespace brindle::record

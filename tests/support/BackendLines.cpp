#include "support/BackendLines.h"

#include <cstddef>
#include <string_view>

#include "support/Json.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

/// As much of a line as a failure shows.
std::string shown(const std::string& line) {
    constexpr std::size_t most_bytes = 4000;
    return line.size() <= most_bytes ? line : line.substr(0, most_bytes) + "[...]";
}

}  // namespace

std::string errorMessageOf(const std::string& line) {
    const Json envelope = Json::parseIfPossible(line).value_or(Json());
    constexpr auto place = "/error/_0/message";
    if (!envelope.containsPointer(place) || !envelope.atPointer(place).isString() ||
        envelope != Json{{"error", {{"_0", {{"message", envelope.atPointer(place)}}}}}}) {
        throw TestFailure("not an error envelope: " + shown(line));
    }
    auto message = envelope.atPointer(place).text();
    const auto holds = [&](std::string_view text) { return message.find(text) != std::string::npos; };
    const bool hasLineBreak = holds("\n") || holds("\r") || holds("\v") || holds("\f") || holds("\u0085") ||
                              holds("\u2028") || holds("\u2029");
    if (message.empty() || hasLineBreak || holds("Invalid number of keys found, expected one.")) {
        throw TestFailure("not a message for people: " + shown(line));
    }
    return message;
}

std::string selfTestTitleOf(const std::string& line) {
    const Json envelope = Json::parseIfPossible(line).value_or(Json());
    constexpr auto place = "/inboundEvent/_0/event/conversationTitle";
    if (!envelope.containsPointer(place) || !envelope.atPointer(place).isString()) {
        throw TestFailure("not a self-test event: " + shown(line));
    }
    return envelope.atPointer(place);
}

}  // namespace brindle::test

#include "console/Expectation.h"

#include <algorithm>
#include <utility>

#include "bridge/BridgeMessages.h"
#include "records/DecodingFailure.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

void collectTexts(JsonValue value, std::vector<std::string>& texts) {
    switch (value.kind()) {
        case JsonValue::Kind::object:
            value.forEachMember([&](std::string_view, JsonValue member) { collectTexts(member, texts); });
            break;
        case JsonValue::Kind::array:
            value.forEachElement([&](JsonValue element) { collectTexts(element, texts); });
            break;
        case JsonValue::Kind::string:
            texts.emplace_back(value.string());
            break;
        default:
            break;
    }
}

template <class Names>
std::string listed(const Names& names) {
    std::string list;
    for (const auto name : names) list.append(list.empty() ? "" : ", ").append(name);
    return list;
}

template <class Names>
bool contains(const Names& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

ReceivedEnvelope ReceivedEnvelope::from(std::string_view line) {
    ReceivedEnvelope received;
    try {
        JsonParser parser;
        const JsonValue document = parser.parse(line);
        const auto envelope = decodedRecord<BridgeEnvelope>(document);
        received.name = BridgeEnvelope::case_names[envelope.index()];
        if (const auto* event = std::get_if<BridgeStateChangedEvent>(&envelope)) {
            received.innerName = BridgeConnectionState::case_names[event->state.index()];
        }
        if (const auto* inbound = std::get_if<BridgeInboundEvent>(&envelope)) {
            received.conversation = inbound->event.conversationId;
            received.conversationTitle = inbound->event.conversationTitle;
        }
        collectTexts(document, received.texts);
    } catch (const DecodingFailure&) {
        return {};
    }
    return received;
}

bool Expectation::matches(const ReceivedEnvelope& envelope) const {
    if (envelope.name != name) return false;
    if (!innerName.empty() && envelope.innerName != innerName) return false;
    return !containing ||
           std::any_of(envelope.texts.begin(), envelope.texts.end(), [this](const std::string& text) {
               return text.find(*containing) != std::string::npos;
           });
}

std::string Expectation::description() const {
    std::string text = name;
    if (!innerName.empty()) text.append(".").append(innerName);
    if (containing) text.append(" containing \"").append(*containing).append("\"");
    return text;
}

Expectation Expectation::forName(std::string_view dottedName) {
    const auto dot = dottedName.find('.');
    Expectation expectation;
    expectation.name = dottedName.substr(0, dot);
    // What only goes the other way would be waited for in vain.
    if (!contains(BridgeEnvelope::events, expectation.name)) {
        throw Failure("The helper sends no envelope \"" + singleLine(expectation.name) +
                      "\"; those that it sends are " + listed(BridgeEnvelope::events) + ".");
    }
    if (dot == std::string_view::npos) return expectation;
    expectation.innerName = dottedName.substr(dot + 1);
    if (expectation.name != "stateChanged") {
        throw Failure("The envelope " + expectation.name + " has no inner cases; only stateChanged has.");
    }
    if (!contains(BridgeConnectionState::case_names, expectation.innerName)) {
        throw Failure("There is no state \"" + singleLine(expectation.innerName) + "\"; the states are " +
                      listed(BridgeConnectionState::case_names) + ".");
    }
    return expectation;
}

void ReceivedEnvelopes::add(ReceivedEnvelope envelope) {
    waiting_.push_back(std::move(envelope));
    if (waiting_.size() > kept_envelopes) waiting_.pop_front();
}

bool ReceivedEnvelopes::consume(const Expectation& expectation) {
    const auto found = std::find_if(waiting_.begin(), waiting_.end(),
                                    [&](const ReceivedEnvelope& each) { return expectation.matches(each); });
    if (found == waiting_.end()) return false;
    waiting_.erase(waiting_.begin(), std::next(found));
    return true;
}

}  // namespace brindle::console

#include "support/Requests.h"

#include <utility>

namespace brindle::test {
namespace {

Json requestFor(const std::string& name, Json payload, const std::string& platform) {
    payload["platform"] = platform;
    return {{name, {{"_0", std::move(payload)}}}};
}

}  // namespace

Json connectRequest(const std::string& platform) {
    return requestFor("connect", Json::object(), platform);
}

Json disconnectRequest(const std::string& platform) {
    return requestFor("disconnect", Json::object(), platform);
}

Json startListeningRequest(const Json& scope, const std::string& platform) {
    return requestFor("startListening", {{"scope", scope}}, platform);
}

Json stopListeningRequest(const std::string& platform) {
    return requestFor("stopListening", Json::object(), platform);
}

Json sendMessageRequest(const Json& message, const std::string& platform) {
    return requestFor("sendMessage", {{"message", message}}, platform);
}

Json teamRoomMessage(const std::string& text) {
    return {{"conversationId", "team-room"}, {"text", text}};
}

Json conversationScope(const std::string& id, const std::string& title) {
    return {{"conversation", {{"id", id}, {"title", title}}}};
}

Json channelScope(const std::string& id, const std::string& title) {
    return {{"channel", {{"id", id}, {"title", title}}}};
}

Json threadScope(const std::string& id) {
    return {{"thread", {{"id", id}}}};
}

Json threadScope(const std::string& id, const std::string& title) {
    return {{"thread", {{"id", id}, {"title", title}}}};
}

Json testOnlyScope(const std::string& title) {
    return {{"testOnly", {{"title", title}}}};
}

Json inboundRecord(const std::string& messageId, const std::string& text) {
    return {{"messageId", messageId},
            {"conversationId", "team-room"},
            {"conversationTitle", "Team Room"},
            {"senderId", "ada"},
            {"senderDisplayName", "Ada"},
            {"text", text},
            {"timestampISO8601", "2026-01-05T09:30:00Z"},
            {"isDirectMessage", false},
            {"rawReference", "page-ref-" + messageId}};
}

}  // namespace brindle::test

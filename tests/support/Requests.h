#pragma once

#include <string>

#include "support/Json.h"

namespace brindle::test {

// The requests of the parent, as JSON documents.

Json connectRequest(const std::string& platform = "whatsapp");
Json disconnectRequest(const std::string& platform = "whatsapp");
Json startListeningRequest(const Json& scope, const std::string& platform = "whatsapp");
Json stopListeningRequest(const std::string& platform = "whatsapp");
Json sendMessageRequest(const Json& message, const std::string& platform = "whatsapp");
/// A message to the chat that conversationScope() names.
Json teamRoomMessage(const std::string& text);
Json conversationScope(const std::string& id = "team-room", const std::string& title = "Team Room");
Json channelScope(const std::string& id, const std::string& title);
Json threadScope(const std::string& id);
Json threadScope(const std::string& id, const std::string& title);
Json testOnlyScope(const std::string& title);

/// A complete inbound record of that chat, as a worker leaves it.
Json inboundRecord(const std::string& messageId, const std::string& text);

}  // namespace brindle::test

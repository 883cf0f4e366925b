#pragma once

#include <string>
#include <string_view>

#include "bridge/BridgeMessages.h"
#include "system/FileManager.h"

namespace brindle::console {

/// The file as an attachment: its name, its MIME type as its content tells (libmagic), the kind that follows
/// from that type, and its content as Base64. Throws Failure.
BridgeAttachment attachmentFromFile(FileManager& fileManager, const std::string& path);

/// "image", "video" or "audio" for such a MIME type, else "document".
std::string attachmentKind(std::string_view mimeType);

}  // namespace brindle::console

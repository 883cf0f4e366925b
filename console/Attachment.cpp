#include "console/Attachment.h"

#include <magic.h>

#include <array>
#include <memory>

#include "system/Paths.h"
#include "text/Base64.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

std::string mimeTypeOf(std::string_view content) {
    const std::unique_ptr<magic_set, decltype(&::magic_close)> cookie(::magic_open(MAGIC_MIME_TYPE),
                                                                      &::magic_close);
    if (!cookie || ::magic_load(cookie.get(), nullptr) != 0) {
        throw Failure("The database of file types cannot be read.");
    }
    const char* type = ::magic_buffer(cookie.get(), content.data(), content.size());
    return type != nullptr ? type : "application/octet-stream";
}

}  // namespace

BridgeAttachment attachmentFromFile(FileManager& fileManager, const std::string& path) {
    const auto content = fileManager.readFile(path);
    auto mimeType = mimeTypeOf(content);
    auto kind = attachmentKind(mimeType);
    return {.id = std::nullopt,
            .kind = std::move(kind),
            .fileName = std::string(lastPathComponent(path)),
            .mimeType = std::move(mimeType),
            .localPath = std::nullopt,
            .dataBase64 = base64Encoded(content),
            .caption = std::nullopt};
}

std::string attachmentKind(std::string_view mimeType) {
    const auto family = mimeType.substr(0, mimeType.find('/'));
    for (const std::string_view kind : {"image", "video", "audio"}) {
        if (family == kind) return std::string(kind);
    }
    return "document";
}

}  // namespace brindle::console

#include "worker/webkit/Urls.h"

#include <glib.h>

#include <algorithm>

#include "worker/webkit/GObjectPointer.h"

namespace brindle {

bool isAbsoluteUrl(std::string_view text) {
    // The library lets some of what RFC 3986 excludes pass.
    const bool hasExcluded = std::any_of(text.begin(), text.end(), [](char c) {
        return (c >= 0 && c <= ' ') || std::string_view("\x7f<>\"{}|\\^`").find(c) != std::string_view::npos;
    });
    return !hasExcluded && g_uri_is_valid(std::string(text).c_str(), G_URI_FLAGS_NONE, nullptr) != FALSE;
}

std::string directoryUrl(const std::string& directory) {
    const GText url(g_filename_to_uri(directory.c_str(), nullptr, nullptr));
    std::string text = textOf(url.get());
    if (!text.ends_with('/')) text += '/';
    return text;
}

}  // namespace brindle

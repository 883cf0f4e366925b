#include "worker/EngineVariables.h"

#include <array>

namespace brindle {
namespace {

constexpr std::array<std::string_view, 39> engine_variables{
    // Whose process this is, and where programs are.
    "HOME",
    "LOGNAME",
    "PATH",
    "USER",
    // The language of the engine's sentences and the formats that a page sees.
    "LANG",
    "LANGUAGE",
    "LC_ADDRESS",
    "LC_ALL",
    "LC_COLLATE",
    "LC_CTYPE",
    "LC_IDENTIFICATION",
    "LC_MEASUREMENT",
    "LC_MESSAGES",
    "LC_MONETARY",
    "LC_NAME",
    "LC_NUMERIC",
    "LC_PAPER",
    "LC_TELEPHONE",
    "LC_TIME",
    // The user's time, which messages show.
    "TZ",
    // The display, the key to it, and which one of two is meant.
    "DISPLAY",
    "GDK_BACKEND",
    "WAYLAND_DISPLAY",
    "XAUTHORITY",
    // Where website data lie, and Wayland's socket is.
    "XDG_CACHE_HOME",
    "XDG_DATA_HOME",
    "XDG_RUNTIME_DIR",
    // The way to the network. Both spellings are in use.
    "ALL_PROXY",
    "HTTPS_PROXY",
    "HTTP_PROXY",
    "NO_PROXY",
    "all_proxy",
    "http_proxy",
    "https_proxy",
    "no_proxy",
    // Whom to believe there.
    "SSL_CERT_DIR",
    "SSL_CERT_FILE",
    // Fonts where a system keeps them elsewhere.
    "FONTCONFIG_FILE",
    "FONTCONFIG_PATH",
};

}  // namespace

std::span<const std::string_view> engineVariables() {
    return engine_variables;
}

}  // namespace brindle

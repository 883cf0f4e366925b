#pragma once

#include <string>

#include "worker/PageScripts.h"

namespace brindle::test {

/// What a script asks of the page.
enum class Script { qrCode, linkState, activation, capture };

inline Script kindOf(const std::string& script) {
    if (script == page_script::qr_code) return Script::qrCode;
    if (script == page_script::link_state) return Script::linkState;
    // Both begin alike, but what follows the title tells them apart.
    const auto placeholder = page_script::chat_activation.find(page_script::watched_title_placeholder);
    const auto tail =
        page_script::chat_activation.substr(placeholder + page_script::watched_title_placeholder.size());
    return script.ends_with(tail) ? Script::activation : Script::capture;
}

}  // namespace brindle::test

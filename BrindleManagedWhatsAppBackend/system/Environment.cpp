#include "system/Environment.h"

#include <unistd.h>

#include "text/Text.h"

namespace brindle {

Environment currentEnvironment() {
    Environment snapshot;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        const auto separator = text.find('=');
        if (separator == std::string_view::npos || separator == 0) continue;
        snapshot.emplace(text.substr(0, separator), text.substr(separator + 1));
    }
    return snapshot;
}

std::optional<std::string> nonBlankValue(const Environment& environment, std::string_view key) {
    const auto found = environment.find(key);
    if (found == environment.end()) return std::nullopt;
    const auto value = trimmed(found->second);
    if (value.empty()) return std::nullopt;
    return std::string(value);
}

bool isFlagSet(const Environment& environment, std::string_view key) {
    const auto value = nonBlankValue(environment, key);
    if (!value) return false;
    const auto word = asciiLowercased(*value);
    return word == "1" || word == "true" || word == "yes" || word == "on";
}

}  // namespace brindle

#include "entry/LaunchAuthentication.h"

#include "exchange/EnvironmentKeys.h"
#include "text/Text.h"

namespace brindle {
namespace {

constexpr std::size_t shortest_token_characters = 32;

}  // namespace

bool isLaunchAuthenticated(const Environment& environment, FileManager& fileManager) noexcept {
    try {
        const auto token = nonBlankValue(environment, environment_key::launch_token);
        const auto path = nonBlankValue(environment, environment_key::launch_token_file);
        if (!token || graphemeClusterCount(*token) < shortest_token_characters) return false;
        if (!path) return false;
        const auto text = fileManager.readFile(*path);
        return isValidUtf8(text) && canonicallyEquivalentInConstantTime(trimmed(text), *token);
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace brindle

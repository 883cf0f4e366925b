#include "system/Environment.h"

#include <pwd.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

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

std::string homeDirectory(const Environment& environment) {
    const auto home = environment.find("HOME");
    if (home != environment.end() && !home->second.empty()) return home->second;
    const passwd* user = ::getpwuid(::getuid());  // NOLINT(concurrency-mt-unsafe): by precondition.
    return user == nullptr ? "/" : user->pw_dir;
}

bool isFlagSet(const Environment& environment, std::string_view key) {
    const auto value = nonBlankValue(environment, key);
    if (!value) return false;
    const auto word = asciiLowercased(*value);
    return word == "1" || word == "true" || word == "yes" || word == "on";
}

void wipeVariable(std::string_view name) {
    // A name may stand more than once, and the system keeps each.
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        if (text.size() <= name.size() || !text.starts_with(name) || text[name.size()] != '=') continue;
        // Not a plain assignment, which a compiler may leave out before memory that nobody reads again.
        ::explicit_bzero(*entry + name.size() + 1, text.size() - name.size() - 1);
    }
    ::unsetenv(std::string(name).c_str());  // NOLINT(concurrency-mt-unsafe): by precondition.
}

void keepVariables(std::span<const std::string_view> names) {
    Environment kept;
    for (auto& [name, value] : currentEnvironment()) {
        if (std::ranges::find(names, name) != names.end()) kept.emplace(name, value);
    }
    ::clearenv();  // NOLINT(concurrency-mt-unsafe): by precondition.
    for (const auto& [name, value] : kept) {
        ::setenv(name.c_str(), value.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): by precondition.
    }
}

}  // namespace brindle

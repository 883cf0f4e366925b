#pragma once

#include <string>

namespace brindle {

/// The folder of the application below one of the user's base directories (XDG, freedesktop.org): `variable`
/// names that one, else it is `fallback` in the home directory. The folder is made when it is missing and is
/// private to this user from now on. Throws Failure when it cannot be used, and when another user has, or has
/// had, a hand in what lies there.
std::string ownFolder(const char* variable, const char* fallback, const std::string& applicationName);

}  // namespace brindle

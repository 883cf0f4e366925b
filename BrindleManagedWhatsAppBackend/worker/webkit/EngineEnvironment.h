#pragma once

#include <string>

namespace brindle {

/// Leaves out of the environment what harms the engine, and keeps it from asking for desktop services that a
/// hidden page does not need. Comes before anything else. The caller has removed every variable that the
/// engine need not see (see engineVariables). `home` takes the place of the user's home directory and of what
/// the variables of XDG name in it; `cacheDirectory` stands in for a missing runtime directory.
void prepareEngineEnvironment(const std::string& home, const std::string& cacheDirectory);

/// Connects to the display. Throws Failure, saying how to provide one, when there is none.
void requireDisplay();

}  // namespace brindle

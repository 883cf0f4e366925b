#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace brindle::console {

/// The words of a command line. White space separates; '...' and "..." keep it. A backslash takes the next
/// character as it is, in "..." and outside of quotes, except for \n and \t. Throws Failure when a quote is
/// left open or a backslash ends the line.
std::vector<std::string> splitWords(std::string_view line);

}  // namespace brindle::console

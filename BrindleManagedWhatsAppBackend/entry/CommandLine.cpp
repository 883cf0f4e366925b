#include "entry/CommandLine.h"

#include <algorithm>

#include "exchange/PlatformArgument.h"

namespace brindle {

std::string platformName(const std::vector<std::string>& arguments) {
    auto value = std::find(arguments.begin(), arguments.end(), platform_argument);
    if (value == arguments.end() || ++value == arguments.end()) return std::string(default_platform);
    return *value;
}

}  // namespace brindle

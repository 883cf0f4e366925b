#include "entry/CommandLine.h"

#include <algorithm>

namespace brindle {
namespace {

constexpr auto platform_option = "--platform";
constexpr auto default_platform = "whatsapp";

}  // namespace

std::string platformName(const std::vector<std::string>& arguments) {
    auto value = std::find(arguments.begin(), arguments.end(), platform_option);
    if (value == arguments.end() || ++value == arguments.end()) return default_platform;
    return *value;
}

}  // namespace brindle

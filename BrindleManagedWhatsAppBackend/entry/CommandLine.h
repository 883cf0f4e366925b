#pragma once

#include <string>
#include <vector>

namespace brindle {

/// The platform that this process serves: the argument after the first "--platform", taken as it stands, else
/// "whatsapp". All other arguments are ignored.
std::string platformName(const std::vector<std::string>& arguments);

}  // namespace brindle

#pragma once

#include <map>
#include <string>

namespace brindle::test {

/// The environment of a process.
using Environment = std::map<std::string, std::string>;

}  // namespace brindle::test

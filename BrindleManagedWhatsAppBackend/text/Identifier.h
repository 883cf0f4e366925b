#pragma once

#include <string>

namespace brindle {

/// A fresh random UUID (RFC 4122, version 4) in canonical upper-case text form.
std::string randomIdentifier();

}  // namespace brindle

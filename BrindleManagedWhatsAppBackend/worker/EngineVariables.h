#pragma once

#include <span>
#include <string_view>

namespace brindle {

/// The variables that the engine may see; a worker removes all others before it loads the engine. Many change
/// what the engine's libraries do, some open its sandbox, and what else a parent has in its environment is
/// nothing that a page's process should be able to read.
std::span<const std::string_view> engineVariables();

}  // namespace brindle

#pragma once

#include "system/Environment.h"
#include "system/FileManager.h"

namespace brindle {

/// True when the parent started this process: the launch token of the environment is long enough and equals
/// the content of the token file. Never fails, never writes, never shows the token.
bool isLaunchAuthenticated(const Environment& environment, FileManager& fileManager) noexcept;

}  // namespace brindle

#pragma once

#include <sys/types.h>

#include <optional>
#include <string_view>

#include "exchange/DataDirectory.h"
#include "system/FileManager.h"

namespace brindle {

/// The process id in the text of a pid file: an optional sign and decimal digits in the range of 32 bits;
/// nothing for any other text.
std::optional<pid_t> parsedProcessIdentifier(std::string_view text);

/// The process that "worker.pid" names; nothing when it cannot be read or names none.
std::optional<pid_t> recordedWorkerProcess(FileManager& fileManager, const DataDirectory& directory);

}  // namespace brindle

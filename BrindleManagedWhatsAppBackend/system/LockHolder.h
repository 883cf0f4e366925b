#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "system/FileManager.h"

namespace brindle {

/// The process that has locked the object with an exclusive flock, by a list of all locks (the text of Linux
/// procfs "locks"); nothing when the list does not tell.
std::optional<pid_t> lockHolderIn(std::string_view locks, dev_t device, ino_t inode);

/// The other process that has locked the directory; nothing when the system does not tell, as some file
/// systems and containers do not. For people only: by the time it is read it may be wrong.
std::optional<pid_t> directoryLockHolder(FileManager& fileManager, const std::string& directory);

}  // namespace brindle

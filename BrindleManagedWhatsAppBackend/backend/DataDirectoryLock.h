#pragma once

#include <sys/types.h>

#include <optional>

#include "exchange/DataDirectory.h"
#include "system/Clock.h"
#include "system/Descriptor.h"
#include "system/FileManager.h"
#include "text/Failure.h"

namespace brindle {

/// The data directory belongs to another helper, and that did not change while this one waited.
class DataDirectoryTaken : public Failure {
  public:
    using Failure::Failure;
};

/// What the lock is taken with, and what ends the wait for it.
struct DataDirectoryLockUses {
    const DataDirectory& directory;
    FileManager& fileManager;
    const Clock& clock;
    /// The end of this input ends the wait,
    int input;
    /// and so does this descriptor once it is readable (-1 for none),
    int endRequest;
    /// and the end of the process that started this one.
    pid_t parentProcessIdentifier;
};

/// Takes the data directory for this process: two helpers in one directory would end each other's worker and
/// take each other's messages. The lock goes with the descriptor or with the process, however it ends.
///
/// Creates the directory if there is none, and touches nothing else. A parent that restarts its helper finds
/// the old one still ending, so another one is given a few seconds to go. Nothing is returned when this
/// process is to end meanwhile; the descriptor is not open where the file system knows no locks. Throws
/// FileSystemFailure when the directory cannot be created, and DataDirectoryTaken when another process keeps
/// it or requests are left unread.
std::optional<Descriptor> lockDataDirectory(const DataDirectoryLockUses& uses);

}  // namespace brindle

#pragma once

#include "exchange/DataDirectory.h"
#include "system/Clock.h"
#include "system/FileManager.h"

namespace brindle {

/// Ends the worker that an earlier backend has left behind, if "worker.pid" names one, and removes that file.
/// It is asked to end and killed when it has not done so within a second. A process that has nothing to do
/// with the directory is spared: after a reboot the number may be anybody's.
void endEarlierWorker(const DataDirectory& directory, FileManager& fileManager, const Clock& clock);

}  // namespace brindle

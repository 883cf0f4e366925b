#pragma once

#include "console/Command.h"
#include "console/Display.h"
#include "console/Doctor.h"
#include "exchange/DataDirectory.h"
#include "system/FileManager.h"

/// What can be done with a data directory in a session as well as without one.
namespace brindle::console {

/// Shows what an examination has found; whether all is well.
bool showReport(Display& display, const FindingReport& report);

/// Carries out the command on the directory's inbound records. Throws Failure.
void performInbox(Display& display, FileManager& fileManager, const DataDirectory& directory,
                  const InboxCommand& command);

}  // namespace brindle::console

#pragma once

#include <string>

#include "system/Environment.h"
#include "system/FileManager.h"
#include "worker/WebWorkerHost.h"

namespace brindle {

/// The folders of the application below two of the user's base directories (XDG, freedesktop.org), those for
/// data and for caches. They are made when they are missing and are private to this user from now on. Throws
/// Failure when one cannot be used, and when another user has, or has had, a hand in what lies there.
WebsiteDataFolders makeWebsiteDataFolders(const std::string& applicationName, const Environment& environment,
                                          FileManager& fileManager);

}  // namespace brindle

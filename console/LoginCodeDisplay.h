#pragma once

#include <string>
#include <string_view>

#include "console/Display.h"
#include "exchange/DataDirectory.h"
#include "system/FileManager.h"

namespace brindle::console {

/// Shows the login codes that the worker exports, each of them once.
class LoginCodeDisplay {
  public:
    LoginCodeDisplay(FileManager& fileManager, const DataDirectory& directory, Display& display)
        : fileManager_(fileManager), directory_(directory), display_(display) {}

    /// Shows the code that is there, unless it is the one last shown, or says that the worker is linked. True
    /// when no more is to come: with `untilLinked` after the login, else after the first code, too. Throws
    /// Failure when what is there cannot be shown.
    bool showNext(bool untilLinked);

  private:
    void sayLinked(std::string_view workerState) const;
    bool readPicture(std::string& png) const;
    void show(const std::string& png) const;

    FileManager& fileManager_;
    const DataDirectory& directory_;
    Display& display_;
    /// The picture of the code last shown.
    std::string shown_;
};

}  // namespace brindle::console

#pragma once

#include <string>
#include <utility>

#include "system/FileManager.h"
#include "text/Identifier.h"

namespace brindle {

/// The identifiers of the records that this process writes into one directory. They ascend, and the first one
/// is greater than those that an earlier process left waiting there, so that a reader that goes by names
/// takes the records in the order in which they were written, across restarts. One thread at a time.
class RecordIdentifiers {
  public:
    /// Touches nothing before the first identifier is needed: listing a long backlog takes time that a start
    /// does not have. `fileManager` outlives it.
    RecordIdentifiers(FileManager& fileManager, std::string directory,
                      AscendingIdentifiers::RandomSource random = randomBits)
        : fileManager_(fileManager), directory_(std::move(directory)), identifiers_(std::move(random)) {}

    /// A fresh one, greater than every one before. Never fails: while the directory cannot be listed it may
    /// stand before names that wait there, because a message out of order is better than none.
    std::string next();

  private:
    void riseAboveWaiting();

    FileManager& fileManager_;
    std::string directory_;
    AscendingIdentifiers identifiers_;
    bool isAboveWaiting_ = false;
};

}  // namespace brindle

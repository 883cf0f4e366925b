#pragma once

#include <map>
#include <optional>
#include <string>

#include "exchange/DataDirectory.h"
#include "system/Clock.h"
#include "system/DirectoryWalk.h"
#include "system/FileManager.h"

namespace brindle {

/// Takes away the unfinished files that killed writers have left in the data directory.
///
/// A file that has not been written to for long goes at the first look. By the clock alone a file could seem
/// old that is being written, so what seems young, or from the future, is looked at again later and goes when
/// nobody has touched it in between.
class AbandonedFiles {
  public:
    /// All of it outlives the object.
    struct Uses {
        const DataDirectory& directory;
        FileManager& fileManager;
        const Clock& clock;
    };

    explicit AbandonedFiles(const Uses& uses) : uses_(uses) {}

    /// Begins the first look.
    void begin();
    /// Whether the first look has met files that are to be looked at again.
    bool hasSuspects() const { return !suspects_.empty(); }
    /// Begins the second look.
    void lookAgain();
    /// Does a small part of the look that was begun; false once it is over.
    bool step() noexcept;

  private:
    void advance();
    void look(const DirectoryWalk::Entry& entry);
    void lookAgainAt(const std::string& path, const FileAttributes& before);
    bool isOver() const { return !walk_ && !looksAgain_; }

    Uses uses_;
    std::optional<DirectoryWalk> walk_;
    bool looksAgain_ = false;
    std::map<std::string, FileAttributes> suspects_;
};

}  // namespace brindle

#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "system/FileManager.h"

namespace brindle {

/// Goes through the entries of several directories, one entry after the other.
class DirectoryWalk {
  public:
    /// How many entries at a time are a small piece of work, between which others get their turn.
    static constexpr int entries_per_step = 32;

    struct Entry {
        /// Which of the directories, counted from 0.
        std::size_t directory = 0;
        std::string name;
        std::string path;
    };

    /// `fileManager` outlives the walk.
    DirectoryWalk(FileManager& fileManager, std::vector<std::string> directories)
        : fileManager_(fileManager), directories_(std::move(directories)) {}

    /// The next entry, hidden ones included, in no order; nothing at the end. Throws FileSystemFailure when a
    /// directory cannot be read; the walk goes on with the one behind it then.
    std::optional<Entry> next();

  private:
    std::optional<std::string> nextName();

    FileManager& fileManager_;
    std::vector<std::string> directories_;
    std::size_t current_ = 0;
    std::unique_ptr<DirectoryReader> reader_;
};

}  // namespace brindle

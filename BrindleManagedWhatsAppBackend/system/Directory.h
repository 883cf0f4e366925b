#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "system/FileAttributes.h"

namespace brindle {

/// A name in a directory, and what a listing tells of it.
struct DirectoryEntry {
    std::string name;
    ino_t inode = 0;
    /// False for everything else, and where the file system does not tell.
    bool isRegularFile = false;
};

/// What a directory holds.
struct DirectoryListing {
    /// The entries, hidden ones (".…") left out, in no order.
    std::vector<DirectoryEntry> visibleEntries;
    /// The listing shows the directory as it was at one moment. A long one is read in several portions and is
    /// no snapshot: it may show an entry that was made meanwhile, and not one that was made before that.
    bool isSnapshot = true;
};

/// A directory that is open: what is done in it goes by the name alone, and stays in this directory wherever
/// its path leads by then. Operations that fail throw FileSystemFailure and have had no effect.
class Directory {
  public:
    virtual ~Directory() = default;

    /// Those of the directory itself.
    virtual FileAttributes attributes() = 0;
    /// Not recursive.
    virtual DirectoryListing list() = 0;
    /// Those of an entry; a link is not followed. Nothing when there is none of that name any more.
    virtual std::optional<FileAttributes> attributesOf(const std::string& name) = 0;
    /// Replaces `content` by the whole content of a regular file, or of one that the entry links to. Answers
    /// its attributes as they were before it was read. Anything else is a failure and is never opened; so is
    /// a file of more than FileManager::longest_file_bytes.
    virtual FileAttributes readFile(const DirectoryEntry& entry, std::string& content) = 0;
    /// Renames an entry to the path; fails with EEXIST rather than replacing something.
    virtual void moveItem(const std::string& name, const std::string& to) = 0;
};

}  // namespace brindle

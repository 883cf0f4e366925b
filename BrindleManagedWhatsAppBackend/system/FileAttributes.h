#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>

namespace brindle {

/// What the system knows of a file, a directory or whatever else has a name.
struct FileAttributes {
    uid_t owner = 0;
    gid_t group = 0;
    /// Permission bits.
    mode_t permissions = 0;
    bool isDirectory = false;
    bool isRegularFile = false;
    bool isSymbolicLink = false;
    /// Together they tell one object from every other that exists at the time.
    dev_t device = 0;
    ino_t inode = 0;
    /// When its content was last written, which whoever may write it can set as he likes.
    std::chrono::system_clock::time_point modification;
    /// When it last changed in any way; a new name counts as a change. Nobody can set it.
    std::chrono::system_clock::time_point statusChange;
    /// The length of its content.
    std::uintmax_t bytes = 0;
    /// The space that it takes.
    std::uintmax_t allocatedBytes = 0;
};

/// The same in this system's terms.
FileAttributes attributesFrom(const struct stat& status);

}  // namespace brindle

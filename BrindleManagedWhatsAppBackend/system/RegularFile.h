#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "system/Descriptor.h"
#include "system/FileAttributes.h"

namespace brindle {

/// A name in a directory that is open, or a path and AT_FDCWD. The path for messages is put together only
/// when there is something to tell.
struct FilePlace {
    int directory;
    std::string_view directoryPath;
    const std::string& name;

    /// For messages.
    std::string path() const;
};

/// Opens a regular file for reading, links followed, after looking what it is: merely opening a device can
/// have effects. Throws FileSystemFailure.
Descriptor openAfterLooking(const FilePlace& place);

/// Replaces `content` by that of an open file. Answers the attributes that the file had before. Throws
/// FileSystemFailure for what is no regular file, or longer than FileManager::longest_file_bytes.
FileAttributes readWhole(const Descriptor& file, const FilePlace& place, std::string& content);

/// Renames; fails with EEXIST rather than replacing something. Throws FileSystemFailure.
void moveWithoutReplacing(const FilePlace& from, const std::string& to);

}  // namespace brindle

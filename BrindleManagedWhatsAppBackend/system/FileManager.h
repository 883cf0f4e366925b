#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "system/Descriptor.h"
#include "system/Directory.h"
#include "system/DirectoryWatch.h"
#include "system/FileAttributes.h"
#include "text/Pieces.h"

namespace brindle {

/// How sure a written file must be before it is visible.
enum class Durability {
    /// Survives the end of the process. For records that are rewritten all the time.
    process,
    /// On disk, name included, before the call returns. For messages.
    disk,
};

/// The names in a directory, one after the other: for directories that may be too large for one go.
class DirectoryReader {
  public:
    virtual ~DirectoryReader() = default;
    /// The next name, hidden ones included, in no order; nothing at the end. What comes or goes meanwhile may
    /// be left out. Throws FileSystemFailure.
    virtual std::optional<std::string> next() = 0;
};

/// Whether an entry of that name is not for everybody's eyes: ".…".
bool isHiddenName(std::string_view name);
/// Whether a file of that name is the unfinished work of FileManager::writeFileAtomically, here or in another
/// process.
bool isTemporaryName(std::string_view name);

/// Every touch of the file system. Operations that fail throw FileSystemFailure and have had no effect.
class FileManager {
  public:
    /// Longer files are not read: a broken writer must not cost the system its memory. A message with 256 MiB
    /// of Base64, every character of it escaped, stays well below.
    static constexpr std::size_t longest_file_bytes = std::size_t{1} << 30U;

    virtual ~FileManager() = default;

    /// Creates the directory and those above it, private to the user (0700). One that exists is no error.
    virtual void createDirectory(const std::string& path) = 0;
    /// Lets nobody but its owner, who must be this user, into a directory (0700). Fails for a link.
    virtual void makePrivate(const std::string& directory) = 0;
    /// Fails unless this process may list the directory, enter it and write there.
    virtual void requireAccess(const std::string& directory) = 0;
    /// Opens a directory to work in it.
    virtual std::unique_ptr<Directory> openDirectory(const std::string& path) = 0;
    /// Prepares to be told what comes into a directory; none is watched yet.
    virtual std::unique_ptr<DirectoryWatch> makeDirectoryWatch() = 0;
    /// Begins to read a directory; not recursive.
    virtual std::unique_ptr<DirectoryReader> readDirectory(const std::string& directory) = 0;
    /// The size of the file system that the path lies on; 0 when it has no bound.
    virtual std::uintmax_t fileSystemBytes(const std::string& path) = 0;
    /// True when something exists at the path, links followed.
    virtual bool fileExists(const std::string& path) = 0;
    /// True for a regular file that this process may execute.
    virtual bool isExecutableFile(const std::string& path) = 0;
    /// Those of what the path itself names: a link is not followed. Nothing when there is no such object.
    virtual std::optional<FileAttributes> attributes(const std::string& path) = 0;
    /// What a symbolic link holds.
    virtual std::string readLink(const std::string& path) = 0;
    /// The whole content of a regular file. Anything else at the path is a failure and is never opened; so is
    /// a file of more than longest_file_bytes.
    virtual std::string readFile(const std::string& path) = 0;
    /// Replaces the file in one step: a reader sees the old or the new content, never a part. The mode is
    /// 0600.
    virtual void writeFileAtomically(const std::string& path, std::string_view bytes,
                                     Durability durability) = 0;
    /// The same for a content that is given piece by piece, once. What giving it throws passes through, and
    /// nothing has happened then.
    virtual void writePiecesAtomically(const std::string& path, const PieceGiver& give,
                                       Durability durability);
    /// Renames; fails with EEXIST rather than replacing something.
    virtual void moveItem(const std::string& from, const std::string& to) = 0;
    /// Takes the directory for this process (an exclusive flock), without waiting, until the descriptor is
    /// closed or the process ends. Throws FileSystemFailure, with EWOULDBLOCK while another process has it
    /// and with ESTALE when the path names another directory by now.
    virtual Descriptor lockDirectory(const std::string& path) = 0;
    /// Removes a file or an empty directory.
    virtual void removeItem(const std::string& path) = 0;

    /// The visible names in a directory, in no order; not recursive. For those to whom the order of their
    /// making means nothing.
    std::vector<std::string> visibleEntries(const std::string& directory);
    /// Removes the file when it exists; never fails.
    void removeIfPresent(const std::string& path) noexcept;
};

/// The real file system, by POSIX calls.
class PosixFileManager final : public FileManager {
  public:
    void createDirectory(const std::string& path) override;
    void makePrivate(const std::string& directory) override;
    void requireAccess(const std::string& directory) override;
    std::unique_ptr<Directory> openDirectory(const std::string& path) override;
    std::unique_ptr<DirectoryWatch> makeDirectoryWatch() override;
    std::unique_ptr<DirectoryReader> readDirectory(const std::string& directory) override;
    std::uintmax_t fileSystemBytes(const std::string& path) override;
    bool fileExists(const std::string& path) override;
    bool isExecutableFile(const std::string& path) override;
    std::optional<FileAttributes> attributes(const std::string& path) override;
    std::string readLink(const std::string& path) override;
    std::string readFile(const std::string& path) override;
    void writeFileAtomically(const std::string& path, std::string_view bytes, Durability durability) override;
    void writePiecesAtomically(const std::string& path, const PieceGiver& give,
                               Durability durability) override;
    void moveItem(const std::string& from, const std::string& to) override;
    Descriptor lockDirectory(const std::string& path) override;
    void removeItem(const std::string& path) override;
};

}  // namespace brindle

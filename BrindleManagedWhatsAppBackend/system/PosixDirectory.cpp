#include "system/PosixDirectory.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "system/FileManager.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "system/RegularFile.h"

namespace brindle {
namespace {

/// Room for about 500 record files.
constexpr std::size_t listing_portion_bytes = std::size_t{32} << 10U;

/// Takes the entries of one portion of a directory apart.
void appendVisibleEntries(std::string_view portion, std::vector<DirectoryEntry>& entries) {
    while (!portion.empty()) {
        // Records of various lengths, each aligned for its type.
        const auto* entry = reinterpret_cast<const dirent64*>(portion.data());
        const std::string_view name(static_cast<const char*>(entry->d_name));
        if (!isHiddenName(name)) {
            entries.push_back(
                {.name = std::string(name), .inode = entry->d_ino, .isRegularFile = entry->d_type == DT_REG});
        }
        portion.remove_prefix(entry->d_reclen);
    }
}

}  // namespace

PosixDirectory::PosixDirectory(const std::string& path)
    : path_(path), descriptor_(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (!descriptor_.isOpen()) throw FileSystemFailure("list", path, errno);
}

FileAttributes PosixDirectory::attributes() {
    struct stat status {};
    if (::fstat(descriptor_.get(), &status) != 0) throw FileSystemFailure("look at", path_, errno);
    return attributesFrom(status);
}

DirectoryListing PosixDirectory::list() {
    DirectoryListing listing;
    if (::lseek(descriptor_.get(), 0, SEEK_SET) != 0) throw FileSystemFailure("list", path_, errno);
    alignas(dirent64) std::array<char, listing_portion_bytes> portion;
    for (int portions = 0;; ++portions) {
        // Not readdir, which hides where one portion ends: the system locks the directory for one at a time.
        const auto length = ::getdents64(descriptor_.get(), portion.data(), portion.size());
        if (length < 0) throw FileSystemFailure("list", path_, errno);
        if (length == 0) break;
        listing.isSnapshot = portions == 0;
        appendVisibleEntries({portion.data(), static_cast<std::size_t>(length)}, listing.visibleEntries);
    }
    return listing;
}

std::optional<FileAttributes> PosixDirectory::attributesOf(const std::string& name) {
    struct stat status {};
    if (::fstatat(descriptor_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return attributesFrom(status);
    const int code = errno;
    if (code == ENOENT) return std::nullopt;
    throw FileSystemFailure("look at", joinedPath(path_, name), code);
}

FileAttributes PosixDirectory::readFile(const DirectoryEntry& entry, std::string& content) {
    const FilePlace place{.directory = descriptor_.get(), .directoryPath = path_, .name = entry.name};
    if (entry.isRegularFile) {
        // A link or a FIFO may have taken the file's place since.
        const Descriptor file(::openat(place.directory, place.name.c_str(),
                                       O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
        if (file.isOpen()) return readWhole(file, place, content);
        const int code = errno;
        if (code != ELOOP) throw FileSystemFailure("read", place.path(), code);
    }
    return readWhole(openAfterLooking(place), place, content);
}

void PosixDirectory::moveItem(const std::string& name, const std::string& to) {
    moveWithoutReplacing({.directory = descriptor_.get(), .directoryPath = path_, .name = name}, to);
}

}  // namespace brindle

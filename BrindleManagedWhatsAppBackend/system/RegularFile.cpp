#include "system/RegularFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "system/FileManager.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "text/Text.h"

namespace brindle {
namespace {

constexpr mode_t permission_bits = 07777;
constexpr std::uintmax_t allocation_unit_bytes = 512;

std::chrono::system_clock::time_point timePoint(const timespec& time) {
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec)));
}

[[noreturn]] void failToRead(const FilePlace& place, int code) {
    throw FileSystemFailure("read", place.path(), code);
}

void requireRegular(const struct stat& status, const FilePlace& place) {
    if (!S_ISREG(status.st_mode)) throw FileSystemFailure("read", place.path(), "Not a regular file", EINVAL);
}

[[noreturn]] void failToMove(const FilePlace& from, const std::string& to, int code) {
    throw FileSystemFailure("move \"" + singleLine(from.path()) + "\" to", to, code);
}

/// Rename without replacing, for file systems that lack RENAME_NOREPLACE.
void moveAfterLooking(const FilePlace& from, const std::string& to) {
    struct stat status {};
    if (::lstat(to.c_str(), &status) == 0) failToMove(from, to, EEXIST);
    if (::renameat(from.directory, from.name.c_str(), AT_FDCWD, to.c_str()) != 0) failToMove(from, to, errno);
}

}  // namespace

FileAttributes attributesFrom(const struct stat& status) {
    return FileAttributes{
        .owner = status.st_uid,
        .group = status.st_gid,
        .permissions = status.st_mode & permission_bits,
        .isDirectory = S_ISDIR(status.st_mode),
        .isRegularFile = S_ISREG(status.st_mode),
        .isSymbolicLink = S_ISLNK(status.st_mode),
        .device = status.st_dev,
        .inode = status.st_ino,
        .modification = timePoint(status.st_mtim),
        .statusChange = timePoint(status.st_ctim),
        .bytes = static_cast<std::uintmax_t>(status.st_size),
        .allocatedBytes = static_cast<std::uintmax_t>(status.st_blocks) * allocation_unit_bytes};
}

std::string FilePlace::path() const {
    return directoryPath.empty() ? name : joinedPath(directoryPath, name);
}

Descriptor openAfterLooking(const FilePlace& place) {
    struct stat status {};
    if (::fstatat(place.directory, place.name.c_str(), &status, 0) != 0) failToRead(place, errno);
    requireRegular(status, place);
    // O_NONBLOCK covers a FIFO that takes the file's place in between.
    Descriptor file(
        ::openat(place.directory, place.name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.isOpen()) failToRead(place, errno);
    return file;
}

FileAttributes readWhole(const Descriptor& file, const FilePlace& place, std::string& content) {
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) failToRead(place, errno);
    requireRegular(status, place);
    const auto size = static_cast<std::size_t>(status.st_size);
    if (size > FileManager::longest_file_bytes) failToRead(place, EFBIG);
    // One byte more than the size, so that the usual file is read in a single call that also meets its end.
    content.resize(size + 1);
    std::size_t length = 0;
    for (;;) {
        if (length > FileManager::longest_file_bytes) failToRead(place, EFBIG);
        if (length == content.size()) content.resize(content.size() * 2);
        const auto got = ::read(file.get(), content.data() + length, content.size() - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) failToRead(place, errno);
        length += static_cast<std::size_t>(got);
        if (got == 0 || length == size) break;
    }
    content.resize(length);
    return attributesFrom(status);
}

void moveWithoutReplacing(const FilePlace& from, const std::string& to) {
    if (::renameat2(from.directory, from.name.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return;
    if (errno == EINVAL || errno == ENOSYS) return moveAfterLooking(from, to);
    failToMove(from, to, errno);
}

}  // namespace brindle

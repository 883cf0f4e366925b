#include "system/FileManager.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "system/Descriptor.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "text/Text.h"

namespace brindle {
namespace {

constexpr mode_t private_directory_mode = 0700;
constexpr mode_t permission_bits = 07777;
/// Room for about 500 record files.
constexpr std::size_t listing_portion_bytes = std::size_t{32} << 10U;
constexpr std::string_view temporary_name_template = ".brindle-XXXXXX";
constexpr char placeholder = 'X';
constexpr std::uintmax_t allocation_unit_bytes = 512;

std::string parentDirectory(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool isDirectory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::chrono::system_clock::time_point timePoint(const timespec& time) {
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec)));
}

class PosixDirectoryReader final : public DirectoryReader {
  public:
    explicit PosixDirectoryReader(const std::string& directory)
        : directory_(directory), stream_(::opendir(directory.c_str()), &::closedir) {
        if (!stream_) throw FileSystemFailure("list", directory, errno);
    }

    std::optional<std::string> next() override {
        for (;;) {
            errno = 0;
            // The stream is this object's own, which is all that readdir needs to be safe.
            const dirent* entry = ::readdir(stream_.get());  // NOLINT(concurrency-mt-unsafe)
            if (entry == nullptr && errno != 0) throw FileSystemFailure("list", directory_, errno);
            if (entry == nullptr) return std::nullopt;
            const std::string_view name(static_cast<const char*>(entry->d_name));
            if (name != "." && name != "..") return std::string(name);
        }
    }

  private:
    std::string directory_;
    std::unique_ptr<DIR, int (*)(DIR*)> stream_;
};

/// A regular file open for reading, and its size.
struct OpenFile {
    Descriptor descriptor;
    std::size_t size = 0;
};

OpenFile openRegularFile(const std::string& path) {
    struct stat status {};
    // Looking before opening: merely opening a device can have effects. O_NONBLOCK covers a FIFO that takes
    // the file's place in between.
    if (::stat(path.c_str(), &status) != 0) throw FileSystemFailure("read", path, errno);
    if (!S_ISREG(status.st_mode)) throw FileSystemFailure("read", path, "Not a regular file", EINVAL);
    OpenFile file;
    file.descriptor = Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.descriptor.isOpen()) throw FileSystemFailure("read", path, errno);
    if (::fstat(file.descriptor.get(), &status) != 0) throw FileSystemFailure("read", path, errno);
    if (!S_ISREG(status.st_mode)) throw FileSystemFailure("read", path, "Not a regular file", EINVAL);
    file.size = static_cast<std::size_t>(status.st_size);
    if (file.size > FileManager::longest_file_bytes) throw FileSystemFailure("read", path, EFBIG);
    return file;
}

/// A hidden file beside its future place; removed again unless it has been given its name.
class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string& target) : target_(target) {
        path_ = joinedPath(parentDirectory(target), temporary_name_template);
        descriptor_ = Descriptor(::mkostemp(path_.data(), O_CLOEXEC));
        if (!descriptor_.isOpen()) throw FileSystemFailure("write", target, errno);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (!path_.empty()) ::unlink(path_.c_str());
    }

    void write(std::string_view bytes) {
        while (!bytes.empty()) {
            const auto written = ::write(descriptor_.get(), bytes.data(), bytes.size());
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) throw FileSystemFailure("write", target_, errno);
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    void flushToDisk() {
        if (::fsync(descriptor_.get()) != 0) throw FileSystemFailure("write", target_, errno);
    }

    void becomeTarget() {
        // Some file systems report a failed write only here.
        if (::close(descriptor_.release()) != 0 && errno != EINTR)
            throw FileSystemFailure("write", target_, errno);
        if (::rename(path_.c_str(), target_.c_str()) != 0) throw FileSystemFailure("write", target_, errno);
        path_.clear();
    }

  private:
    std::string target_;
    std::string path_;
    Descriptor descriptor_;
};

/// Whether the path still leads to what is open.
bool isAtPath(const Descriptor& descriptor, const std::string& path) {
    struct stat open {};
    struct stat named {};
    return ::fstat(descriptor.get(), &open) == 0 && ::stat(path.c_str(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

Descriptor openDirectory(const std::string& path) {
    Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.isOpen()) throw FileSystemFailure("write", path, errno);
    return directory;
}

/// Makes the name of a file that has just become visible durable. A file whose name cannot be made durable is
/// taken away again: what is reported as failed must not be found.
void flushName(const Descriptor& directory, const std::string& path) {
    // EINVAL: the file system has nothing to flush for a directory.
    if (::fsync(directory.get()) == 0 || errno == EINVAL) return;
    const int code = errno;
    ::unlink(path.c_str());
    throw FileSystemFailure("write", path, code);
}

/// Takes the entries of one portion of a directory apart.
void appendVisibleEntries(std::string_view portion, std::vector<std::string>& names) {
    while (!portion.empty()) {
        // Records of various lengths, each aligned for its type.
        const auto* entry = reinterpret_cast<const dirent64*>(portion.data());
        const std::string_view name(static_cast<const char*>(entry->d_name));
        if (!isHiddenName(name)) names.emplace_back(name);
        portion.remove_prefix(entry->d_reclen);
    }
}

[[noreturn]] void failToMove(const std::string& from, const std::string& to, int code) {
    throw FileSystemFailure("move \"" + singleLine(from) + "\" to", to, code);
}

/// Rename without replacing, for file systems that lack RENAME_NOREPLACE.
void moveAfterLooking(const std::string& from, const std::string& to) {
    struct stat status {};
    if (::lstat(to.c_str(), &status) == 0) failToMove(from, to, EEXIST);
    if (::rename(from.c_str(), to.c_str()) != 0) failToMove(from, to, errno);
}

}  // namespace

bool isHiddenName(std::string_view name) {
    return name.starts_with('.');
}

bool isTemporaryName(std::string_view name) {
    const auto prefix = temporary_name_template.substr(0, temporary_name_template.find(placeholder));
    return name.starts_with(prefix) && name.size() == temporary_name_template.size();
}

void FileManager::writePiecesAtomically(const std::string& path, const PieceGiver& give,
                                        Durability durability) {
    std::string bytes;
    give([&](std::string_view piece) { bytes += piece; });
    writeFileAtomically(path, bytes, durability);
}

void FileManager::removeIfPresent(const std::string& path) noexcept {
    try {
        if (fileExists(path)) removeItem(path);
    } catch (const std::exception&) {
        // What cannot be removed stays; callers only want it out of the way.
    }
}

void PosixFileManager::createDirectory(const std::string& path) {
    if (::mkdir(path.c_str(), private_directory_mode) == 0) return;
    int code = errno;
    if (code == ENOENT && path != "/" && !path.empty() && parentDirectory(path) != path) {
        createDirectory(parentDirectory(path));
        if (::mkdir(path.c_str(), private_directory_mode) == 0) return;
        code = errno;
    }
    if (isDirectory(path)) return;
    throw FileSystemFailure("create the directory", path, code);
}

void PosixFileManager::makePrivate(const std::string& directory) {
    const Descriptor descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!descriptor.isOpen() || ::fchmod(descriptor.get(), private_directory_mode) != 0)
        throw FileSystemFailure("make private", directory, errno);
}

void PosixFileManager::requireAccess(const std::string& directory) {
    if (::faccessat(AT_FDCWD, directory.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) != 0)
        throw FileSystemFailure("use the directory", directory, errno);
}

DirectoryListing PosixFileManager::listDirectory(const std::string& directory) {
    const Descriptor descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!descriptor.isOpen()) throw FileSystemFailure("list", directory, errno);
    DirectoryListing listing;
    alignas(dirent64) std::array<char, listing_portion_bytes> portion;
    for (int portions = 0;; ++portions) {
        // Not readdir, which hides where one portion ends: the system locks the directory for one at a time.
        const auto length = ::getdents64(descriptor.get(), portion.data(), portion.size());
        if (length < 0) throw FileSystemFailure("list", directory, errno);
        if (length == 0) break;
        listing.isSnapshot = portions == 0;
        appendVisibleEntries({portion.data(), static_cast<std::size_t>(length)}, listing.visibleEntries);
    }
    return listing;
}

std::unique_ptr<DirectoryReader> PosixFileManager::readDirectory(const std::string& directory) {
    return std::make_unique<PosixDirectoryReader>(directory);
}

std::uintmax_t PosixFileManager::fileSystemBytes(const std::string& path) {
    struct statvfs status {};
    if (::statvfs(path.c_str(), &status) != 0) throw FileSystemFailure("look at", path, errno);
    return std::uintmax_t{status.f_blocks} * status.f_frsize;
}

bool PosixFileManager::fileExists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

bool PosixFileManager::isExecutableFile(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    return ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

std::optional<FileAttributes> PosixFileManager::attributes(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
        throw FileSystemFailure("look at", path, errno);
    }
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
        .allocatedBytes = static_cast<std::uintmax_t>(status.st_blocks) * allocation_unit_bytes};
}

std::string PosixFileManager::readLink(const std::string& path) {
    std::string target(PATH_MAX, '\0');
    const auto length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) throw FileSystemFailure("follow the link", path, errno);
    target.resize(static_cast<std::size_t>(length));
    return target;
}

std::string PosixFileManager::readFile(const std::string& path) {
    OpenFile file = openRegularFile(path);
    // One byte more than the size, so that the usual file is read in a single call that also meets its end.
    std::string content(file.size + 1, '\0');
    std::size_t length = 0;
    for (;;) {
        if (length > longest_file_bytes) throw FileSystemFailure("read", path, EFBIG);
        if (length == content.size()) content.resize(content.size() * 2);
        const auto got = ::read(file.descriptor.get(), content.data() + length, content.size() - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw FileSystemFailure("read", path, errno);
        length += static_cast<std::size_t>(got);
        if (got == 0 || length == file.size) break;
    }
    content.resize(length);
    return content;
}

void PosixFileManager::writeFileAtomically(const std::string& path, std::string_view bytes,
                                           Durability durability) {
    writePiecesAtomically(
        path, [&](const PieceTaker& take) { take(bytes); }, durability);
}

void PosixFileManager::writePiecesAtomically(const std::string& path, const PieceGiver& give,
                                             Durability durability) {
    TemporaryFile file(path);
    give([&](std::string_view piece) { file.write(piece); });
    if (durability == Durability::process) return file.becomeTarget();
    file.flushToDisk();
    // Opened first, because a failure after the file has become visible would come too late.
    const Descriptor directory = openDirectory(parentDirectory(path));
    file.becomeTarget();
    flushName(directory, path);
}

void PosixFileManager::moveItem(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return;
    if (errno == EINVAL || errno == ENOSYS) return moveAfterLooking(from, to);
    failToMove(from, to, errno);
}

Descriptor PosixFileManager::lockDirectory(const std::string& path) {
    Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.isOpen()) throw FileSystemFailure("lock", path, errno);
    while (::flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR) throw FileSystemFailure("lock", path, errno);
    }
    if (!isAtPath(directory, path)) throw FileSystemFailure("lock", path, ESTALE);
    return directory;
}

void PosixFileManager::removeItem(const std::string& path) {
    if (::unlink(path.c_str()) == 0) return;
    const int code = errno;
    if ((code == EISDIR || code == EPERM) && ::rmdir(path.c_str()) == 0) return;
    throw FileSystemFailure("remove", path, code);
}

}  // namespace brindle

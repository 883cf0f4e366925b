#include "system/FileManager.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdio>
#include <utility>

#include "system/Descriptor.h"
#include "system/FileSystemFailure.h"
#include "system/InotifyWatch.h"
#include "system/Paths.h"
#include "system/PosixDirectory.h"
#include "system/RegularFile.h"

namespace brindle {
namespace {

constexpr mode_t private_directory_mode = 0700;
constexpr std::string_view temporary_name_template = ".brindle-XXXXXX";
constexpr char placeholder = 'X';

std::string parentDirectory(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool isDirectory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
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

Descriptor openToFlush(const std::string& path) {
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

std::vector<std::string> FileManager::visibleEntries(const std::string& directory) {
    std::vector<std::string> names;
    for (auto& entry : openDirectory(directory)->list().visibleEntries)
        names.push_back(std::move(entry.name));
    return names;
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

std::unique_ptr<Directory> PosixFileManager::openDirectory(const std::string& path) {
    return std::make_unique<PosixDirectory>(path);
}

std::unique_ptr<DirectoryWatch> PosixFileManager::makeDirectoryWatch() {
    return std::make_unique<InotifyWatch>();
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
    return attributesFrom(status);
}

std::string PosixFileManager::readLink(const std::string& path) {
    std::string target(PATH_MAX, '\0');
    const auto length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) throw FileSystemFailure("follow the link", path, errno);
    target.resize(static_cast<std::size_t>(length));
    return target;
}

std::string PosixFileManager::readFile(const std::string& path) {
    const FilePlace place{.directory = AT_FDCWD, .directoryPath = "", .name = path};
    std::string content;
    readWhole(openAfterLooking(place), place, content);
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
    const Descriptor directory = openToFlush(parentDirectory(path));
    file.becomeTarget();
    flushName(directory, path);
}

void PosixFileManager::moveItem(const std::string& from, const std::string& to) {
    moveWithoutReplacing({.directory = AT_FDCWD, .directoryPath = "", .name = from}, to);
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

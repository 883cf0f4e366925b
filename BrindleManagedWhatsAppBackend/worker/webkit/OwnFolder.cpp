#include "worker/webkit/OwnFolder.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <limits.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <system_error>

#include "text/Failure.h"
#include "worker/webkit/GObjectPointer.h"
#include "worker/webkit/OneLine.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;

constexpr mode_t private_mode = 0700;
constexpr mode_t permission_bits = 07777;
constexpr uid_t root_user = 0;

/// The user's home directory. Not g_get_home_dir, which would keep the engine from taking another.
std::string homeDirectory() {
    const char* home = g_getenv("HOME");
    if (home != nullptr && *home != '\0') return home;
    const passwd* user = ::getpwuid(::getuid());  // NOLINT(concurrency-mt-unsafe): there is one thread yet.
    return user == nullptr ? "/" : user->pw_dir;
}

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

struct stat attributesOf(const Directory& directory) {
    struct stat status {};
    if (::fstat(::dirfd(directory.get()), &status) != 0) throw Failure(g_strerror(errno));
    return status;
}

Directory openDirectory(const char* path, int linkFlag) {
    const int descriptor = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | linkFlag);
    if (descriptor < 0 && linkFlag != 0 && g_file_test(path, G_FILE_TEST_IS_SYMLINK) != FALSE)
        throw Failure("it is a link");
    if (descriptor < 0) throw Failure(g_strerror(errno));
    Directory directory(::fdopendir(descriptor));
    if (directory) return directory;
    ::close(descriptor);
    throw Failure(g_strerror(ENOMEM));
}

/// Whether a folder or link, and what lies in the folder, can be replaced by nobody but this user and root.
/// In a folder with the sticky bit the owner of what lies there counts.
bool isOfNobodyElse(const struct stat& status) {
    struct stat top {};
    // In a user namespace root may go by another number; the owner of the root directory is that one.
    const bool isRoots =
        status.st_uid == root_user || (::stat("/", &top) == 0 && status.st_uid == top.st_uid);
    if (status.st_uid != ::geteuid() && !isRoots) return false;
    // What a link's permissions say means nothing.
    if (S_ISLNK(status.st_mode) || (status.st_mode & S_ISVTX) != 0) return true;
    const mode_t writers = S_IWOTH | (status.st_gid == ::getegid() ? 0U : S_IWGRP);
    return (status.st_mode & writers) == 0;
}

void requireStepsOfNobodyElse(const fs::path& path) {
    fs::path step;
    for (const auto& component : path) {
        step /= component;
        struct stat status {};
        if (::lstat(step.c_str(), &status) != 0) throw Failure(g_strerror(errno));
        if (!isOfNobodyElse(status))
            throw Failure("others may replace what lies in \"" + step.string() + "\"");
    }
}

/// Nobody else may be able to put another folder in its place, however far above.
void requireBaseOfNobodyElse(const std::string& path) {
    const fs::path base = fs::path(path).parent_path();
    requireStepsOfNobodyElse(base);
    std::error_code error;
    const fs::path withoutLinks = fs::canonical(base, error);
    if (error) throw Failure(error.message());
    requireStepsOfNobodyElse(withoutLinks);
}

/// Whoever could write there may have left something that the engine would follow.
void requireOwnEntries(const std::string& path) {
    std::error_code error;
    for (fs::recursive_directory_iterator entry(path, error); !error && entry != fs::end(entry);
         entry.increment(error)) {
        struct stat status {};
        const int found = ::lstat(entry->path().c_str(), &status);
        if (found == 0 && status.st_uid != ::geteuid())
            throw Failure("\"" + oneLine(entry->path().lexically_relative(path), PATH_MAX) +
                          "\" in it belongs to another user");
    }
    if (error) throw Failure(error.message());
}

void makePrivate(const std::string& path) {
    requireBaseOfNobodyElse(path);
    const Directory directory = openDirectory(path.c_str(), O_NOFOLLOW);
    const auto status = attributesOf(directory);
    if (status.st_uid != ::geteuid()) throw Failure("it belongs to another user");
    if ((status.st_mode & permission_bits) == private_mode) return;
    if (::fchmod(::dirfd(directory.get()), private_mode) != 0) throw Failure(g_strerror(errno));
    requireOwnEntries(path);
}

}  // namespace

std::string ownFolder(const char* variable, const char* fallback, const std::string& applicationName) {
    const char* given = g_getenv(variable);
    const bool isUsable = given != nullptr && g_path_is_absolute(given);
    const GText path(
        isUsable ? g_build_filename(given, applicationName.c_str(), nullptr)
                 : g_build_filename(homeDirectory().c_str(), fallback, applicationName.c_str(), nullptr));
    try {
        if (g_mkdir_with_parents(path.get(), private_mode) != 0) throw Failure(g_strerror(errno));
        makePrivate(path.get());
        // A login that cannot be stored would quietly be lost at the end.
        if (g_access(path.get(), R_OK | W_OK | X_OK) != 0) throw Failure(g_strerror(errno));
    } catch (const Failure& failure) {
        throw Failure("The built-in web worker cannot keep website data in \"" + std::string(path.get()) +
                      "\" (" + failure.what() + "); let " + variable +
                      " name a directory that this user can write to.");
    }
    return path.get();
}

}  // namespace brindle

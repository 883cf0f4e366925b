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

#include <memory>

#include "text/Failure.h"
#include "worker/webkit/GObjectPointer.h"
#include "worker/webkit/OneLine.h"

namespace brindle {
namespace {

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

/// Nobody else may be able to put another folder in its place.
void requireBaseOfNobodyElse(const std::string& path) {
    const GText base(g_path_get_dirname(path.c_str()));
    const auto status = attributesOf(openDirectory(base.get(), 0));
    struct stat top {};
    // In a user namespace root may go by another number; the owner of the root directory is that one.
    const bool isRoots =
        status.st_uid == root_user || (::stat("/", &top) == 0 && status.st_uid == top.st_uid);
    const bool isOthers = status.st_uid != ::geteuid() && !isRoots;
    const bool isOpen = (status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0;
    if (isOthers || isOpen)
        throw Failure("others may replace what lies in \"" + std::string(base.get()) + "\"");
}

/// Whoever could write there may have left something that the engine would follow.
void requireOwnEntries(const Directory& directory) {
    // The stream is this object's own, which is all that readdir needs to be safe.
    while (const dirent* entry = ::readdir(directory.get())) {  // NOLINT(concurrency-mt-unsafe)
        const char* const name = static_cast<const char*>(entry->d_name);
        if (g_str_equal(name, "..") != FALSE) continue;
        struct stat status {};
        const int found = ::fstatat(::dirfd(directory.get()), name, &status, AT_SYMLINK_NOFOLLOW);
        if (found == 0 && status.st_uid != ::geteuid())
            throw Failure("\"" + oneLine(name, NAME_MAX) + "\" in it belongs to another user");
    }
}

void makePrivate(const std::string& path) {
    requireBaseOfNobodyElse(path);
    const Directory directory = openDirectory(path.c_str(), O_NOFOLLOW);
    const auto status = attributesOf(directory);
    if (status.st_uid != ::geteuid()) throw Failure("it belongs to another user");
    if ((status.st_mode & permission_bits) == private_mode) return;
    if (::fchmod(::dirfd(directory.get()), private_mode) != 0) throw Failure(g_strerror(errno));
    requireOwnEntries(directory);
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

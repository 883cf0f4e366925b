#include "worker/webkit/EngineHome.h"

#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "text/Failure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;

constexpr const char* name_prefix = "engine-";

/// Best effort, links not followed: what stays is never looked at again.
void removeTree(const fs::path& path) {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

/// Takes the home for this process; closed when another one has it. A file system without locks has no home
/// that is not in use.
Descriptor locked(const fs::path& home) {
    Descriptor directory(::open(home.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (::flock(directory.get(), LOCK_EX | LOCK_NB) != 0) directory.reset();
    return directory;
}

void removeAbandonedHomes(const std::string& folder) {
    std::error_code ignored;
    for (auto entry = fs::directory_iterator(folder, ignored); entry != fs::end(entry);
         entry.increment(ignored)) {
        const auto& path = entry->path();
        if (!path.filename().string().starts_with(name_prefix)) continue;
        // Kept until all is gone: in between, a worker may take for its own what it has just made.
        const Descriptor lock = locked(path);
        if (lock.isOpen()) removeTree(path);
    }
}

}  // namespace

EngineHome::EngineHome(const std::string& folder) {
    removeAbandonedHomes(folder);
    // Before it is locked, another worker may take it for an abandoned one.
    for (bool isOurs = false; !isOurs;) {
        make(folder);
        lock_ = locked(path_);
        const bool isAnothers = !lock_.isOpen() && errno == EWOULDBLOCK;
        isOurs = !isAnothers && g_access(path_.c_str(), F_OK) == 0;
    }
}

void EngineHome::make(const std::string& folder) {
    path_ = folder + "/" + name_prefix + "XXXXXX";
    if (g_mkdtemp(path_.data()) != nullptr) return;
    throw Failure("The built-in web worker cannot make a directory in \"" + folder + "\" (" +
                  g_strerror(errno) + "); let this user write there.");
}

EngineHome::~EngineHome() {
    removeTree(path_);
}

}  // namespace brindle

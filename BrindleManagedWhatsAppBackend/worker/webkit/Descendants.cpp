#include "worker/webkit/Descendants.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>

#include "worker/webkit/Procfs.h"

namespace brindle {
namespace {

constexpr int looks_until_walk = 5;

struct DirectoryClose {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

/// The id that was given out last, to a process or a thread: the last word of the file. Empty when the system
/// does not tell.
std::string newestOfSystem() {
    const std::string load = procfsText("/proc/loadavg");
    const auto space = load.rfind(' ');
    return space == std::string::npos ? std::string() : load.substr(space);
}

/// A process is listed by the thread that has started it.
void addDescendants(pid_t process, std::set<pid_t>& found) {
    const std::unique_ptr<DIR, DirectoryClose> directory(::opendir((procfsFolder(process) + "task").c_str()));
    for (;;) {
        // The stream is this function's own, which is all that readdir needs to be safe.
        const dirent* task =
            directory ? ::readdir(directory.get()) : nullptr;  // NOLINT(concurrency-mt-unsafe)
        if (task == nullptr) return;
        if (task->d_name[0] == '.') continue;
        const std::string list =
            procfsText(std::string(task->d_name) + "/children", ::dirfd(directory.get()));
        const char* rest = list.c_str();
        for (char* end = nullptr; const auto child = std::strtol(rest, &end, 10); rest = end) {
            if (found.insert(static_cast<pid_t>(child)).second)
                addDescendants(static_cast<pid_t>(child), found);
        }
    }
}

}  // namespace

const std::set<pid_t>& Descendants::look() {
    // Asked first: what is started during the walk is looked for again.
    std::string newest = newestOfSystem();
    if (!newest.empty() && newest == newest_ && ++looks_ < looks_until_walk) return processes_;
    walk();
    newest_ = std::move(newest);
    looks_ = 0;
    return processes_;
}

const std::set<pid_t>& Descendants::walk() {
    processes_.clear();
    addDescendants(::getpid(), processes_);
    return processes_;
}

}  // namespace brindle

#include "worker/webkit/Descendants.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "worker/webkit/Procfs.h"

namespace brindle {
namespace {

constexpr int looks_until_walk = 5;

struct DirectoryClose {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

/// So many new ones are asked for their parents; to walk is cheaper for more.
constexpr pid_t most_questions = 16;

/// The id that was given out last, to a process or a thread: the last word of the file. 0 when the system
/// does not tell.
pid_t newestOfSystem() {
    const std::string load = procfsText("/proc/loadavg");
    const auto space = load.rfind(' ');
    return space == std::string::npos ? 0 : static_cast<pid_t>(std::strtol(&load[space], nullptr, 10));
}

/// The process that has started it: the second word behind the name, which stands in parentheses and may hold
/// anything. 0 when it is gone.
pid_t parentOf(pid_t process) {
    const std::string stat = procfsText(procfsFolder(process) + "stat");
    constexpr std::string_view before_parent = ") S ";
    const auto nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos || nameEnd + before_parent.size() > stat.size()) return 0;
    return static_cast<pid_t>(std::strtol(&stat[nameEnd + before_parent.size()], nullptr, 10));
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
    const pid_t newest = newestOfSystem();
    const bool isTold = newest != 0 && newest_ != 0 && ++looks_ < looks_until_walk;
    if (!isTold || mayHaveStarted(newest)) {
        walk();
        looks_ = 0;
    }
    newest_ = newest;
    return processes_;
}

bool Descendants::mayHaveStarted(pid_t newest) const {
    if (newest < newest_ || newest - newest_ > most_questions) return true;
    for (pid_t process = newest_ + 1; process <= newest; ++process) {
        const pid_t parent = parentOf(process);
        if (parent == ::getpid() || processes_.contains(parent)) return true;
    }
    return false;
}

const std::set<pid_t>& Descendants::walk() {
    processes_.clear();
    addDescendants(::getpid(), processes_);
    return processes_;
}

}  // namespace brindle

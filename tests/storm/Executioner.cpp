#include "storm/Executioner.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>

#include "support/Files.h"
#include "support/Processes.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::microseconds;

/// The children of a process, by what the system keeps for each of its threads: far quicker than a look at
/// all processes.
std::vector<pid_t> childrenByThreads(pid_t process) {
    std::vector<pid_t> children;
    std::error_code gone;
    const fs::path tasks = fs::path("/proc") / std::to_string(process) / "task";
    for (fs::directory_iterator task(tasks, gone); !gone && task != fs::directory_iterator();
         task.increment(gone)) {
        std::ifstream file(task->path() / "children");
        for (pid_t child = 0; file >> child;) children.push_back(child);
    }
    return children;
}

bool isProcessOfTheEngine(const std::string& program) {
    constexpr std::array programs{"WebKitWebProcess", "WebKitNetworkProcess", "bwrap", "xdg-dbus-proxy"};
    return std::find(programs.begin(), programs.end(), program) != programs.end();
}

}  // namespace

Executioner::Executioner(const LifePlan& plan, pid_t parent, pid_t backend, std::int64_t choice,
                         DirectoryWatch& watch)
    : plan_(plan), parent_(parent), backend_(backend), choice_(choice), watch_(watch) {
    if (plan.point.after == KillPoint::After::directoryEvents) {
        watch_.callAfter(plan.point.count, [this] {
            if (!tryToKill()) killNow();
        });
    }
    thread_ = std::thread([this] { waitAndKill(); });
}

Executioner::~Executioner() {
    watch_.callNothing();
    {
        const std::lock_guard lock(mutex_);
        isOver_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void Executioner::killNow() {
    {
        const std::lock_guard lock(mutex_);
        isDue_ = true;
    }
    changed_.notify_all();
}

void Executioner::waitAndKill() {
    constexpr std::chrono::hours never{1};
    constexpr microseconds look_interval{500};
    const bool isTimed = plan_.point.after == KillPoint::After::microseconds;
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, isTimed ? microseconds(plan_.point.count) : microseconds(never),
                      [&] { return isDue_ || isOver_; });
    while (!isOver_ && !tryToKill()) changed_.wait_for(lock, look_interval, [&] { return isOver_; });
}

bool Executioner::tryToKill() {
    const std::lock_guard lock(killing_);
    if (isDone_) return true;
    const pid_t process = victim();
    if (process <= 0) return false;
    program_ = programOf(process);
    if (::kill(process, SIGKILL) != 0) return false;
    isDone_ = true;
    return true;
}

std::string Executioner::program() const {
    const std::lock_guard lock(killing_);
    return isDone_ ? program_ : std::string();
}

pid_t Executioner::victim() const {
    if (plan_.victim == Victim::parent) return parent_;
    if (plan_.victim == Victim::backend) return backend_;
    const auto workers = childrenByThreads(backend_);
    if (workers.empty()) return -1;
    return plan_.victim == Victim::engine ? engineProcess(workers.front()) : workers.front();
}

pid_t Executioner::engineProcess(pid_t worker) const {
    auto processes = processTree(worker);
    std::erase_if(processes, [](pid_t process) { return !isProcessOfTheEngine(programOf(process)); });
    if (processes.empty()) return -1;
    return processes[static_cast<std::size_t>(choice_) % processes.size()];
}

}  // namespace brindle::test

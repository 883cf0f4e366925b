#include "system/ProcessGuard.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <system_error>
#include <vector>

#include "system/Descriptor.h"
#include "system/FileManager.h"
#include "system/Processes.h"
#include "text/Failure.h"
#include "text/WithoutFailing.h"

namespace brindle {
namespace {

constexpr const char* guard_name = "brindle-guard";
// Enough to flush a database, short enough to end within a second.
constexpr std::chrono::milliseconds grace{400};

// How often a guard asks that cannot be told.
constexpr std::chrono::milliseconds question_interval{100};

void pause(std::chrono::milliseconds duration) {
    const timespec pause{.tv_sec = 0, .tv_nsec = std::chrono::nanoseconds(duration).count()};
    ::nanosleep(&pause, nullptr);
}

void waitForEndOfParent(pid_t parent) {
    const Descriptor descriptor = processEndDescriptor(parent);
    pollfd end{.fd = descriptor.get(), .events = POLLIN, .revents = 0};
    while (::getppid() == parent) {
        // There may be no descriptor for a process's end, or none that may still be opened and waited for.
        if (!descriptor.isOpen() || (::poll(&end, 1, -1) < 0 && errno != EINTR)) pause(question_interval);
    }
}

/// What the second process does. Only calls that are safe after fork() in any program.
[[noreturn]] void guard(pid_t guarded, bool leadsSession) {
    ::prctl(PR_SET_NAME, guard_name);
    // Whoever reads our streams must not wait for this process as well.
    ::close_range(0, ~0U, 0);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGQUIT, SIGTSTP}) ::signal(signal, SIG_IGN);
    if (!leadsSession) ::setpgid(0, 0);
    waitForEndOfParent(guarded);
    pause(grace);
    ::kill(0, SIGKILL);
    ::_exit(0);
}

/// The processes that this one has started (Linux procfs), `except` one.
std::vector<pid_t> children(pid_t except) {
    std::vector<pid_t> found;
    PosixFileManager files;
    const auto threads = files.readDirectory("/proc/self/task");
    while (const auto thread = threads->next()) {
        // A thread may have ended meanwhile.
        withoutFailing([&] {
            const auto list = files.readFile("/proc/self/task/" + *thread + "/children");
            const char* rest = list.c_str();
            for (char* end = nullptr;; rest = end) {
                const auto child = static_cast<pid_t>(std::strtol(rest, &end, 10));
                if (end == rest) break;
                if (child != except) found.push_back(child);
            }
        });
    }
    return found;
}

/// Kills what is in this process's own group, but for itself (Linux procfs).
void killOthersOfOwnGroup() {
    const auto entries = PosixFileManager().readDirectory("/proc");
    while (const auto name = entries->next()) {
        const auto process = static_cast<pid_t>(std::atoi(name->c_str()));
        if (process <= 0 || process == ::getpid()) continue;
        if (::getpgid(process) == ::getpgrp()) ::kill(process, SIGKILL);
    }
}

void waitForEnd(const std::vector<pid_t>& processes) {
    const auto deadline = std::chrono::steady_clock::now() + grace;
    for (const pid_t process : processes) {
        const Descriptor descriptor = processEndDescriptor(process);
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!descriptor.isOpen() || left.count() <= 0) continue;
        pollfd end{.fd = descriptor.get(), .events = POLLIN, .revents = 0};
        ::poll(&end, 1, static_cast<int>(left.count()));
    }
}

}  // namespace

ProcessGuard::ProcessGuard() : leadsSession_(::getsid(0) == ::getpid()) {
    const pid_t guarded = ::getpid();
    guard_ = ::fork();
    if (guard_ < 0) {
        throw Failure("Cannot start a process: " + std::generic_category().message(errno) + ".");
    }
    if (guard_ == 0) guard(guarded, leadsSession_);
    if (leadsSession_) return;
    // Both sides ask for the group, so that neither has to wait for the other.
    ::setpgid(guard_, guard_);
    ::setpgid(0, guard_);
}

ProcessGuard::~ProcessGuard() {
    withoutFailing([this] { waitForEnd(children(guard_)); });
    if (leadsSession_) {
        bool isKilled = false;
        withoutFailing([&] {
            killOthersOfOwnGroup();
            isKilled = true;
        });
        // The guard is still there then, and kills what is left once this process has ended.
        if (!isKilled) return;
    } else {
        // Out of the group that is about to be killed.
        ::setpgid(0, 0);
        if (::getpgrp() != guard_) ::kill(-guard_, SIGKILL);
    }
    while (::waitpid(guard_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace brindle

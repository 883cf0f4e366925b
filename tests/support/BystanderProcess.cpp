#include "support/BystanderProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "support/Spawning.h"
#include "support/Waiting.h"
#include "support/WorkerScript.h"

namespace brindle::test {

BystanderProcess::BystanderProcess(std::string_view script) {
    pid_ = spawn(
        {.commandLine = {"/bin/sh", "-c", scriptPreamble(directory_.path()) + std::string(script) + "\n"},
         .environment = {{"PATH", "/usr/bin:/bin"}},
         .workingDirectory = {},
         .standardInput = STDIN_FILENO,
         .standardOutput = STDOUT_FILENO,
         .standardError = STDERR_FILENO,
         .newProcessGroup = true});
    reaper_ = std::thread([this] {
        int status = 0;
        // The end is noticed first and the process reaped under the lock, so that a signal never reaches a
        // stranger that was given the same id.
        siginfo_t info{};
        while (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
        }
        // What it has started and left behind; until it is reaped, the number of its group is nobody else's.
        kill(-pid_, SIGKILL);
        const std::lock_guard lock(mutex_);
        while (waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
        }
        status_ = exitStatusOf(status);
        ended_ = true;
    });
}

BystanderProcess::~BystanderProcess() {
    {
        const std::lock_guard lock(mutex_);
        if (!ended_) kill(-pid_, SIGKILL);
    }
    reaper_.join();
}

bool BystanderProcess::hasEnded() const {
    const std::lock_guard lock(mutex_);
    return ended_;
}

ExitStatus BystanderProcess::waitForEnd() {
    waitUntil([&] { return hasEnded(); }, "the end of process " + std::to_string(pid_));
    const std::lock_guard lock(mutex_);
    return status_;
}

void BystanderProcess::waitForMark(const std::string& name) const {
    waitUntil([&] { return hasMarked(name); }, "the mark " + name);
}

bool BystanderProcess::hasMarked(const std::string& name) const {
    return std::filesystem::exists(directory_.path() / name);
}

}  // namespace brindle::test

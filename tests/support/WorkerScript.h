#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/BackendProcess.h"

namespace brindle::test {

/// A shell script that stands in for a worker, in a directory of its own ($HERE in the script).
///
/// The script can use these functions: `mark NAME` creates $HERE/NAME, `await NAME` waits until $HERE/NAME
/// exists, `stay` becomes a process that does nothing until a signal ends it, `publish FILE TEXT` writes a
/// file of the data directory's "runtime" the way a worker does. Every start adds a line to $HERE/starts.
class WorkerScript {
  public:
    explicit WorkerScript(std::string_view body);

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path file(const std::string& name) const { return directory_.path() / name; }
    /// Creates the file that `await` in the script waits for.
    void allow(const std::string& name) const;
    /// Waits until the script has marked `name`.
    void waitForMark(const std::string& name) const;
    bool hasMarked(const std::string& name) const;
    /// Waits until the script runs and returns its process id.
    pid_t waitForPid() const;
    /// How often the script was started so far.
    std::size_t starts() const;

  private:
    TemporaryDirectory directory_;
    std::filesystem::path path_;
};

/// Options of a backend that starts `worker` as its explicit worker.
BackendOptions optionsWithWorker(const std::filesystem::path& worker);

/// Options of a backend with a worker in its data directory that leaves "worker-ready" there once it is up,
/// and "worker-was-asked" when it was asked to stop.
BackendOptions optionsWithPoliteWorker();
/// Where that worker lies.
std::filesystem::path politeWorker(const BackendOptions& options);

/// A program file that the system starts with exactly the given interpreter and argument: unlike a shell, it
/// adds nothing to its environment and its descriptors. It does nothing until a signal ends it.
std::filesystem::path writePlainWorker(const std::filesystem::path& file);

/// A process of the test, started through /bin/sh in a process group of its own, and reaped as soon as it
/// ends, as a process whose parent has gone is. Killed with the object; what is left of its group ends with
/// it.
class BystanderProcess {
  public:
    explicit BystanderProcess(std::string_view script);
    ~BystanderProcess();
    BystanderProcess(const BystanderProcess&) = delete;
    BystanderProcess& operator=(const BystanderProcess&) = delete;

    pid_t pid() const { return pid_; }
    bool hasEnded() const;
    /// Waits for the end; how it ended.
    ExitStatus waitForEnd();
    /// Waits until the script has marked `name`.
    void waitForMark(const std::string& name) const;
    bool hasMarked(const std::string& name) const;

  private:
    TemporaryDirectory directory_;
    pid_t pid_ = -1;
    mutable std::mutex mutex_;
    bool ended_ = false;
    ExitStatus status_;
    std::thread reaper_;
};

/// Takes a directory with all its content away at once, whoever writes there meanwhile.
void makeVanish(const std::filesystem::path& directory);

/// The parent of a process; 0 when the process is gone.
pid_t parentOf(pid_t pid);
/// Children of a process, ended ones that nobody has reaped included.
std::vector<pid_t> childrenOf(pid_t parent);
/// Waits until `parent` has exactly one child whose program is no longer the one of `parent`, and which
/// isSetUp().
pid_t waitForOnlyChild(pid_t parent);
/// Name of the program that a process runs, as the system reports it; empty when the process is gone.
std::string programOf(pid_t pid);
/// Open descriptors of a process and what they stand for; none when the process is gone.
std::map<int, std::string> descriptorsOf(pid_t pid);
/// The environment that a process was started with; empty when the process is gone.
Environment environmentOf(pid_t pid);
/// The argument list of a process, element 0 included; empty when the process is gone.
std::vector<std::string> argumentsOf(pid_t pid);
/// Whether the system has given a program that was just started its arguments and its environment, neither of
/// them empty.
bool isSetUp(pid_t pid);
/// A signal set of a process by its name in /proc, such as "SigBlk" or "SigIgn".
std::uint64_t signalSetOf(pid_t pid, std::string_view name);

}  // namespace brindle::test

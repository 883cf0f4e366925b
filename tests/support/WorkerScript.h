#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

#include "support/BackendProcess.h"
#include "support/TemporaryDirectory.h"

namespace brindle::test {

/// The functions that every script of a test can use, and $HERE, which is `directory`.
std::string scriptPreamble(const std::filesystem::path& directory);

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

}  // namespace brindle::test

#pragma once

#include <sys/types.h>

#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "support/ExitStatus.h"
#include "support/TemporaryDirectory.h"

namespace brindle::test {

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

}  // namespace brindle::test

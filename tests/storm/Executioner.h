#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "storm/DirectoryWatch.h"
#include "storm/Plan.h"

namespace brindle::test {

/// Kills the victim of a life when its time has come. What is counted in bytes the parent counts and does by
/// itself.
class Executioner {
  public:
    /// `choice` picks one of several processes of the engine.
    Executioner(const LifePlan& plan, pid_t parent, pid_t backend, std::int64_t choice,
                DirectoryWatch& watch);
    ~Executioner();
    Executioner(const Executioner&) = delete;
    Executioner& operator=(const Executioner&) = delete;

    /// Kills now, if that has not been done, as soon as the victim is there.
    void killNow();
    /// Whether the victim has been killed.
    bool isDone() const { return isDone_; }
    /// The program of the victim; empty while that lives.
    std::string program() const;

  private:
    void waitAndKill();
    bool tryToKill();
    pid_t victim() const;
    pid_t engineProcess(pid_t worker) const;

    const LifePlan& plan_;
    pid_t parent_;
    pid_t backend_;
    std::int64_t choice_;
    DirectoryWatch& watch_;
    std::mutex mutex_;
    mutable std::mutex killing_;
    std::condition_variable changed_;
    std::string program_;
    bool isDue_ = false;
    bool isOver_ = false;
    std::atomic<bool> isDone_ = false;
    std::thread thread_;
};

}  // namespace brindle::test

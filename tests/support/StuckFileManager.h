#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "support/ForwardingFileManager.h"

namespace brindle::test {

/// A disk that may leave writes below one directory unanswered for a while.
class StuckFileManager final : public ForwardingFileManager {
  public:
    explicit StuckFileManager(FileManager& next) : ForwardingFileManager(next) {}

    /// While it lives, the disk is stuck.
    class Stuck {
      public:
        Stuck(StuckFileManager& disk, std::string directory) : disk_(disk) {
            disk.stickTo(std::move(directory));
        }
        Stuck(const Stuck&) = delete;
        Stuck& operator=(const Stuck&) = delete;
        ~Stuck() { disk_.stickTo(""); }

      private:
        StuckFileManager& disk_;
    };

    /// Returns once somebody waits for the disk.
    void awaitVictim() {
        std::unique_lock hold(lock_);
        changed_.wait(hold, [this] { return waiting_ > 0; });
    }

    void writeFileAtomically(const std::string& path, std::string_view bytes,
                             Durability durability) override {
        {
            std::unique_lock hold(lock_);
            const auto isStuck = [&] { return !directory_.empty() && path.starts_with(directory_); };
            if (isStuck()) {
                ++waiting_;
                changed_.notify_all();
                changed_.wait(hold, [&] { return !isStuck(); });
                --waiting_;
            }
        }
        ForwardingFileManager::writeFileAtomically(path, bytes, durability);
    }

  private:
    void stickTo(std::string directory) {
        const std::lock_guard hold(lock_);
        directory_ = std::move(directory);
        changed_.notify_all();
    }

    std::mutex lock_;
    std::condition_variable changed_;
    std::string directory_;
    int waiting_ = 0;
};

}  // namespace brindle::test

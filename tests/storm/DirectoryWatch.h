#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "system/Descriptor.h"

namespace brindle::test {

/// Sees everything that happens to the files of a data directory while it happens, and reads each file when
/// it gets its final name.
class DirectoryWatch {
  public:
    /// Watches from now on; the directories of the tree exist.
    explicit DirectoryWatch(std::filesystem::path dataDirectory);
    ~DirectoryWatch();
    DirectoryWatch(const DirectoryWatch&) = delete;
    DirectoryWatch& operator=(const DirectoryWatch&) = delete;

    /// Calls `action` once, from the watching thread, after so many more events.
    void callAfter(std::int64_t events, std::function<void()> action);
    void callNothing();
    /// Returns when everything that has happened so far has been seen.
    void catchUp();
    /// What was wrong so far: a file that was not whole under its final name, was changed there, or came out
    /// of order.
    std::vector<std::string> problems() const;

  private:
    struct Event {
        std::string directory;  ///< Relative to the data directory.
        std::string name;
        std::uint32_t mask = 0;
    };

    void addWatch(const std::string& directory);
    void watch();
    void take(const Event& event);
    void count();
    void check(const Event& event);
    void checkContent(const Event& event);
    void checkOrder(const Event& event);
    void report(const Event& event, const std::string& what);

    std::filesystem::path root_;
    Descriptor notifications_;
    std::map<int, std::string> directories_;
    /// Names in "inbound" and "outbound" that were made by the system and wait there.
    std::map<std::string, std::set<std::string>> waiting_;

    mutable std::mutex mutex_;
    std::vector<std::string> problems_;
    std::int64_t eventsLeft_ = 0;
    std::function<void()> action_;
    int marks_ = 0;
    std::atomic<int> marksSeen_ = 0;
    std::atomic<bool> isStopping_ = false;
    std::thread thread_;
};

}  // namespace brindle::test

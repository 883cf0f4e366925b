#pragma once

#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/Json.h"
#include "support/Waiting.h"

namespace brindle::test {

/// Why a test is skipped that must see a status which is replaced or removed at once.
inline constexpr const char* exact_watch_needs_root =
    "Only root may watch so closely that no status is missed (fanotify).";

/// Collects every worker status that is written into a runtime directory, in order, so that a test can tell
/// what came after what without looking at a clock.
///
/// Where this user may, it is given each file as it is closed (fanotify) and misses nothing. That is while
/// the file still has its hidden name: a status is here a moment before it is in "worker-status.json", and
/// also when its renaming fails. Elsewhere it reads the file whenever it was replaced (inotify), and two
/// statuses written in one go may look like one.
class StatusJournal {
  public:
    using Predicate = std::function<bool(const Json&)>;

    /// Creates the directory when it is missing.
    explicit StatusJournal(std::filesystem::path runtimeDirectory);
    ~StatusJournal();
    StatusJournal(const StatusJournal&) = delete;
    StatusJournal& operator=(const StatusJournal&) = delete;

    /// Whether it misses nothing.
    bool isExact() const { return isExact_; }
    /// Every status so far.
    std::vector<Json> statuses() const;
    /// Every `detail` so far.
    std::vector<std::string> details() const;
    std::size_t size() const { return statuses().size(); }
    /// Every status as a line of text; those that say the same again are left out.
    std::string listed() const;

    /// Waits for a status at or behind position `from` that fulfils the predicate; its position.
    std::size_t waitFor(const Predicate& predicate, std::size_t from = 0,
                        std::chrono::milliseconds timeout = must_happen_deadline);

  private:
    void open();
    void collect();
    void takeClosedFiles();
    void takeReplacedFile();
    void take(const std::string& content);

    std::filesystem::path directory_;
    bool isExact_ = false;
    int events_ = -1;
    int stop_ = -1;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Json> statuses_;
    std::thread thread_;
};

}  // namespace brindle::test

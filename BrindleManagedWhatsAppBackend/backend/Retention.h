#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "backend/DiagnosticLog.h"
#include "exchange/DataDirectory.h"
#include "system/Clock.h"
#include "system/DirectoryWalk.h"
#include "system/Environment.h"
#include "system/FileManager.h"

namespace brindle {

/// How long records are kept that nobody waits for any more.
struct RetentionPeriods {
    std::chrono::days delivered{3};
    std::chrono::days refused{30};
};

/// What the environment says about that.
struct RetentionSetting {
    /// Nothing: everything is kept.
    std::optional<RetentionPeriods> periods;
    /// What is wrong with the setting, for people; empty when it was understood.
    std::string problem;
};
RetentionSetting retentionSetting(const Environment& environment);

/// Removes records that were delivered or refused long ago, so that the data directory does not grow for
/// ever; and delivered ones before their time, the oldest first, when they take more than their share of the
/// file system. Records that still wait are never touched, however old they are.
///
/// A directory may hold any number of files, so the work comes in small steps.
class Retention {
  public:
    /// All of it outlives the object.
    struct Uses {
        const Environment& environment;
        const DataDirectory& directory;
        FileManager& fileManager;
        const Clock& clock;
        const DiagnosticLog& log;
        /// Whether a delivered record, by its path, may be needed again: such a one stays.
        std::function<bool(const std::string& path)> isNeeded;
    };

    explicit Retention(const Uses& uses);

    /// Begins a sweep. When the wall clock has been set since the last one none begins: nobody knows then how
    /// old a file is. A setting that is not understood is logged the first time.
    void begin() noexcept;
    /// Does a small part of the sweep; false once it is over. What fails is logged once a sweep.
    bool step() noexcept;

  private:
    /// A record that goes before its time. The oldest comes first.
    struct Candidate {
        std::chrono::system_clock::time_point arrival;
        std::string path;
        std::uintmax_t bytes = 0;

        bool operator<(const Candidate& other) const {
            return arrival != other.arrival ? arrival < other.arrival : path < other.path;
        }
    };
    enum class Phase { none, expiry, choice, reduction };

    bool hasClockBeenSet();
    void end();
    void advance();
    void expire();
    void beginReduction();
    void choose();
    void reduce();
    std::optional<DirectoryWalk::Entry> nextRecord(FileAttributes& attributes);
    void remove(const std::string& path);
    void report(const std::exception& error) noexcept;

    Uses uses_;
    RetentionSetting setting_;
    /// The wall clock less the time since the system was started: changes only when the clock is set.
    std::chrono::nanoseconds clockOffset_;

    Phase phase_ = Phase::none;
    std::optional<DirectoryWalk> walk_;
    std::uintmax_t deliveredBytes_ = 0;
    /// By how much delivered records exceed their share.
    std::uintmax_t excessBytes_ = 0;
    std::set<Candidate> candidates_;
    std::uintmax_t candidateBytes_ = 0;
    bool hasReported_ = false;
};

}  // namespace brindle

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <tuple>
#include <vector>

#include "bridge/BridgeMessages.h"
#include "system/Clock.h"
#include "system/Directory.h"

namespace brindle {

/// What is known of the records that a delivery has left in "inbound" because they belong to another scope:
/// none of them is read again while it stays as it is, and where the directory has not changed either, none
/// is even looked at. Not synchronised.
class WaitingMemory {
    using WallTime = std::chrono::system_clock::time_point;

    /// Whatever is written to the file after it was read changes these.
    struct Known {
        ino_t inode = 0;
        dev_t device = 0;
        std::uintmax_t bytes = 0;
        WallTime statusChange;

        bool operator<(const Known& other) const {
            return std::tie(inode, device, bytes, statusChange) <
                   std::tie(other.inode, other.device, other.bytes, other.statusChange);
        }
    };
    /// Whatever comes into the directory, or goes, changes these.
    struct DirectoryState {
        dev_t device = 0;
        ino_t inode = 0;
        WallTime modification;
        WallTime statusChange;

        bool operator==(const DirectoryState&) const = default;
    };

  public:
    /// File systems give times in ticks. A change that is younger proves nothing, because the next one may
    /// have got the same time.
    static constexpr std::chrono::seconds settling_time{1};
    /// What is written into a file in its place leaves the directory as it is. Where nothing else tells of
    /// it, this is how long it may take until it is seen.
    static constexpr std::chrono::minutes full_pass_interval{1};

    /// One look at everything that waits.
    class Pass {
      public:
        /// Something keeps the pass from proving anything about the next one.
        void miss() { isComplete_ = false; }

      private:
        friend class WaitingMemory;
        Pass(DirectoryState directory, WallTime beginning, std::chrono::nanoseconds beginningSinceBoot)
            : directory_(directory), beginning_(beginning), beginningSinceBoot_(beginningSinceBoot) {}

        /// Both from before anything was looked at.
        DirectoryState directory_;
        WallTime beginning_;
        std::chrono::nanoseconds beginningSinceBoot_;
        bool isComplete_ = true;
        std::size_t leftInPlace_ = 0;
        std::vector<Known> left_;
    };

    /// `clock` outlives the memory.
    explicit WaitingMemory(const Clock& clock) : clock_(clock) {}

    /// Whether what is remembered is of this scope.
    bool isOf(const BridgeScope& scope) const { return scope_ == scope; }
    /// Begins a pass over the open directory, unless it would find nothing that the last one has not. What is
    /// remembered of another scope is forgotten.
    std::optional<Pass> beginPass(const BridgeScope& scope, Directory& inbound);
    /// Whether an earlier pass has left the record in place, and it is what it was then. It counts as left by
    /// this one, too.
    bool isKnown(Pass& pass, Directory& inbound, const DirectoryEntry& record) const;
    /// The record stays. `attributes` are those that its file had before it was read.
    static void leave(Pass& pass, const DirectoryEntry& record, const FileAttributes& attributes);
    /// What the pass has not come to is forgotten.
    void endPass(Pass pass) noexcept;

    /// How many records the last pass has left.
    std::size_t leftInPlace() const { return leftInPlace_; }
    /// The next pass looks at everything that waits, though it need not read what it knows.
    void lookAtEverything() { lastCompletePass_.reset(); }
    void forget();

  private:
    struct CompletePass {
        DirectoryState directory;
        std::chrono::nanoseconds beginningSinceBoot;
    };

    const Clock& clock_;
    /// What it all holds for.
    std::optional<BridgeScope> scope_;
    /// In ascending order.
    std::vector<Known> known_;
    /// With those that are not known, because they were too young.
    std::size_t leftInPlace_ = 0;
    std::optional<CompletePass> lastCompletePass_;
};

}  // namespace brindle

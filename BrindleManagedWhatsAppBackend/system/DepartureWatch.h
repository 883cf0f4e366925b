#pragma once

#include <poll.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <vector>

#include "system/Descriptor.h"
#include "text/Failure.h"

namespace brindle {

/// Nobody takes our output any more and the process is on its way out; what was being written is given up.
class OutputAbandoned : public Failure {
  public:
    OutputAbandoned() : Failure("The parent has stopped reading and closed its end.") {}
};

/// Tells writers that nobody will read their output any more. Shared by the streams of a process.
class DepartureWatch {
  public:
    /// How long unread output is kept waiting once a sign of departure was seen.
    static constexpr std::chrono::milliseconds unread_output_grace{1000};

    /// Throws Failure when the process has no descriptor left for it.
    DepartureWatch();
    /// `descriptor` hanging up, or becoming readable when `readableMeansGone`, is a sign of departure. Called
    /// before any writer waits.
    void addSign(int descriptor, bool readableMeansGone);
    /// The end of that process, and this process's having another parent, is a sign of departure. Called
    /// before any writer waits, once.
    void addParent(pid_t parent);
    /// From now on every write that would have to wait fails. Callable from any thread.
    void abandonOutput();
    /// Whether the output was abandoned. Callable from any thread.
    bool isOutputAbandoned() const { return abandoned_; }

    /// Whether a sign of departure is there now. Callable from any thread.
    bool isDeparting() const;
    /// True when a sign of departure was first seen, by this question, at least the grace ago. For long work
    /// that asks as often as it likes whether anybody still wants it: signs are looked for a hundred times a
    /// second at most. Not synchronised: one asker at a time.
    bool isDepartureOver();

    /// Waits until `output` takes more; false, with the reason in errno, when nothing can be waited for.
    /// Throws OutputAbandoned when the reader has departed and takes nothing for the length of the grace.
    bool waitUntilWritable(int output);
    /// Waits until `output` takes more, no longer than the grace and not at all once output was abandoned;
    /// whether it does.
    bool isWritableInTime(int output) const;

  private:
    std::vector<pollfd> pollSet(int output, bool withSigns) const;
    using PollIterator = std::vector<pollfd>::const_iterator;
    static bool anyDeparted(PollIterator begin, PollIterator end);

    std::vector<pollfd> signs_;
    std::optional<pid_t> parent_;
    Descriptor parentEnd_;
    std::chrono::steady_clock::time_point nextLook_;
    std::optional<std::chrono::steady_clock::time_point> departureSeen_;
    Descriptor wake_;
    std::atomic<bool> abandoned_ = false;
};

}  // namespace brindle

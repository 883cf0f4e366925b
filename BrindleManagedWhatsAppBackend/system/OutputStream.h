#pragma once

#include <poll.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
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
    /// From now on every write that would have to wait fails. Callable from any thread.
    void abandonOutput();

    /// True when a sign of departure was first seen, by this question, at least the grace ago. For long work
    /// that asks now and then whether anybody still wants it. Not synchronised: one asker at a time.
    bool isDepartureOver();

    /// Waits until `output` takes more; false, with the reason in errno, when nothing can be waited for.
    /// Throws OutputAbandoned when the reader has departed and takes nothing for the length of the grace.
    bool waitUntilWritable(int output);

  private:
    std::vector<pollfd> pollSet(int output, bool withSigns) const;
    using PollIterator = std::vector<pollfd>::const_iterator;
    static bool anyDeparted(PollIterator begin, PollIterator end);

    std::vector<pollfd> signs_;
    std::optional<std::chrono::steady_clock::time_point> departureSeen_;
    Descriptor wake_;
    std::atomic<bool> abandoned_ = false;
};

/// Writes whole texts to a standard stream, blocking until every byte is taken, however the descriptor is set
/// up, but never longer than its reader exists. Not synchronised: one writer at a time.
class OutputStream {
  public:
    /// `name` is what messages call the stream.
    OutputStream(int descriptor, std::string name, DepartureWatch& watch);
    /// Throws FileSystemFailure, or OutputAbandoned. After a failure in the middle of a text every further
    /// write fails likewise: what came next would be glued to half a text.
    void write(std::string_view bytes);

  private:
    ssize_t writeSome(std::string_view bytes);
    bool wait();

    enum class Manner {
        /// A descriptor of our own that answers EAGAIN: the description that the parent may share stays as it
        /// is.
        nonblocking,
        /// Sockets can be asked call by call.
        socket,
        /// Wait first, then write no more than is guaranteed not to block.
        pieces,
    };

    int descriptor_;
    std::string name_;
    DepartureWatch& watch_;
    Descriptor reopened_;
    Manner manner_ = Manner::pieces;
    /// A text was given up, perhaps in its middle; nothing may follow it.
    bool isCutOff_ = false;
    /// The errno value by which a write has failed in the middle of a text; 0 for none.
    int breakCode_ = 0;
};

}  // namespace brindle

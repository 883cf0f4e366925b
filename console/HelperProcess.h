#pragma once

#include <poll.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "console/LineBuffer.h"
#include "system/ChildProcess.h"

namespace brindle::console {

/// The helper and its three pipes, without ever blocking. It runs in a process group of its own, so that the
/// terminal's Ctrl-C reaches the console alone; it never outlives this object.
class HelperProcess {
  public:
    using LineHandler = std::function<void(std::string_view line)>;

    static constexpr std::size_t congestion_bytes = std::size_t{1} << 20U;

    /// Diagnostics are for people: a longer line comes in pieces, so that none costs us our memory.
    static constexpr std::size_t longest_diagnostic_bytes = std::size_t{64} << 10U;

    /// Starts the helper, or whatever `role` says that the program is. A line of its output may have any
    /// length, unless somebody says how long. Throws Failure.
    HelperProcess(const ChildProcess::Options& options, LineHandler onOutput, LineHandler onError,
                  std::string_view role = "helper",
                  std::size_t longestOutputLineBytes = LineBuffer::any_length);

    /// Queues a line for the helper's standard input; the line feed is added.
    void send(std::string_view line);
    /// True while the helper has a lot of lines to catch up on; better not to queue more.
    bool isCongested() const { return pending_.size() - written_ > congestion_bytes; }
    /// Closes the helper's standard input as soon as everything queued is written.
    void closeInputWhenWritten();
    pid_t processIdentifier() const { return process_.processIdentifier(); }
    void signal(int number) const { process_.signal(number); }
    /// Kills the helper and everything in its process group: a killed helper cannot end its worker itself.
    void kill() const { process_.kill(); }

    /// What to wait for before pump() has something to do.
    void addPollEntries(std::vector<pollfd>& entries) const;
    /// Moves what can be moved without waiting and hands out complete lines.
    /// True when something was exchanged.
    bool pump();
    /// Whether the process has ended (it may still have output to pump).
    bool hasEnded() const { return process_.hasEnded(); }
    /// Takes the last output and the status. Precondition: hasEnded().
    ProcessEnd finish();

  private:
    /// A stream of lines from the helper.
    struct Source {
        Descriptor& descriptor;
        LineHandler handler;
        LineBuffer lines;
    };

    bool writePending();
    static bool readSome(Source& source);
    static void readLeft(Source& source);

    ChildProcess process_;
    Descriptor& input_;
    Source output_;
    Source error_;
    std::string pending_;
    std::size_t written_ = 0;
    bool closesInput_ = false;
};

}  // namespace brindle::console

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "system/Descriptor.h"
#include "system/Environment.h"

namespace brindle {

/// A process started by this one. It gets default signal dispositions, an empty signal mask and no
/// descriptors but 0 to 2; its standard output and standard error are pipes of its own.
class ChildProcess {
  public:
    static constexpr int unknown_status = -1;

    enum class StandardInput { inherited, pipe };
    enum class ProcessGroup { inherited, own };

    struct Options {
        std::string executable;
        /// Without the program path, which is put in front.
        std::vector<std::string> arguments = {};
        /// Complete: nothing is inherited.
        Environment environment = {};
        StandardInput standardInput = StandardInput::inherited;
        ProcessGroup processGroup = ProcessGroup::inherited;
    };

    /// Starts the process. Throws Failure with the system's reason.
    explicit ChildProcess(const Options& options);

    pid_t processIdentifier() const { return process_; }
    /// Readable once the process has ended (Linux pidfd).
    int endDescriptor() const { return end_.get(); }
    /// Write end of the child's standard input; open with StandardInput::pipe only.
    Descriptor& standardInput() { return input_; }
    /// Read ends, not blocking.
    Descriptor& standardOutput() { return output_; }
    Descriptor& standardError() { return error_; }

    /// Sends a signal, never to another process that has got the same id. A process that has ended is no
    /// error.
    void signal(int number) const;
    /// Waits for the end and removes the zombie. The status is the exit status, or the number of the signal
    /// that ended the process; unknown_status when the system has forgotten it.
    int waitForEnd() const;

  private:
    pid_t process_ = -1;
    Descriptor end_;
    Descriptor input_;
    Descriptor output_;
    Descriptor error_;
};

}  // namespace brindle

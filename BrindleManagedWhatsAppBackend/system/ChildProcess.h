#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "system/Descriptor.h"
#include "system/Environment.h"
#include "system/ProcessEnd.h"

namespace brindle {

/// A process started by this one. It gets default signal dispositions, an empty signal mask and no
/// descriptors but 0 to 2; its standard output and standard error are pipes of its own.
///
/// Until this object goes, the process's number is nobody else's, even when it has ended.
class ChildProcess {
  public:
    enum class StandardInput { inherited, pipe };
    enum class ProcessGroup { inherited, own };
    /// What becomes of a process that still runs when its owner goes.
    enum class LeftRunning { isKilled, staysAlive };

    struct Options {
        std::string executable;
        /// Without the program path, which is put in front.
        std::vector<std::string> arguments = {};
        /// Complete: nothing is inherited.
        Environment environment = {};
        StandardInput standardInput = StandardInput::inherited;
        ProcessGroup processGroup = ProcessGroup::inherited;
        LeftRunning leftRunning = LeftRunning::isKilled;
    };

    /// Starts the process. Throws Failure with the system's reason.
    explicit ChildProcess(const Options& options);
    /// Removes the zombie. What still runs is killed before, or left to end by itself, as the options say;
    /// there is no waiting for the latter.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

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
    /// Kills the process and, when it has a process group of its own, everything in it: a killed process
    /// cannot end what it has started.
    void kill() const;
    bool hasEnded() const;
    /// Waits for the end. May be asked again.
    ProcessEnd waitForEnd() const;

  private:
    bool leadsGroup_;
    LeftRunning leftRunning_;
    pid_t process_ = -1;
    Descriptor end_;
    Descriptor input_;
    Descriptor output_;
    Descriptor error_;
};

}  // namespace brindle

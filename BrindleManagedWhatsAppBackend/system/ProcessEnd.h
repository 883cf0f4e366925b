#pragma once

#include <string>

namespace brindle {

/// How a process ended.
struct ProcessEnd {
    enum class Cause {
        exit,
        signal,
        /// The system has forgotten it: somebody else took the status, or nobody wanted to know.
        unknown,
    };

    Cause cause = Cause::unknown;
    /// The exit status or the number of the signal; -1 when the cause is unknown.
    int number = -1;

    static ProcessEnd exit(int status) { return {.cause = Cause::exit, .number = status}; }
    static ProcessEnd signal(int number) { return {.cause = Cause::signal, .number = number}; }

    bool operator==(const ProcessEnd&) const = default;
    /// "ended with exit status 1" or "was ended by signal 9 (Killed)".
    std::string description() const;
};

}  // namespace brindle

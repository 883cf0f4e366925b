#pragma once

#include <iosfwd>

namespace brindle::test {

/// How a process ended.
struct ExitStatus {
    bool exited = false;  ///< It returned or called exit; `code` holds.
    int code = -1;
    int signal = 0;  ///< The signal that killed it, when `exited` is false.

    bool operator==(const ExitStatus&) const = default;
};
/// The status of a process that exited with `code`.
ExitStatus exitedWith(int code);
/// The status of a process that `signal` killed.
ExitStatus killedBy(int signal);
/// What waitpid() gives as the status of a process that has ended.
ExitStatus exitStatusOf(int waitStatus);
std::ostream& operator<<(std::ostream& stream, const ExitStatus& status);

}  // namespace brindle::test

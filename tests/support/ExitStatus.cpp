#include "support/ExitStatus.h"

#include <sys/wait.h>

#include <ostream>

namespace brindle::test {

ExitStatus exitedWith(int code) {
    return {.exited = true, .code = code, .signal = 0};
}

ExitStatus killedBy(int signal) {
    return {.exited = false, .code = -1, .signal = signal};
}

ExitStatus exitStatusOf(int waitStatus) {
    return WIFEXITED(waitStatus) ? exitedWith(WEXITSTATUS(waitStatus)) : killedBy(WTERMSIG(waitStatus));
}

std::ostream& operator<<(std::ostream& stream, const ExitStatus& status) {
    if (status.exited) return stream << "exit status " << status.code;
    return stream << "death by signal " << status.signal;
}

}  // namespace brindle::test

#include "support/ChildProcesses.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "support/Waiting.h"

namespace brindle::test {

int statusOfChild(const std::function<int()>& body) {
    // The child must not write what this process has buffered.
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(must_happen_deadline.count());
        ::_exit(body());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

bool limitDescriptors(unsigned count) {
    const rlimit limit{.rlim_cur = count, .rlim_max = count};
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

}  // namespace brindle::test

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace {

constexpr mode_t others_may_read = 022;

/// Does what is left to the first process of a namespace, and answers how the tests ended.
int keepHouseFor(pid_t tests) {
    for (;;) {
        int status = 0;
        const pid_t ended = ::wait(&status);
        if (ended < 0 && errno != EINTR) return EXIT_FAILURE;
        if (ended == tests) return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
    }
}

}  // namespace

int main(int argc, char** argv) {
    // A helper takes process 1 for what is left when its parent has gone, so the tests must not be it.
    if (::getpid() == 1) {
        const pid_t tests = ::fork();
        if (tests < 0) return EXIT_FAILURE;
        if (tests > 0) return keepHouseFor(tests);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    }
    // What a test makes is nobody else's to write to, whatever the caller of the tests lets others do.
    ::umask(others_may_read);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}

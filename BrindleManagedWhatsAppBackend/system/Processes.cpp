#include "system/Processes.h"

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>

#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdlib>
#include <system_error>

#include "system/Pidfd.h"
#include "text/Failure.h"

namespace brindle {
namespace {

constexpr int large_memory_bytes = 1 << 20;

sigset_t terminationSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    return set;
}

sigset_t everyEndSet() {
    sigset_t set;
    sigfillset(&set);
    // What a process brings upon itself cannot wait.
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) sigdelset(&set, fault);
    // These end nothing: ends of others, and the keys and news of a terminal.
    for (const int news : {SIGCHLD, SIGCONT, SIGTSTP, SIGTTIN, SIGTTOU, SIGWINCH, SIGURG, SIGPIPE, SIGXFSZ})
        sigdelset(&set, news);
    return set;
}

}  // namespace

bool processExists(pid_t process) {
    errno = 0;
    return ::kill(process, 0) == 0 || errno == EPERM;
}

bool isParentAlive(pid_t recordedParent) {
    return recordedParent > 1 && ::getppid() == recordedParent && processExists(recordedParent);
}

Descriptor processEndDescriptor(pid_t process) {
    return Descriptor(::pidfd_open(process, 0));
}

bool signalProcess(const Descriptor& process, int signal) {
    return ::pidfd_send_signal(process.get(), signal, nullptr, 0) == 0;
}

void reserveStandardDescriptors() {
    for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
        if (::fcntl(number, F_GETFD) != -1 || errno != EBADF) continue;
        // open() takes the lowest free number, which is this one.
        if (::open("/dev/null", number == STDIN_FILENO ? O_WRONLY : O_RDONLY) < 0) return;
    }
}

void ignoreSignalsOfFailedWrites() {
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
}

void letTerminationSignalsThrough() {
    const sigset_t set = terminationSet();
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void giveLargeMemoryBackAtOnce() {
    // Called at the start, before there is a second thread.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    ::mallopt(M_MMAP_THRESHOLD, large_memory_bytes);
}

void shareOnePlaceOfMemory() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): as above.
    ::mallopt(M_ARENA_MAX, 1);
}

void returnFreedMemory() {
    ::malloc_trim(0);
}

TerminationSignals::TerminationSignals(TerminationSignalSet which) {
    const sigset_t set = which == TerminationSignalSet::requests ? terminationSet() : everyEndSet();
    descriptor_ = Descriptor(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    // Held back without anybody to take them, they could no longer end the process.
    if (!descriptor_.isOpen()) {
        throw Failure("Cannot take signals in order: " + std::generic_category().message(errno) + ".");
    }
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int TerminationSignals::take() {
    signalfd_siginfo information{};
    const auto got = ::read(descriptor_.get(), &information, sizeof(information));
    return got == sizeof(information) ? static_cast<int>(information.ssi_signo) : 0;
}

void endBySignal(int signal) {
    ::signal(signal, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    ::raise(signal);
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    std::abort();
}

}  // namespace brindle

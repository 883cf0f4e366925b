#include "system/Processes.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>

#include "support/ChildProcesses.h"
#include "text/Failure.h"

namespace brindle {
namespace {

using test::statusOfChild;

/// A child that has ended; a zombie until it is reaped.
class EndedChild {
  public:
    EndedChild() : process_(::fork()) {
        if (process_ == 0) ::_exit(0);
        siginfo_t information{};
        ::waitid(P_PID, static_cast<id_t>(process_), &information, WEXITED | WNOWAIT);
    }
    EndedChild(const EndedChild&) = delete;
    EndedChild& operator=(const EndedChild&) = delete;
    ~EndedChild() { reap(); }

    pid_t identifier() const { return process_; }
    void reap() {
        if (!reaped_) ::waitpid(process_, nullptr, 0);
        reaped_ = true;
    }

  private:
    pid_t process_;
    bool reaped_ = false;
};

TEST(ProcessesTests, ProcessExistsUntilItIsReaped) {
    EXPECT_TRUE(processExists(::getpid()));
    EndedChild child;
    EXPECT_TRUE(processExists(child.identifier()));
    child.reap();
    EXPECT_FALSE(processExists(child.identifier()));
}

TEST(ProcessesTests, ProcessOfAnotherUserExists) {
    // A child without rights, for which every process but itself belongs to somebody else.
    EXPECT_EQ(statusOfChild([parent = ::getpid()] {
                  if (::geteuid() == 0 && ::setuid(65534) != 0) return 2;
                  return processExists(parent) && processExists(1) ? 0 : 1;
              }),
              0);
}

TEST(ProcessesTests, LivingParentIsAlive) {
    EXPECT_EQ(statusOfChild([parent = ::getpid()] { return isParentAlive(parent) ? 0 : 1; }), 0);
}

TEST(ProcessesTests, OnlyTheParentItselfCounts) {
    EXPECT_EQ(statusOfChild([] {
                  const bool any = isParentAlive(::getpid()) || isParentAlive(1) || isParentAlive(0) ||
                                   isParentAlive(-1) || isParentAlive(-::getppid());
                  return any ? 1 : 0;
              }),
              0);
}

TEST(ProcessesTests, ParentThatHasEndedIsNotAlive) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    EXPECT_EQ(statusOfChild([&] {
                  const pid_t middle = ::getpid();
                  if (::fork() != 0) return 0;
                  while (::getppid() == middle) ::usleep(1000);
                  const char answer = isParentAlive(middle) ? 'y' : 'n';
                  return ::write(ends[1], &answer, 1) == 1 ? 0 : 1;
              }),
              0);
    char answer = 0;
    EXPECT_EQ(::read(ends[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'n');
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(ProcessesTests, EndDescriptorIsReadableOnceTheProcessHasEnded) {
    const auto own = processEndDescriptor(::getpid());
    pollfd running{.fd = own.get(), .events = POLLIN, .revents = 0};
    EXPECT_TRUE(own.isOpen());
    EXPECT_EQ(::poll(&running, 1, 0), 0);
    const EndedChild child;
    const auto end = processEndDescriptor(child.identifier());
    pollfd ended{.fd = end.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&ended, 1, -1), 1);
}

TEST(ProcessesTests, ProcessThatDoesNotExistHasNoEndDescriptor) {
    EndedChild child;
    child.reap();
    EXPECT_FALSE(processEndDescriptor(child.identifier()).isOpen());
    EXPECT_FALSE(processEndDescriptor(0).isOpen());
    EXPECT_FALSE(processEndDescriptor(-1).isOpen());
}

TEST(ProcessesTests, ClosedStandardDescriptorsAreReservedInTheWrongDirection) {
    EXPECT_EQ(statusOfChild([] {
                  for (int number = 0; number <= 2; ++number) ::close(number);
                  reserveStandardDescriptors();
                  char byte = 0;
                  const bool unusable = ::read(0, &byte, 1) < 0 && errno == EBADF && ::write(1, "x", 1) < 0 &&
                                        errno == EBADF && ::write(2, "x", 1) < 0 && errno == EBADF;
                  return unusable && ::open("/dev/null", O_RDONLY) > 2 ? 0 : 1;
              }),
              0);
}

TEST(ProcessesTests, EachSetOfClosedStandardDescriptorsIsReserved) {
    for (int closed = 0; closed < 8; ++closed) {
        EXPECT_EQ(statusOfChild([closed] {
                      for (int number = 0; number <= 2; ++number) {
                          ::dup2(::open("/dev/zero", O_RDWR), number);
                      }
                      for (int number = 0; number <= 2; ++number) {
                          if ((closed >> number & 1) != 0) ::close(number);
                      }
                      reserveStandardDescriptors();
                      for (int number = 0; number <= 2; ++number) {
                          const int mode = ::fcntl(number, F_GETFL) & O_ACCMODE;
                          const int reserved = number == 0 ? O_WRONLY : O_RDONLY;
                          if (mode != ((closed >> number & 1) != 0 ? reserved : O_RDWR)) return 1;
                      }
                      return 0;
                  }),
                  0)
            << closed;
    }
}

TEST(ProcessesTests, FailedWritesAreErrorsAndNotSignals) {
    EXPECT_EQ(statusOfChild([] {
                  ignoreSignalsOfFailedWrites();
                  std::array<int, 2> ends{};
                  if (::pipe(ends.data()) != 0) return 1;
                  ::close(ends[0]);
                  if (::write(ends[1], "x", 1) != -1 || errno != EPIPE) return 2;
                  const rlimit none{.rlim_cur = 0, .rlim_max = 0};
                  ::setrlimit(RLIMIT_FSIZE, &none);
                  const int file = ::memfd_create("file", MFD_CLOEXEC);
                  return ::write(file, "x", 1) == -1 && errno == EFBIG ? 0 : 3;
              }),
              0);
}

TEST(TerminationSignalTests, AreHeldBackAndTaken) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        EXPECT_EQ(statusOfChild([number] {
                      TerminationSignals signals;
                      if (signals.take() != 0) return 1;
                      ::kill(::getpid(), number);
                      pollfd ready{.fd = signals.descriptor(), .events = POLLIN, .revents = 0};
                      if (::poll(&ready, 1, -1) != 1) return 2;
                      return signals.take() == number && signals.take() == 0 ? 0 : 3;
                  }),
                  0);
    }
}

TEST(TerminationSignalTests, OtherSignalsKeepTheirEffect) {
    EXPECT_EQ(statusOfChild([] {
                  const TerminationSignals signals;
                  ::raise(SIGUSR1);
                  return 0;
              }),
              -SIGUSR1);
}

TEST(TerminationSignalTests, ProcessEndsByTheSignalThatWasTaken) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        EXPECT_EQ(statusOfChild([number]() -> int {
                      TerminationSignals signals;
                      ::raise(number);
                      endBySignal(signals.take());
                  }),
                  -number);
    }
}

TEST(TerminationSignalTests, ProcessEndsByASignalThatItsParentHadIgnored) {
    EXPECT_EQ(statusOfChild([]() -> int {
                  ::signal(SIGTERM, SIG_IGN);
                  endBySignal(SIGTERM);
              }),
              -SIGTERM);
}

TEST(TerminationSignalTests, KeepTheirEffectWhenNoDescriptorIsLeftToTakeThemFrom) {
    EXPECT_EQ(statusOfChild([] {
                  if (!test::limitDescriptors(0)) return 1;
                  try {
                      const TerminationSignals signals;
                      return 2;
                  } catch (const Failure& failure) {
                      if (failure.what() != std::string("Cannot take signals in order: Too many open files."))
                          return 3;
                  }
                  ::raise(SIGTERM);
                  return 4;
              }),
              -SIGTERM);
}

TEST(ProcessesTests, InheritedBlockOfTerminationSignalsIsUndone) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        const int status = statusOfChild([signal] {
            sigset_t set;
            sigfillset(&set);
            ::sigprocmask(SIG_BLOCK, &set, nullptr);
            letTerminationSignalsThrough();
            ::raise(signal);
            return 0;
        });
        EXPECT_EQ(status, -signal);
    }
}

}  // namespace
}  // namespace brindle

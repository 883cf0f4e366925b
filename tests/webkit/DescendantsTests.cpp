#include "worker/webkit/Descendants.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "support/Pipes.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

/// Waits to be killed, at the latest with its parent. Only calls that are safe after fork() in any program.
[[noreturn]] void waitForEnd() {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) ::pause();
}

/// A child process that has started another.
class Family {
  public:
    Family();
    ~Family();
    Family(const Family&) = delete;
    Family& operator=(const Family&) = delete;

    pid_t child() const { return child_; }
    pid_t grandchild() const { return grandchild_; }

  private:
    pid_t child_ = -1;
    pid_t grandchild_ = -1;
};

Family::Family() {
    const PipeEnds pipe = makePipe();
    child_ = ::fork();
    if (child_ < 0) throw TestFailure("cannot start a process");
    if (child_ == 0) {
        const pid_t grandchild = ::fork();
        if (grandchild == 0) waitForEnd();
        const bool isTold = ::write(pipe.writing.get(), &grandchild, sizeof grandchild) == sizeof grandchild;
        if (isTold) waitForEnd();
        ::_exit(EXIT_FAILURE);
    }
    if (::read(pipe.reading.get(), &grandchild_, sizeof grandchild_) != sizeof grandchild_ || grandchild_ < 0)
        throw TestFailure("the child has started nothing");
}

Family::~Family() {
    for (const pid_t process : {grandchild_, child_}) ::kill(process, SIGKILL);
    ::waitpid(child_, nullptr, 0);
}

TEST(Descendants, AreThoseThatWereStartedSinceTheLastLookToo) {
    Descendants descendants;
    descendants.look();
    const Family family;
    const auto& processes = descendants.look();
    EXPECT_TRUE(processes.contains(family.child()));
    EXPECT_TRUE(processes.contains(family.grandchild()));
}

TEST(Descendants, AreStillThereWhenNothingWasStarted) {
    const Family family;
    Descendants descendants;
    for (int look = 0; look < 20; ++look) EXPECT_TRUE(descendants.look().contains(family.grandchild()));
}

TEST(Descendants, ThatHaveEndedAreGoneAfterAWalk) {
    Descendants descendants;
    pid_t ended = -1;
    {
        const Family family;
        ended = family.child();
        EXPECT_TRUE(descendants.look().contains(ended));
    }
    EXPECT_FALSE(descendants.walk().contains(ended));
}

TEST(Descendants, AreNeitherThisProcessNorItsParent) {
    const Family family;
    const auto processes = Descendants().look();
    EXPECT_TRUE(processes.contains(family.child()));
    EXPECT_FALSE(processes.contains(::getpid()));
    EXPECT_FALSE(processes.contains(::getppid()));
}

}  // namespace
}  // namespace brindle::test

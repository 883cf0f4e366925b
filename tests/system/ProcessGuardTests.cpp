#include "system/ProcessGuard.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <optional>

#include "support/LoweredLimit.h"
#include "support/Processes.h"
#include "support/Waiting.h"
#include "support/WantOfMemory.h"

namespace brindle {
namespace {

/// At least so long what was started may go on, to save what it holds.
constexpr std::chrono::milliseconds a_moment{300};
/// The exit status of a guarded process that did not wait so long.
constexpr int was_in_a_hurry = 2;

/// A guarded process that starts another one, which ignores every signal that can be ignored.
class GuardedProcess {
  public:
    enum class End { itself, withoutMemory, onSignal, onSignalWithoutDescriptors };

    GuardedProcess(bool leadsSession, End end) {
        // Whoever loses its parent comes to this process, which tells its end from the outside.
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        if (::pipe(ends_.data()) != 0) throw test::TestFailure("cannot make a pipe");
        process_ = ::fork();
        if (process_ == 0) live(leadsSession, end);
        ::close(ends_[1]);
        if (::read(ends_[0], &started_, sizeof started_) != sizeof started_) {
            throw test::TestFailure("the guarded process started nothing");
        }
    }
    GuardedProcess(const GuardedProcess&) = delete;
    GuardedProcess& operator=(const GuardedProcess&) = delete;
    ~GuardedProcess() {
        ::close(ends_[0]);
        ::kill(process_, SIGKILL);
        ::kill(started_, SIGKILL);
        while (::waitpid(-1, nullptr, 0) > 0) {
        }
    }

    pid_t process() const { return process_; }
    pid_t started() const { return started_; }
    int waitForStatus() const {
        int status = 0;
        ::waitpid(process_, &status, 0);
        return status;
    }

  private:
    [[noreturn]] void live(bool leadsSession, End end) const {
        if (leadsSession) ::setsid();
        std::optional<test::WantOfMemory> want;
        std::chrono::steady_clock::time_point beginningOfEnd;
        {
            std::optional<test::LoweredLimit> limit;
            if (end == End::onSignalWithoutDescriptors) limit.emplace(RLIMIT_NOFILE, 0);
            const ProcessGuard guard;
            const pid_t started = ::fork();
            if (started == 0) endure();
            if (::write(ends_[1], &started, sizeof started) < 0) ::_exit(1);
            if (end == End::onSignal || end == End::onSignalWithoutDescriptors) ::pause();
            if (end == End::withoutMemory) want.emplace(1, test::WantOfMemory::Persistence::fromThenOn);
            beginningOfEnd = std::chrono::steady_clock::now();
        }
        const bool hasWaited = std::chrono::steady_clock::now() - beginningOfEnd >= a_moment;
        ::_exit(end == End::itself && !hasWaited ? was_in_a_hurry : 0);
    }
    [[noreturn]] static void endure() {
        for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGQUIT}) ::signal(signal, SIG_IGN);
        for (;;) ::pause();
    }

    std::array<int, 2> ends_{};
    pid_t process_ = -1;
    pid_t started_ = -1;
};

/// Whether the guarded process leads a session.
class ProcessGuardTests : public testing::TestWithParam<bool> {};

TEST_P(ProcessGuardTests, NothingOutlivesAKilledProcess) {
    const GuardedProcess guarded(GetParam(), GuardedProcess::End::onSignal);
    ::kill(guarded.process(), SIGKILL);
    test::waitUntil([&] { return !test::processIsRunning(guarded.started()); },
                    "the end of what was started");
}

/// Whoever reads what the guarded process writes is not to wait for the guard as well.
TEST_P(ProcessGuardTests, AGuardHoldsNothingOpen) {
    const GuardedProcess guarded(GetParam(), GuardedProcess::End::onSignal);
    const auto holdsNothing = [&] {
        const auto guards = test::processesNamed(guarded.process(), "brindle-guard");
        // One descriptor tells of the end of the guarded process.
        return guards.size() == 1 && test::descriptorsOf(guards.front()).size() == 1;
    };
    test::waitUntil(holdsNothing, "the guard to close what it was given");
}

TEST_P(ProcessGuardTests, AGuardWithoutDescriptorsSleepsAndGuardsAllTheSame) {
    const GuardedProcess guarded(GetParam(), GuardedProcess::End::onSignalWithoutDescriptors);
    const auto sleeps = [&] {
        const auto guards = test::processesNamed(guarded.process(), "brindle-guard");
        return guards.size() == 1 && test::isAsleep(guards.front());
    };
    test::waitUntil(sleeps, "the guard to sleep");
    ::kill(guarded.process(), SIGKILL);
    test::waitUntil([&] { return !test::processIsRunning(guarded.started()); },
                    "the end of what was started");
}

TEST_P(ProcessGuardTests, NothingOutlivesAProcessThatEndsByItself) {
    const GuardedProcess guarded(GetParam(), GuardedProcess::End::itself);
    const int status = guarded.waitForStatus();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    test::waitUntil([&] { return !test::processIsRunning(guarded.started()); },
                    "the end of what was started");
}

TEST_P(ProcessGuardTests, WhatWasStartedIsGivenAMomentToEndByItself) {
    const GuardedProcess guarded(GetParam(), GuardedProcess::End::itself);
    const int status = guarded.waitForStatus();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != was_in_a_hurry) << status;
}

TEST_P(ProcessGuardTests, NothingOutlivesAProcessThatEndsForWantOfMemory) {
    const GuardedProcess guarded(GetParam(), GuardedProcess::End::withoutMemory);
    const int status = guarded.waitForStatus();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    test::waitUntil([&] { return !test::processIsRunning(guarded.started()); },
                    "the end of what was started");
}

INSTANTIATE_TEST_SUITE_P(LeadsSession, ProcessGuardTests, testing::Bool());

}  // namespace
}  // namespace brindle

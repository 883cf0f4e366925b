#include "system/ChildProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <memory>

#include "support/Files.h"
#include "support/Pipes.h"
#include "support/Processes.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"
#include "text/Failure.h"

namespace brindle {
namespace {

using test::readAll;

ChildProcess::Options shell(const std::string& script) {
    return {.executable = "/bin/sh", .arguments = {"-c", script}, .environment = {{"PATH", "/usr/bin:/bin"}}};
}

ProcessEnd endOf(const std::string& script) {
    return ChildProcess(shell(script)).waitForEnd();
}

/// Whether the process runs or is a zombie.
bool isKnown(pid_t process) {
    return ::kill(process, 0) == 0;
}

/// What the process writes to its standard output.
std::string outputOf(const ChildProcess::Options& options) {
    ChildProcess child(options);
    auto output = readAll(child.standardOutput());
    child.waitForEnd();
    return output;
}

/// One of the sets of signals that /proc shows, without the two that the C library keeps for itself.
std::uint64_t signalsIn(const std::string& status, const std::string& name) {
    constexpr std::uint64_t internal_signals = std::uint64_t{3} << 31U;
    const auto place = status.find(name + ":\t");
    if (place == std::string::npos) return ~std::uint64_t{0};
    return std::stoull(status.substr(place + name.size() + 2, 16), nullptr, 16) & ~internal_signals;
}

std::string reasonFor(const std::string& executable) {
    try {
        const ChildProcess child({.executable = executable});
        child.waitForEnd();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "started";
}

TEST(ChildProcessTests, HasPipesOfItsOwn) {
    ChildProcess child(shell("echo out; echo error >&2"));
    EXPECT_EQ(readAll(child.standardOutput()), "out\n");
    EXPECT_EQ(readAll(child.standardError()), "error\n");
    EXPECT_EQ(child.waitForEnd(), ProcessEnd::exit(0));
}

TEST(ChildProcessTests, ReadEndsDoNotBlock) {
    ChildProcess child(shell("exec sleep 1000"));
    char byte = 0;
    EXPECT_EQ(::read(child.standardOutput().get(), &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(::read(child.standardError().get(), &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    child.signal(SIGKILL);
    child.waitForEnd();
}

TEST(ChildProcessTests, GetsArgumentsAsTheyAre) {
    auto options = shell(R"(printf '%s|' "$0" "$@")");
    options.arguments.insert(options.arguments.end(), {"", "a b", "*", "é\n", "\xFF"});
    EXPECT_EQ(outputOf(options), "|a b|*|é\n|\xFF|");
}

TEST(ChildProcessTests, ProgramPathComesFirst) {
    EXPECT_EQ(outputOf(shell("tr '\\0' '\\n' < /proc/$$/cmdline | head -1")), "/bin/sh\n");
}

TEST(ChildProcessTests, EnvironmentIsCompleteAndNothingIsInherited) {
    ::setenv("BRINDLE_TEST_MARKER", "inherited", 1);
    const auto output =
        outputOf({.executable = "/usr/bin/env", .environment = {{"A", "1"}, {"B", "x=y z"}, {"EMPTY", ""}}});
    ::unsetenv("BRINDLE_TEST_MARKER");
    EXPECT_EQ(output, "A=1\nB=x=y z\nEMPTY=\n");
}

TEST(ChildProcessTests, SignalMaskIsEmptyAndDispositionsAreTheDefault) {
    const auto pipeHandler = ::signal(SIGPIPE, SIG_IGN);
    const auto userHandler = ::signal(SIGUSR2, SIG_IGN);
    sigset_t blocked;
    sigset_t original;
    sigemptyset(&blocked);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&blocked, number);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &original);
    const auto output =
        outputOf({.executable = "/bin/grep", .arguments = {"-E", "Sig(Blk|Ign|Cgt)", "/proc/self/status"}});
    ::pthread_sigmask(SIG_SETMASK, &original, nullptr);
    ::signal(SIGPIPE, pipeHandler);
    ::signal(SIGUSR2, userHandler);
    EXPECT_EQ(signalsIn(output, "SigBlk"), 0U);
    EXPECT_EQ(signalsIn(output, "SigIgn"), 0U);
}

TEST(ChildProcessTests, GetsNoDescriptorsButTheStandardOnes) {
    const Descriptor leaked(::fcntl(STDERR_FILENO, F_DUPFD, 40));
    ASSERT_GE(leaked.get(), 40);
    // The fourth is the listing's own.
    EXPECT_EQ(outputOf({.executable = "/bin/ls", .arguments = {"/proc/self/fd"}}), "0\n1\n2\n3\n");
}

TEST(ChildProcessTests, StandardInputIsInherited) {
    struct Restore {
        Descriptor original{::dup(STDIN_FILENO)};
        ~Restore() { ::dup2(original.get(), STDIN_FILENO); }
    } const restore;
    const test::TemporaryDirectory directory;
    const auto path = directory.path() / "input";
    test::writeFileAtomically(path, "from the parent");
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_GE(::dup2(file.get(), STDIN_FILENO), 0);
    EXPECT_EQ(outputOf({.executable = "/bin/cat"}), "from the parent");
}

TEST(ChildProcessTests, StandardInputMayBeAPipe) {
    ChildProcess child({.executable = "/bin/cat", .standardInput = ChildProcess::StandardInput::pipe});
    ASSERT_TRUE(child.standardInput().isOpen());
    EXPECT_EQ(::write(child.standardInput().get(), "text", 4), 4);
    child.standardInput().reset();
    EXPECT_EQ(readAll(child.standardOutput()), "text");
    EXPECT_EQ(child.waitForEnd(), ProcessEnd::exit(0));
}

TEST(ChildProcessTests, InheritsOrHasItsOwnProcessGroup) {
    for (const auto group : {ChildProcess::ProcessGroup::inherited, ChildProcess::ProcessGroup::own}) {
        auto options = shell("cut -d' ' -f5 /proc/$$/stat");
        options.processGroup = group;
        ChildProcess child(options);
        const auto reported = std::stol(readAll(child.standardOutput()));
        const bool isOwn = group == ChildProcess::ProcessGroup::own;
        EXPECT_EQ(reported, isOwn ? child.processIdentifier() : ::getpgrp());
        child.waitForEnd();
    }
}

TEST(ChildProcessTests, ExitIsToldWithItsStatus) {
    EXPECT_EQ(endOf("exit 0"), ProcessEnd::exit(0));
    EXPECT_EQ(endOf("exit 3"), ProcessEnd::exit(3));
    EXPECT_EQ(endOf("exit 255"), ProcessEnd::exit(255));
}

TEST(ChildProcessTests, DeathBySignalIsNotTakenForAnExit) {
    EXPECT_EQ(endOf("kill -KILL $$"), ProcessEnd::signal(SIGKILL));
    EXPECT_EQ(endOf("kill -TERM $$"), ProcessEnd::signal(SIGTERM));
    EXPECT_EQ(endOf("kill -PIPE $$"), ProcessEnd::signal(SIGPIPE));
    EXPECT_NE(endOf("exit 9"), ProcessEnd::signal(SIGKILL));
}

TEST(ChildProcessTests, EndThatSomebodyElseTookIsUnknown) {
    const ChildProcess child(shell("exit 3"));
    ::waitpid(child.processIdentifier(), nullptr, 0);
    EXPECT_EQ(child.waitForEnd(), ProcessEnd());
    EXPECT_EQ(child.waitForEnd().number, -1);
}

TEST(ChildProcessTests, SignalReachesTheProcess) {
    const ChildProcess child(shell("exec sleep 1000"));
    child.signal(SIGTERM);
    EXPECT_EQ(child.waitForEnd(), ProcessEnd::signal(SIGTERM));
}

TEST(ChildProcessTests, SignalToAnEndedProcessIsNoError) {
    const ChildProcess child(shell("exit 4"));
    pollfd end{.fd = child.endDescriptor(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&end, 1, -1), 1);
    EXPECT_NO_THROW(child.signal(SIGTERM));
    EXPECT_EQ(child.waitForEnd(), ProcessEnd::exit(4));
    EXPECT_NO_THROW(child.signal(SIGTERM));
}

TEST(ChildProcessTests, EndDescriptorIsReadableOnceTheProcessHasEnded) {
    ChildProcess child({.executable = "/bin/cat", .standardInput = ChildProcess::StandardInput::pipe});
    pollfd end{.fd = child.endDescriptor(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&end, 1, 0), 0);
    child.standardInput().reset();
    EXPECT_EQ(::poll(&end, 1, -1), 1);
    child.waitForEnd();
}

TEST(ChildProcessTests, EndMayBeAskedForAgainAndKeepsTheNumber) {
    const ChildProcess child(shell("exit 3"));
    EXPECT_EQ(child.waitForEnd(), ProcessEnd::exit(3));
    EXPECT_TRUE(child.hasEnded());
    EXPECT_TRUE(isKnown(child.processIdentifier()));
    EXPECT_EQ(child.waitForEnd(), ProcessEnd::exit(3));
}

TEST(ChildProcessTests, OwnerThatGoesRemovesTheZombie) {
    for (const auto leftRunning :
         {ChildProcess::LeftRunning::isKilled, ChildProcess::LeftRunning::staysAlive}) {
        auto options = shell("exit 0");
        options.leftRunning = leftRunning;
        auto child = std::make_unique<ChildProcess>(options);
        const auto process = child->processIdentifier();
        child->waitForEnd();
        child.reset();
        EXPECT_FALSE(isKnown(process));
    }
}

TEST(ChildProcessTests, OwnerThatGoesKillsAndReapsWhatStillRuns) {
    auto child = std::make_unique<ChildProcess>(shell("trap '' TERM; echo ready; exec sleep 1000"));
    test::waitUntil(
        [&] {
            char byte = 0;
            return ::read(child->standardOutput().get(), &byte, 1) == 1;
        },
        "the process to be ready");
    const auto process = child->processIdentifier();
    EXPECT_FALSE(child->hasEnded());
    child.reset();
    EXPECT_FALSE(isKnown(process));
}

TEST(ChildProcessTests, OwnerOfAProcessGroupKillsAllOfIt) {
    auto options = shell("sleep 1000 & echo $!; exec sleep 1000");
    options.processGroup = ChildProcess::ProcessGroup::own;
    auto child = std::make_unique<ChildProcess>(options);
    std::string number;
    test::waitUntil(
        [&] {
            char byte = 0;
            if (::read(child->standardOutput().get(), &byte, 1) == 1) number += byte;
            return number.ends_with('\n');
        },
        "the number of the process's own child");
    child.reset();
    test::waitUntil([&] { return !test::processIsRunning(static_cast<pid_t>(std::stol(number))); },
                    "the end of the whole group");
}

TEST(ChildProcessTests, OwnerThatGoesMayLeaveAProcessAloneWithoutWaiting) {
    auto options = shell("exec sleep 1000");
    options.leftRunning = ChildProcess::LeftRunning::staysAlive;
    auto child = std::make_unique<ChildProcess>(options);
    const auto process = child->processIdentifier();
    child.reset();
    EXPECT_EQ(::waitpid(process, nullptr, WNOHANG), 0);
    ::kill(process, SIGKILL);
    EXPECT_EQ(::waitpid(process, nullptr, 0), process);
}

TEST(ChildProcessTests, FailureToStartGivesTheSystemsReason) {
    const test::TemporaryDirectory directory;
    const auto at = [&](const std::string& name) { return (directory.path() / name).string(); };
    test::writeFileAtomically(at("plain"), "#!/bin/sh\n");
    test::writeFileAtomically(at("text"), "no program");
    std::filesystem::permissions(at("text"), std::filesystem::perms::owner_all);
    EXPECT_EQ(reasonFor(at("missing")), "No such file or directory");
    EXPECT_EQ(reasonFor(at("plain")), "Permission denied");
    EXPECT_EQ(reasonFor(directory.path()), "Permission denied");
    EXPECT_EQ(reasonFor(at("plain/below")), "Not a directory");
    EXPECT_EQ(reasonFor(at("text")), "Exec format error");
}

TEST(ChildProcessTests, LeavesNoDescriptorOpen) {
    const auto countOpen = [] { return test::namesIn("/proc/self/fd").size(); };
    const auto before = countOpen();
    endOf("exit 0");
    reasonFor("/missing");
    outputOf({.executable = "/bin/true", .standardInput = ChildProcess::StandardInput::pipe});
    EXPECT_EQ(countOpen(), before);
}

}  // namespace
}  // namespace brindle

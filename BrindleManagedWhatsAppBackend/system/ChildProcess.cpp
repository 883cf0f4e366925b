#include "system/ChildProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <system_error>
#include <utility>

#include "system/Pidfd.h"
#include "text/Failure.h"

namespace brindle {
namespace {

constexpr int first_descriptor_not_passed_on = STDERR_FILENO + 1;

[[noreturn]] void failToStart(int code) {
    throw Failure(std::generic_category().message(code));
}

void check(int code) {
    if (code != 0) failToStart(code);
}

struct Pipe {
    Descriptor read;
    Descriptor write;

    Pipe() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) failToStart(errno);
        read = Descriptor(ends[0]);
        write = Descriptor(ends[1]);
    }
};

class SpawnActions {
  public:
    SpawnActions() { check(::posix_spawn_file_actions_init(&actions_)); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions_); }

    void connect(const Descriptor& end, int number) {
        check(::posix_spawn_file_actions_adddup2(&actions_, end.get(), number));
    }
    void closeTheRest() {
        check(::posix_spawn_file_actions_addclosefrom_np(&actions_, first_descriptor_not_passed_on));
    }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
  public:
    explicit SpawnAttributes(ChildProcess::ProcessGroup group) {
        check(::posix_spawnattr_init(&attributes_));
        sigset_t every;
        sigfillset(&every);
        sigset_t none;
        sigemptyset(&none);
        short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
        if (group == ChildProcess::ProcessGroup::own) flags |= POSIX_SPAWN_SETPGROUP;
        check(::posix_spawnattr_setsigdefault(&attributes_, &every));
        check(::posix_spawnattr_setsigmask(&attributes_, &none));
        check(::posix_spawnattr_setflags(&attributes_, flags));
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }

    const posix_spawnattr_t* get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

/// The null-terminated array of C strings that exec takes; the texts must outlive it.
std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (auto& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> commandLine(const ChildProcess::Options& options) {
    std::vector<std::string> texts{options.executable};
    texts.insert(texts.end(), options.arguments.begin(), options.arguments.end());
    return texts;
}

std::vector<std::string> environmentEntries(const Environment& environment) {
    std::vector<std::string> entries;
    entries.reserve(environment.size());
    for (const auto& [name, value] : environment) {
        std::string entry(name);
        entries.push_back(entry.append("=").append(value));
    }
    return entries;
}

/// A process whose end could never be noticed must not go on.
[[noreturn]] void abandonStart(pid_t process, int code) {
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
    failToStart(code);
}

void makeNonblocking(const Descriptor& descriptor) {
    ::fcntl(descriptor.get(), F_SETFL, ::fcntl(descriptor.get(), F_GETFL) | O_NONBLOCK);
}

}  // namespace

ChildProcess::ChildProcess(const Options& options)
    : leadsGroup_(options.processGroup == ProcessGroup::own), leftRunning_(options.leftRunning) {
    Pipe output;
    Pipe error;
    SpawnActions actions;
    std::optional<Pipe> input;
    if (options.standardInput == StandardInput::pipe) actions.connect(input.emplace().read, STDIN_FILENO);
    actions.connect(output.write, STDOUT_FILENO);
    actions.connect(error.write, STDERR_FILENO);
    actions.closeTheRest();
    const SpawnAttributes attributes(options.processGroup);
    auto arguments = commandLine(options);
    auto entries = environmentEntries(options.environment);
    check(::posix_spawn(&process_, options.executable.c_str(), actions.get(), attributes.get(),
                        pointers(arguments).data(), pointers(entries).data()));
    end_ = Descriptor(::pidfd_open(process_, 0));
    if (!end_.isOpen()) abandonStart(process_, errno);
    if (input) input_ = std::move(input->write);
    output_ = std::move(output.read);
    error_ = std::move(error.read);
    makeNonblocking(output_);
    makeNonblocking(error_);
}

ChildProcess::~ChildProcess() {
    if (leftRunning_ == LeftRunning::staysAlive) {
        ::waitpid(process_, nullptr, WNOHANG);
        return;
    }
    // What a killed process has started may still run.
    if (!hasEnded() || waitForEnd().cause == ProcessEnd::Cause::signal) kill();
    while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void ChildProcess::signal(int number) const {
    ::pidfd_send_signal(end_.get(), number, nullptr, 0);
}

void ChildProcess::kill() const {
    signal(SIGKILL);
    if (leadsGroup_) ::kill(-process_, SIGKILL);
}

bool ChildProcess::hasEnded() const {
    pollfd end{.fd = end_.get(), .events = POLLIN, .revents = 0};
    return ::poll(&end, 1, 0) > 0;
}

ProcessEnd ChildProcess::waitForEnd() const {
    siginfo_t information{};
    // The zombie stays, and with it the number and the answer.
    while (::waitid(P_PID, static_cast<id_t>(process_), &information, WEXITED | WNOWAIT) != 0) {
        if (errno != EINTR) return {};
    }
    return information.si_code == CLD_EXITED ? ProcessEnd::exit(information.si_status)
                                             : ProcessEnd::signal(information.si_status);
}

}  // namespace brindle

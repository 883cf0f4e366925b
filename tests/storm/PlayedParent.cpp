#include "storm/PlayedParent.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "support/Environment.h"
#include "support/Pipes.h"
#include "support/Spawning.h"

namespace brindle::test {
namespace {

/// One direction between the parent's own streams and those of its helper.
class Passage {
  public:
    Passage(Descriptor from, Descriptor to, std::int64_t chunkBytes)
        : from_(std::move(from)), to_(std::move(to)), chunkBytes_(chunkBytes) {}

    bool isOpen() const { return from_.isOpen(); }
    /// Waits for bytes, and while there are some and they cannot be passed on, for room.
    pollfd waitsFor() const {
        if (isBlocked_) return {to_.get(), POLLOUT, 0};
        return {from_.get(), POLLIN, 0};
    }
    /// Stops exactly after so many bytes; whether they have been reached.
    void stopAfter(std::int64_t bytes) { left_ = bytes; }
    bool hasReachedStop() const { return left_ == 0; }

    void pass() {
        const auto most = left_ > 0 ? std::min(left_, chunkBytes_) : chunkBytes_;
        const auto passed = ::splice(from_.get(), nullptr, to_.get(), nullptr, static_cast<std::size_t>(most),
                                     SPLICE_F_NONBLOCK);
        if (passed > 0 && left_ > 0) left_ -= passed;
        isBlocked_ = passed < 0 && errno == EAGAIN && !isBlocked_;
        if (passed > 0 || (passed < 0 && (errno == EAGAIN || errno == EINTR))) return;
        // The end of what comes in, or nobody takes it any more: both sides learn of it.
        from_.reset();
        to_.reset();
    }

  private:
    Descriptor from_;
    Descriptor to_;
    std::int64_t chunkBytes_;
    std::int64_t left_ = -1;
    bool isBlocked_ = false;
};

Environment ownEnvironment() {
    Environment environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        environment[text.substr(0, equals)] = text.substr(equals + 1);
    }
    return environment;
}

int statusAsShellsTellIt(pid_t process) {
    constexpr int signal_offset = 128;
    int status = 0;
    while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : signal_offset + WTERMSIG(status);
}

/// The helper and the three passages to it.
class Helper {
  public:
    explicit Helper(const PlayedParent& parent) : parent_(parent) {
        auto input = makePipe();
        auto output = makePipe();
        auto error = makePipe();
        process_ = spawn({.commandLine = {parent.backend},
                          .environment = ownEnvironment(),
                          .workingDirectory = {},
                          .standardInput = input.reading.get(),
                          .standardOutput = output.writing.get(),
                          .standardError = error.writing.get(),
                          .newProcessGroup = false});
        tellProcess();
        constexpr std::int64_t whole_pipe_bytes = 65536;
        passages_.emplace_back(Descriptor(STDIN_FILENO), std::move(input.writing), parent.chunkBytes);
        passages_.emplace_back(std::move(output.reading), Descriptor(STDOUT_FILENO), parent.chunkBytes);
        passages_.emplace_back(std::move(error.reading), Descriptor(STDERR_FILENO), whole_pipe_bytes);
        if (parent.bytesToBackend > 0) passages_[0].stopAfter(parent.bytesToBackend);
        if (parent.bytesToParent > 0) passages_[1].stopAfter(parent.bytesToParent);
    }

    int passUntilEnd() {
        while (passages_[1].isOpen() || passages_[2].isOpen()) passOnce();
        return statusAsShellsTellIt(process_);
    }

  private:
    void tellProcess() const {
        const auto line = backend_process_prefix + std::to_string(process_) + "\n";
        [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
    }

    void passOnce() {
        std::array<pollfd, 3> waits{};
        for (std::size_t index = 0; index < waits.size(); ++index) {
            waits[index] = passages_[index].isOpen() ? passages_[index].waitsFor() : pollfd{-1, 0, 0};
        }
        if (::poll(waits.data(), waits.size(), -1) < 0) return;
        for (std::size_t index = 0; index < waits.size(); ++index) {
            if (waits[index].revents == 0) continue;
            passages_[index].pass();
            if (passages_[index].hasReachedStop()) kill();
        }
        if (parent_.restMicroseconds > 0 && waits[1].revents != 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(parent_.restMicroseconds));
        }
    }

    void kill() {
        if (parent_.kills == PlayedParent::Kills::itself) ::kill(::getpid(), SIGKILL);
        if (parent_.kills == PlayedParent::Kills::backend) ::kill(process_, SIGKILL);
        for (auto& passage : passages_) passage.stopAfter(-1);
    }

    const PlayedParent& parent_;
    pid_t process_ = -1;
    std::vector<Passage> passages_;
};

}  // namespace

std::vector<std::string> PlayedParent::arguments() const {
    return {play_parent_argument,
            backend,
            std::to_string(chunkBytes),
            std::to_string(restMicroseconds),
            std::to_string(static_cast<int>(kills)),
            std::to_string(bytesToBackend),
            std::to_string(bytesToParent)};
}

PlayedParent PlayedParent::from(const std::vector<std::string>& arguments) {
    return {.backend = arguments.at(1),
            .chunkBytes = std::stoll(arguments.at(2)),
            .restMicroseconds = std::stoll(arguments.at(3)),
            .kills = static_cast<Kills>(std::stoi(arguments.at(4))),
            .bytesToBackend = std::stoll(arguments.at(5)),
            .bytesToParent = std::stoll(arguments.at(6))};
}

int PlayedParent::play() const {
    ::signal(SIGPIPE, SIG_IGN);
    return Helper(*this).passUntilEnd();
}

}  // namespace brindle::test

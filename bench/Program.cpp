#include "Program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "support/Pipes.h"
#include "support/Spawning.h"

namespace brindle::bench {
namespace {

constexpr std::size_t read_bytes = 1 << 20;
/// Longer than anything that is measured takes on a busy machine.
constexpr int patience_ms = 300'000;

}  // namespace

Program::Program(std::vector<std::string> commandLine, test::Environment environment)
    // Not touched before it is used, because a start is measured, too.
    : buffer_(std::make_unique_for_overwrite<char[]>(read_bytes)) {
    // A program that ends early shows in its output, not by ending this one.
    ::signal(SIGPIPE, SIG_IGN);
    auto input = test::makePipe();
    auto output = test::makePipe();
    process_ = test::spawn({.commandLine = std::move(commandLine),
                            .environment = std::move(environment),
                            .workingDirectory = {},
                            .standardInput = input.reading.get(),
                            .standardOutput = output.writing.get(),
                            .standardError = STDERR_FILENO});
    input_ = std::move(input.writing);
    output_ = std::move(output.reading);
    ::fcntl(input_.get(), F_SETFL, O_NONBLOCK);
}

Program::~Program() {
    input_.reset();
    readToEnd();
    int status = 0;
    ::waitpid(process_, &status, 0);
}

/// A program whose output has ended is about to end; one whose output does not end is killed.
void Program::readToEnd() {
    pollfd ready{.fd = output_.get(), .events = POLLIN, .revents = 0};
    for (;;) {
        if (::poll(&ready, 1, patience_ms) == 0) ::kill(process_, SIGKILL);
        if (::read(output_.get(), buffer_.get(), read_bytes) <= 0) return;
    }
}

void Program::waitFor(short events) {
    const auto inputEvents = static_cast<short>(events & POLLOUT);
    std::array<pollfd, 2> ready{
        {{.fd = output_.get(), .events = POLLIN, .revents = 0},
         {.fd = inputEvents != 0 ? input_.get() : -1, .events = inputEvents, .revents = 0}}};
    const int count = ::poll(ready.data(), ready.size(), patience_ms);
    if (count == 0) throw std::runtime_error("A program under measurement says nothing any more.");
}

void Program::writeSome(std::string_view& input) {
    const auto written = ::write(input_.get(), input.data(), input.size());
    if (written > 0) input.remove_prefix(static_cast<std::size_t>(written));
    if (written < 0 && errno != EAGAIN && errno != EINTR)
        throw std::runtime_error("A program under measurement reads no more.");
}

std::string_view Program::readSome() {
    waitFor(POLLIN);
    const auto got = ::read(output_.get(), buffer_.get(), read_bytes);
    if (got <= 0) throw std::runtime_error("A program under measurement has ended before its time.");
    bytesRead_ += static_cast<std::size_t>(got);
    return {buffer_.get(), static_cast<std::size_t>(got)};
}

void Program::exchange(std::string_view input, std::size_t lines) {
    std::size_t seen = 0;
    while (!input.empty()) {
        writeSome(input);
        if (input.empty()) break;
        waitFor(POLLIN | POLLOUT);
        pollfd ready{.fd = output_.get(), .events = POLLIN, .revents = 0};
        if (::poll(&ready, 1, 0) == 1) {
            const auto text = readSome();
            seen += static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
        }
    }
    while (seen < lines) {
        const auto text = readSome();
        seen += static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    }
    if (seen > lines) throw std::runtime_error("A program under measurement says more than it was asked.");
}

}  // namespace brindle::bench

#include "support/TestDisplay.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "support/Environment.h"
#include "support/Files.h"
#include "support/Pipes.h"
#include "support/Processes.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

/// Starts a program that dies with the test, its output in `log`; descriptor 3 of it is `passed` when that is
/// not -1.
pid_t startServer(const std::vector<std::string>& command, const std::filesystem::path& log, int passed) {
    std::vector<char*> arguments;
    for (const auto& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t process = ::fork();
    if (process < 0) throw TestFailure("cannot start a display server");
    if (process > 0) return process;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int output = ::open(log.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    // The one that is passed closes itself on the way, its duplicate does not.
    if (passed == 3) ::fcntl(passed, F_SETFD, 0);
    if (passed >= 0 && passed != 3) ::dup2(passed, 3);
    ::execvp(arguments[0], arguments.data());
    ::_exit(127);
}

/// Whether somebody listens at a socket; its name is there a moment before.
bool takesClients(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw TestFailure("path too long: " + path);
    path.copy(address.sun_path, path.size());
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// What a server tells: its number and a line feed, one after the other, once it takes clients. False when it
/// ends before.
bool tellsItsNumber(const Descriptor& end) {
    for (;;) {
        char character = 0;
        const auto got = ::read(end.get(), &character, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        if (character == '\n') return true;
    }
}

}  // namespace

TestDisplay::TestDisplay(Kind kind) : kind_(kind) {
    if (kind == Kind::x11) {
        startX11();
    } else {
        startWayland();
    }
}

TestDisplay::~TestDisplay() {
    ::kill(server_, SIGTERM);
    ::waitpid(server_, nullptr, 0);
}

void TestDisplay::startX11() {
    // A number of this process's own: servers that look for a free one take each other's sockets away when
    // one ends while another starts.
    constexpr int first_number = 100;
    constexpr int numbers = 59'000;
    constexpr int attempts = 20;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (startX11(first_number + (::getpid() + attempt) % numbers)) return;
    }
    throw TestFailure("Xvfb did not start: " + readFile(directory_.path() / "log"));
}

bool TestDisplay::startX11(int number) {
    auto told = makePipe();
    name_ = ":" + std::to_string(number);
    // Without resets: at the end of its last client it would also throw out whoever has just connected.
    server_ = startServer(
        {"Xvfb", name_, "-displayfd", "3", "-screen", "0", "640x480x24", "-nolisten", "tcp", "-noreset"},
        directory_.path() / "log", told.writing.get());
    told.writing.reset();
    if (tellsItsNumber(told.reading)) return true;
    ::kill(server_, SIGKILL);
    ::waitpid(server_, nullptr, 0);
    return false;
}

void TestDisplay::startWayland() {
    name_ = directory_.path() / "wayland-test";
    // What it puts into the runtime directory must neither need nor disturb that of whoever runs the tests.
    server_ = startServer({"env", "XDG_RUNTIME_DIR=" + directory_.path().string(), "weston",
                           "--backend=headless-backend.so", "--socket=" + name_, "--idle-time=0"},
                          directory_.path() / "log", -1);
    waitUntil([&] { return takesClients(name_) || !processIsRunning(server_); }, "weston takes clients");
    if (!processIsRunning(server_)) {
        throw TestFailure("weston did not start: " + readFile(directory_.path() / "log"));
    }
}

void TestDisplay::addTo(Environment& environment) const {
    environment.erase("DISPLAY");
    environment.erase("WAYLAND_DISPLAY");
    environment.erase("GDK_BACKEND");
    if (kind_ == Kind::x11) {
        environment["DISPLAY"] = name_;
        return;
    }
    // As sessions do it: the socket's name, and the directory that it is in.
    environment["WAYLAND_DISPLAY"] = std::filesystem::path(name_).filename();
    environment["XDG_RUNTIME_DIR"] = directory_.path();
}

void TestDisplay::use() const {
    ::unsetenv("GDK_BACKEND");
    ::unsetenv(kind_ == Kind::x11 ? "WAYLAND_DISPLAY" : "DISPLAY");
    ::setenv(kind_ == Kind::x11 ? "DISPLAY" : "WAYLAND_DISPLAY", name_.c_str(), 1);
}

const TestDisplay& TestDisplay::shared() {
    static const TestDisplay display;
    return display;
}

}  // namespace brindle::test

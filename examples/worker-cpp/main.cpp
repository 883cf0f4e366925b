// A native worker to try the helper with, and to start from when writing a real one. docs/native-worker.md
// explains the rules that it keeps. Needs Linux, C++20 and nlohmann's JSON library, and nothing of the
// helper.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sysexits.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>

#include "EchoWorker.h"
#include "Files.h"

namespace {

/// How often the helper is looked after; a status is due as often.
constexpr std::chrono::milliseconds heartbeat_interval{1000};

/// The worker was started by hand.
class UsageFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

std::string required(const char* key) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): this program has one thread.
    const char* value = std::getenv(key);
    std::string text = value == nullptr ? "" : value;
    if (text.find_first_not_of(" \t\r\n") != std::string::npos) return text;
    throw UsageFailure("This worker is started by the helper, which sets " + std::string(key) +
                       "; that variable is missing.");
}

pid_t backendProcess() {
    const std::string key = "BRINDLE_MANAGED_BRIDGE_PARENT_PID";
    const auto text = required(key.c_str());
    pid_t process = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), process);
    if (error == std::errc() && end == text.data() + text.size() && process > 0) return process;
    throw std::runtime_error(key + " must be a process id, not \"" + text + "\".");
}

/// The signals that ask for the end. They wait until somebody asks for them, so none interrupts a record.
class EndSignals {
  public:
    EndSignals() : descriptor_(::signalfd(-1, blocked(), SFD_CLOEXEC | SFD_NONBLOCK)) {}

    int descriptor() const { return descriptor_.get(); }
    bool haveCome() const {
        signalfd_siginfo signal{};
        return ::read(descriptor_.get(), &signal, sizeof signal) == sizeof signal;
    }

  private:
    static const sigset_t* blocked() {
        static sigset_t set;
        ::sigemptyset(&set);
        for (const int number : {SIGTERM, SIGINT, SIGHUP}) ::sigaddset(&set, number);
        ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
        return &set;
    }

    files::Descriptor descriptor_;
};

/// Wakes up when something appears in a directory.
class DirectoryWatch {
  public:
    explicit DirectoryWatch(const std::string& directory)
        : descriptor_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        if (::inotify_add_watch(descriptor_.get(), directory.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
            throw files::Failure("watch", directory, errno);
        }
    }

    int descriptor() const { return descriptor_.get(); }
    /// Forgets what it has seen: events only say that it is worth looking at the whole directory.
    void clear() const {
        constexpr std::size_t some_events = 4096;
        std::array<char, some_events> events{};
        while (::read(descriptor_.get(), events.data(), events.size()) > 0) {
        }
    }

  private:
    files::Descriptor descriptor_;
};

/// Until a signal comes, something appears to be sent, or a heartbeat is due.
void waitForWork(const EndSignals& signals, const DirectoryWatch& outbound) {
    std::array<pollfd, 2> sources{{{.fd = signals.descriptor(), .events = POLLIN, .revents = 0},
                                   {.fd = outbound.descriptor(), .events = POLLIN, .revents = 0}}};
    const int ready = ::poll(sources.data(), sources.size(), static_cast<int>(heartbeat_interval.count()));
    // A process that may not wait for descriptors must not spin instead.
    if (ready < 0 && errno != EINTR) std::this_thread::sleep_for(heartbeat_interval);
}

void run(int argumentCount) {
    if (argumentCount > 1) throw UsageFailure("This worker takes no arguments; the helper configures it.");
    const auto dataDirectory = required("BRINDLE_MANAGED_BRIDGE_DATA_DIR");
    const auto platform = required("BRINDLE_MANAGED_BRIDGE_PLATFORM");
    const auto backend = backendProcess();
    const EndSignals signals;
    bool isAsked = false;
    // A worker whose helper is gone gets another parent.
    const auto mustEnd = [&] {
        isAsked = isAsked || signals.haveCome();
        return isAsked || ::getppid() != backend;
    };
    EchoWorker worker(dataDirectory, platform, mustEnd);
    worker.start();
    const DirectoryWatch outbound(worker.places().outbound);
    while (!mustEnd()) {
        outbound.clear();
        worker.round();
        waitForWork(signals, outbound);
    }
}

}  // namespace

int main(int argumentCount, char**) {
    // The helper may be gone before the last line is written; that is noticed by other means.
    ::signal(SIGPIPE, SIG_IGN);
    try {
        run(argumentCount);
        return EX_OK;
    } catch (const UsageFailure& failure) {
        say(STDERR_FILENO, failure.what());
        return EX_USAGE;
    } catch (const std::exception& failure) {
        say(STDERR_FILENO, failure.what());
        return EX_CONFIG;
    }
}

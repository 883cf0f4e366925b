// A native worker to try the helper with, and to start from when writing a real one. docs/native-worker.md
// explains the contract that it keeps.

#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sysexits.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <functional>
#include <iostream>
#include <string>
#include <thread>

#include "EchoWorker.h"
#include "exchange/EnvironmentKeys.h"
#include "system/Descriptor.h"
#include "system/Environment.h"
#include "system/FileSystemFailure.h"
#include "system/Processes.h"
#include "text/Failure.h"

using namespace brindle;

namespace {

constexpr std::chrono::milliseconds heartbeat_interval{1000};

/// The worker was started by hand.
class UsageFailure : public Failure {
  public:
    using Failure::Failure;
};

std::string requiredValue(const Environment& environment, std::string_view key) {
    if (auto value = nonBlankValue(environment, key)) return *value;
    throw UsageFailure("This worker is started by the helper, which sets " + std::string(key) +
                       "; that variable is missing.");
}

pid_t backendProcess(const Environment& environment) {
    const auto text = requiredValue(environment, environment_key::parent_process);
    pid_t process = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), process);
    if (error == std::errc() && end == text.data() + text.size() && process > 0) return process;
    throw Failure(std::string(environment_key::parent_process) + " must be a process id, not \"" + text +
                  "\".");
}

WorkerSettings settingsFrom(const Environment& environment, FileManager& fileManager) {
    requiredValue(environment, environment_key::data_directory);
    const auto platform = requiredValue(environment, environment_key::platform);
    return {.directory = DataDirectory(environment, fileManager, platform),
            .platform = platform,
            .backend = backendProcess(environment)};
}

/// Wakes up when something appears in a directory.
class DirectoryWatch {
  public:
    explicit DirectoryWatch(const std::string& directory)
        : descriptor_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        if (::inotify_add_watch(descriptor_.get(), directory.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
            throw FileSystemFailure("watch", directory, errno);
        }
    }

    int descriptor() const { return descriptor_.get(); }
    /// Forgets what it has seen: every round looks at the whole directory anyway.
    void clear() const {
        std::array<char, 4096> events{};
        while (::read(descriptor_.get(), events.data(), events.size()) > 0) {
        }
    }

  private:
    Descriptor descriptor_;
};

/// Runs rounds until the end is asked for.
void work(EchoWorker& worker, const WorkerSettings& settings, const TerminationSignals& signals,
          const std::function<bool()>& mustEnd) {
    const DirectoryWatch outbound(settings.directory.outbound);
    const Descriptor backendEnd = processEndDescriptor(settings.backend);
    while (!mustEnd()) {
        outbound.clear();
        worker.tick();
        std::array<pollfd, 3> set{{{.fd = signals.descriptor(), .events = POLLIN, .revents = 0},
                                   {.fd = backendEnd.get(), .events = POLLIN, .revents = 0},
                                   {.fd = outbound.descriptor(), .events = POLLIN, .revents = 0}}};
        const int ready = ::poll(set.data(), set.size(), static_cast<int>(heartbeat_interval.count()));
        // A process that may have no descriptors any more cannot wait for them either.
        if (ready < 0 && errno != EINTR) std::this_thread::sleep_for(heartbeat_interval);
    }
}

int run(int argumentCount) {
    if (argumentCount > 1) throw UsageFailure("This worker takes no arguments; the helper configures it.");
    TerminationSignals signals;
    PosixFileManager fileManager;
    const auto settings = settingsFrom(currentEnvironment(), fileManager);
    // A signal asks for the end, or the backend is gone.
    bool isAsked = false;
    const std::function<bool()> mustEnd = [&] {
        isAsked = isAsked || signals.take() != 0;
        return isAsked || !isParentAlive(settings.backend);
    };
    EchoWorker worker(settings, fileManager, mustEnd);
    worker.start();
    work(worker, settings, signals, mustEnd);
    return EX_OK;
}

}  // namespace

int main(int argumentCount, char**) {
    reserveStandardDescriptors();
    // The backend may be gone before the last line is written; that is noticed by other means.
    ignoreSignalsOfFailedWrites();
    try {
        return run(argumentCount);
    } catch (const UsageFailure& failure) {
        std::cerr << std::string(failure.what()) + "\n";
        return EX_USAGE;
    } catch (const std::exception& failure) {
        std::cerr << std::string(failure.what()) + "\n";
        return EX_CONFIG;
    }
}

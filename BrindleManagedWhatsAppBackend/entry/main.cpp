#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <exception>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "backend/DataDirectoryLock.h"
#include "backend/ManagedWhatsAppBackendService.h"
#include "bridge/BridgeChannel.h"
#include "entry/CommandLine.h"
#include "entry/LaunchAuthentication.h"
#include "entry/WebHostModule.h"
#include "exchange/EnvironmentKeys.h"
#include "system/Clock.h"
#include "system/Descriptor.h"
#include "system/Environment.h"
#include "system/FileManager.h"
#include "system/ProcessGuard.h"
#include "system/Processes.h"
#include "system/WriteInTime.h"
#include "text/Text.h"
#include "worker/EngineVariables.h"
#include "worker/HostOptions.h"
#include "worker/ManagedWhatsAppWebWorkerService.h"
#include "worker/WebsiteDataFolders.h"

namespace brindle {
namespace {

constexpr std::chrono::milliseconds standard_error_patience{1000};
constexpr mode_t group_and_others = 077;

/// Best effort: there is no place to report that standard error cannot be written, and a reader that does not
/// read must not keep an ending process.
void writeToStandardError(std::string_view text) {
    writeInTime(STDERR_FILENO, text, standard_error_patience);
}

void reportFatal(const std::exception& error) {
    writeToStandardError("[ManagedWhatsAppBackend] fatal: " + singleLine(descriptionOf(error)) + "\n");
}

/// The launch token stands in this process's memory, so it must never be dumped. One byte rather than none:
/// with that value the kernel also spares programs that collect dumps through a pipe, which a limit of zero
/// does not.
void forbidCoreDumps() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_CORE, &limit) != 0) return;
    limit.rlim_cur = std::min<rlim_t>(1, limit.rlim_max);
    ::setrlimit(RLIMIT_CORE, &limit);
}

bool isWorkerRole(const Environment& environment) {
    const auto role = environment.find(environment_key::worker_role);
    return role != environment.end() && role->second == environment_key::runtime_worker_role;
}

void runBackendRole(const std::string& platform, const Environment& environment, FileManager& fileManager) {
    // Before anything that takes its time: a parent that dies meanwhile must be missed later.
    const pid_t parent = ::getppid();
    // Inherited as ignored, it would throw the worker's exit status away.
    ::signal(SIGCHLD, SIG_DFL);
    giveLargeMemoryBackAtOnce();
    shareOnePlaceOfMemory();
    TerminationSignals signals;
    const SystemClock clock;
    {
        const BridgeStreams streams{.input = STDIN_FILENO,
                                    .output = STDOUT_FILENO,
                                    .error = STDERR_FILENO,
                                    .endRequest = signals.descriptor()};
        BridgeChannel channel(streams);
        const DataDirectory directory(environment, fileManager, platform);
        const auto lock = lockDataDirectory({.directory = directory,
                                             .fileManager = fileManager,
                                             .clock = clock,
                                             .input = streams.input,
                                             .endRequest = streams.endRequest,
                                             .parentProcessIdentifier = parent});
        if (lock) {
            ManagedWhatsAppBackendService service(platform, environment, fileManager, clock, channel, parent);
            service.run();
        }
    }
    if (const int signal = signals.take(); signal != 0) endBySignal(signal);
}

bool hasEnded(pid_t process) {
    const Descriptor end = processEndDescriptor(process);
    pollfd state{.fd = end.get(), .events = POLLIN, .revents = 0};
    // Until somebody has taken its status, an ended process still exists.
    return !processExists(process) || (end.isOpen() && ::poll(&state, 1, 0) > 0);
}

/// The process that started this worker. A backend that was killed before this one could look has left it to
/// a process that may live for long, so what the backend says about itself is asked as well.
pid_t launchingProcess(const Environment& environment) {
    const pid_t parent = ::getppid();
    const auto named = environment.find(environment_key::parent_process);
    if (named == environment.end()) return parent;
    pid_t backend = -1;
    const char* const end = named->second.data() + named->second.size();
    const auto parsed = std::from_chars(named->second.data(), end, backend);
    if (parsed.ec != std::errc() || parsed.ptr != end || backend <= 0) return parent;
    return hasEnded(backend) ? backend : parent;
}

void runWorkerRole(const std::string& platform, const Environment& environment, FileManager& fileManager) {
    // Before anything that takes its time: a parent that dies meanwhile must be missed later.
    const pid_t parent = launchingProcess(environment);
    // The engine gives its files, the login among them, whatever permissions this leaves.
    ::umask(group_and_others);
    // Nobody needs it any more. Before the guard, which would keep a copy, and while there is no other
    // thread.
    for (const auto key : {environment_key::launch_token, environment_key::launch_token_file})
        wipeVariable(key);
    const ProcessGuard guard;
    letTerminationSignalsThrough();
    // Before the engine is loaded, whose libraries look at variables at once and whose processes inherit
    // them.
    keepVariables(engineVariables());
    const SystemClock clock;
    auto options = webWorkerHostOptions();
    options.folders = makeWebsiteDataFolders(options.applicationName, environment, fileManager);
    const auto host = makeWebWorkerHost(options);
    ManagedWhatsAppWebWorkerService service(platform, environment, fileManager, clock, *host, parent);
    service.start();
}

int run(int argumentCount, char** arguments) {
    ignoreSignalsOfFailedWrites();
    const std::vector<std::string> argumentList(arguments + std::min(1, argumentCount),
                                                arguments + argumentCount);
    const Environment environment = currentEnvironment();
    PosixFileManager fileManager;
    if (!isLaunchAuthenticated(environment, fileManager)) {
        writeToStandardError("This component must be launched by Brindle.\n");
        return EX_USAGE;
    }
    // Requests name it in JSON, which only knows UTF-8.
    const std::string platform = repairedUtf8(platformName(argumentList));
    if (isWorkerRole(environment)) {
        runWorkerRole(platform, environment, fileManager);
    } else {
        runBackendRole(platform, environment, fileManager);
    }
    return EX_OK;
}

}  // namespace
}  // namespace brindle

int main(int argumentCount, char** arguments) {
    brindle::forbidCoreDumps();
    brindle::reserveStandardDescriptors();
    try {
        return brindle::run(argumentCount, arguments);
    } catch (const brindle::DataDirectoryTaken& error) {
        brindle::reportFatal(error);
        return EX_TEMPFAIL;
    } catch (const std::exception& error) {
        brindle::reportFatal(error);
        return EX_SOFTWARE;
    }
}

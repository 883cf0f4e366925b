#include "backend/WorkerSupervisor.h"

#include <errno.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>

#include "backend/EarlierWorker.h"
#include "text/Text.h"
#include "text/WithoutFailing.h"

namespace brindle {
namespace {

constexpr std::string_view nothing_to_launch_detail =
    "No managed WhatsApp worker configured. Install the protocol worker dependencies or provide an explicit worker executable.";
constexpr std::string_view stopped_detail = "Managed WhatsApp worker stopped.";

constexpr std::size_t relay_chunk_bytes = std::size_t{64} << 10U;

}  // namespace

void WorkerSupervisor::launchWorkerIfConfigured() {
    const auto configuration = resolveLaunchConfiguration(
        {.environment = uses_.environment,
         .platform = uses_.platform,
         .dataDirectoryPath = uses_.directory.path,
         .fileManager = uses_.fileManager,
         .bundle = MainBundle::current(),
         .report = [this](const std::string& sentence) { uses_.log.write(sentence); }});
    if (!configuration) {
        uses_.fileManager.removeIfPresent(uses_.directory.workerStatusFile);
        setWorkerState(std::nullopt, worker_state::not_configured, std::string(nothing_to_launch_detail),
                       false);
        uses_.publisher.writeRuntimeStatus();
        return;
    }
    endEarlierWorker(uses_.directory, uses_.fileManager, uses_.clock);
    removeWorkerFiles();
    const auto& description = configuration->launchDescription;
    if (configuration->requiresExecutableBit &&
        !uses_.fileManager.isExecutableFile(configuration->executableURL)) {
        return fail(description, worker_state::misconfigured,
                    "Configured worker executable is not executable: " + description);
    }
    start(*configuration);
}

void WorkerSupervisor::setWorkerState(std::optional<std::string> path, std::string_view state,
                                      std::string detail, bool running) {
    uses_.state.setWorkerState({.configuredExecutablePath = std::move(path),
                                .state = std::string(state),
                                .detail = std::move(detail),
                                .processRunning = running});
}

void WorkerSupervisor::fail(const std::string& description, std::string_view state,
                            const std::string& message) {
    uses_.fileManager.removeIfPresent(uses_.directory.workerStatusFile);
    setWorkerState(description, state, message, false);
    uses_.log.write(message);
    uses_.publisher.writeRuntimeStatus();
}

void WorkerSupervisor::removeWorkerFiles() {
    uses_.fileManager.removeIfPresent(uses_.directory.workerStatusFile);
    uses_.fileManager.removeIfPresent(uses_.directory.workerQRCodeFile);
    uses_.fileManager.removeIfPresent(uses_.directory.workerPIDFile);
}

void WorkerSupervisor::start(const ManagedWhatsAppWorkerLaunchConfiguration& configuration) {
    const auto& description = configuration.launchDescription;
    didRequestWorkerStop_ = false;
    setWorkerState(description, worker_state::launching,
                   "Launching managed WhatsApp worker at " + description + ".", false);
    std::shared_ptr<ChildProcess> process;
    try {
        process = std::make_shared<ChildProcess>(
            ChildProcess::Options{.executable = configuration.executableURL,
                                  .arguments = configuration.arguments,
                                  .environment = configuration.environment,
                                  // It is asked to end and may take its time.
                                  .leftRunning = ChildProcess::LeftRunning::staysAlive});
        setWorkerState(description, worker_state::launching,
                       "Managed WhatsApp worker launched at " + description + ".", true);
        uses_.publisher.writeRuntimeStatus();
        // Only now: a worker that ended at once is seen to end after it was seen to be launched. Its pipes
        // and its end descriptor keep what happened meanwhile.
        watch(process);
    } catch (const std::exception& error) {
        if (process) abandon(*process);
        fail(description, worker_state::launch_failed,
             "Failed to launch managed WhatsApp worker at " + description + ": " + descriptionOf(error));
    }
}

/// A worker that cannot be watched must not go on.
void WorkerSupervisor::abandon(const ChildProcess& process) {
    {
        const MutexHold hold(processLock_);
        outputWatch_.reset();
        errorWatch_.reset();
        endWatch_.reset();
        workerStdoutHandle_.reset();
        workerStderrHandle_.reset();
        workerProcess_.reset();
    }
    process.signal(SIGKILL);
    process.waitForEnd();
}

void WorkerSupervisor::watch(const std::shared_ptr<ChildProcess>& process) {
    const MutexHold hold(processLock_);
    workerProcess_ = process;
    workerStdoutHandle_ = std::make_shared<const Descriptor>(std::move(process->standardOutput()));
    workerStderrHandle_ = std::make_shared<const Descriptor>(std::move(process->standardError()));
    outputWatch_ = std::make_unique<ReadinessWatch>(
        uses_.queue, workerStdoutHandle_->get(), Readiness::readable,
        [this, handle = workerStdoutHandle_] { return relayAvailable(handle, Stream::output); });
    errorWatch_ = std::make_unique<ReadinessWatch>(
        uses_.queue, workerStderrHandle_->get(), Readiness::readable,
        [this, handle = workerStderrHandle_] { return relayAvailable(handle, Stream::error); });
    endWatch_ = std::make_unique<ReadinessWatch>(uses_.queue, process->endDescriptor(), Readiness::readable,
                                                 [this, process] {
                                                     workerEnded(*process);
                                                     return false;
                                                 });
}

bool WorkerSupervisor::relayAvailable(const Handle& handle, Stream stream) {
    std::array<char, relay_chunk_bytes> data{};
    const auto got = ::read(handle->get(), data.data(), data.size());
    if (got < 0) return errno == EAGAIN || errno == EINTR;
    // Text that is lost for want of memory must not keep what follows from being read.
    withoutFailing([&] { relay(std::string_view(data.data(), static_cast<std::size_t>(got)), stream); });
    if (got == 0 || !uses_.emitter.diagnostics().isCongested()) return got > 0;
    isRelayPaused_ = true;
    return false;
}

void WorkerSupervisor::resumeRelay() noexcept {
    if (!isRelayPaused_.exchange(false)) return;
    const MutexHold hold(processLock_);
    for (auto* watch : {outputWatch_.get(), errorWatch_.get()}) {
        if (watch != nullptr) withoutFailing([&] { watch->resume(); });
    }
}

/// What the pipe holds now. No more than that, because another process may have inherited it and write on.
void WorkerSupervisor::relayRemaining(const Handle& handle, Stream stream) {
    int pending = 0;
    if (!handle || ::ioctl(handle->get(), FIONREAD, &pending) != 0 || pending <= 0) return;
    std::string data(static_cast<std::size_t>(pending), '\0');
    const auto got = ::read(handle->get(), data.data(), data.size());
    if (got > 0) relay(std::string_view(data).substr(0, static_cast<std::size_t>(got)), stream);
}

void WorkerSupervisor::relay(std::string_view data, Stream stream) {
    const std::string_view prefix =
        stream == Stream::output ? "[ManagedWhatsAppWorker] " : "[ManagedWhatsAppWorker][stderr] ";
    const std::string text = repairedUtf8(data);
    std::string_view rest(text);
    while (!rest.empty()) {
        const auto lineEnd = rest.find('\n');
        const auto piece = trimmed(rest.substr(0, lineEnd));
        rest.remove_prefix(lineEnd == std::string_view::npos ? rest.size() : lineEnd + 1);
        if (!piece.empty()) uses_.emitter.relay(std::string(prefix).append(piece).append("\n"));
    }
}

void WorkerSupervisor::workerEnded(const ChildProcess& process) {
    Handle output;
    Handle error;
    {
        const MutexHold hold(processLock_);
        output = std::move(workerStdoutHandle_);
        error = std::move(workerStderrHandle_);
        outputWatch_.reset();
        errorWatch_.reset();
        // The last user of the process, which is reaped once this handler has returned.
        endWatch_.reset();
        workerProcess_.reset();
    }
    withoutFailing([&] { relayRemaining(output, Stream::output); });
    withoutFailing([&] { relayRemaining(error, Stream::error); });
    const auto end = process.waitForEnd();
    auto path = uses_.state.workerConfiguredExecutablePath();
    if (didRequestWorkerStop_) {
        const auto state = path ? worker_state::stopped : worker_state::not_configured;
        setWorkerState(std::move(path), state, std::string(stopped_detail), false);
    } else {
        const auto message =
            "Managed WhatsApp worker exited unexpectedly with status " + std::to_string(end.number) + ".";
        uses_.log.write(message);
        setWorkerState(std::move(path), worker_state::exited, message, false);
    }
    uses_.publisher.writeRuntimeStatus();
}

void WorkerSupervisor::stopWorker() noexcept {
    // Before the signal, so that the end it causes is never taken for an unexpected one.
    didRequestWorkerStop_ = true;
    {
        const MutexHold hold(processLock_);
        outputWatch_.reset();
        errorWatch_.reset();
        workerStdoutHandle_.reset();
        workerStderrHandle_.reset();
        if (workerProcess_) workerProcess_->signal(SIGTERM);
        workerProcess_.reset();
    }
    withoutFailing([this] {
        auto path = uses_.state.workerConfiguredExecutablePath();
        const bool configured = path.has_value();
        setWorkerState(std::move(path), configured ? worker_state::stopped : worker_state::not_configured,
                       std::string(configured ? stopped_detail : no_worker_detail), false);
    });
    uses_.fileManager.removeIfPresent(uses_.directory.workerStatusFile);
    uses_.fileManager.removeIfPresent(uses_.directory.workerPIDFile);
}

}  // namespace brindle

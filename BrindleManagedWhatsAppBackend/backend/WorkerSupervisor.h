#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "backend/BackendState.h"
#include "backend/DiagnosticLog.h"
#include "backend/ManagedWhatsAppWorkerLaunchConfiguration.h"
#include "backend/StatusPublisher.h"
#include "bridge/ManagedWhatsAppBackendEmitter.h"
#include "exchange/DataDirectory.h"
#include "system/ChildProcess.h"
#include "system/Clock.h"
#include "system/FileManager.h"
#include "system/Mutex.h"
#include "system/SerialQueue.h"

namespace brindle {

/// Runs at most one worker process: launches it once, relays what it prints, notices its end and stops it.
class WorkerSupervisor {
  public:
    /// What it works with; all of it outlives the supervisor.
    struct Uses {
        /// The launch is decided by these, and the worker inherits them.
        const std::string& platform;
        const Environment& environment;
        const DataDirectory& directory;
        FileManager& fileManager;
        const Clock& clock;
        BackendState& state;
        StatusPublisher& publisher;
        /// Takes what the worker prints.
        ManagedWhatsAppBackendEmitter& emitter;
        const DiagnosticLog& log;
        /// Here output and end of the worker are noticed. Joined before the supervisor goes.
        SerialQueue& queue;
    };

    explicit WorkerSupervisor(const Uses& uses) : uses_(uses) {}

    /// Starts the configured worker, if there is one. Failures are logged and published.
    void launchWorkerIfConfigured();
    /// Asks the worker to end, without waiting, and takes its files away. Callable from any thread,
    /// repeatedly.
    void stopWorker() noexcept;
    /// What the poller does at each beat: reads on what the worker prints. Else that rests while much of it
    /// waits to be read: a reader that is merely slow gets every line, and a worker whose words nobody reads
    /// never stands still for long.
    void resumeRelay() noexcept;

  private:
    /// The read end of one of the worker's pipes; closed when the last user lets go.
    using Handle = std::shared_ptr<const Descriptor>;
    enum class Stream { output, error };

    void setWorkerState(std::optional<std::string> path, std::string_view state, std::string detail,
                        bool running);
    void fail(const std::string& description, std::string_view state, const std::string& message);
    void removeWorkerFiles();
    void start(const ManagedWhatsAppWorkerLaunchConfiguration& configuration);
    void abandon(const ChildProcess& process);
    void watch(const std::shared_ptr<ChildProcess>& process);
    bool relayAvailable(const Handle& handle, Stream stream);
    void relayRemaining(const Handle& handle, Stream stream);
    void relay(std::string_view data, Stream stream);
    void workerEnded(const ChildProcess& process);

    Uses uses_;
    std::atomic<bool> didRequestWorkerStop_ = false;
    std::atomic<bool> isRelayPaused_ = false;

    // Guards the process and its handles; stop may come from the request thread while the queue sees the end.
    Mutex processLock_;
    std::shared_ptr<ChildProcess> workerProcess_ BRINDLE_GUARDED_BY(processLock_);
    Handle workerStdoutHandle_ BRINDLE_GUARDED_BY(processLock_);
    Handle workerStderrHandle_ BRINDLE_GUARDED_BY(processLock_);
    std::unique_ptr<ReadinessWatch> outputWatch_ BRINDLE_GUARDED_BY(processLock_);
    std::unique_ptr<ReadinessWatch> errorWatch_ BRINDLE_GUARDED_BY(processLock_);
    std::unique_ptr<ReadinessWatch> endWatch_ BRINDLE_GUARDED_BY(processLock_);
};

}  // namespace brindle

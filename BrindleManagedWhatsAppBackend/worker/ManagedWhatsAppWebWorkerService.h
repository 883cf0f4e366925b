#pragma once

#include <sys/types.h>

#include <exception>
#include <memory>
#include <string>

#include "exchange/DataDirectory.h"
#include "system/Clock.h"
#include "system/Environment.h"
#include "system/FileManager.h"
#include "worker/LoadRecovery.h"
#include "worker/PageSource.h"
#include "worker/QRCodeFile.h"
#include "worker/Task.h"
#include "worker/WebWorkerHost.h"
#include "worker/WorkerLog.h"
#include "worker/WorkerState.h"
#include "worker/WorkerStatusPublisher.h"

namespace brindle {

/// The worker role: keeps the messaging service's web client open in a hidden page, publishes whether an
/// account is linked, and hands every message of the watched chat to the backend.
///
/// Everything happens on the thread that runs the host's loop.
class ManagedWhatsAppWebWorkerService final : public WebPageDelegate {
  public:
    /// Creates the worker's part of the data directory. Throws FileSystemFailure when a directory cannot be
    /// created. `fileManager`, `clock` and `host` outlive the service; the service ends with the process
    /// `parentProcessIdentifier`, its parent.
    ManagedWhatsAppWebWorkerService(std::string platform, Environment environment, FileManager& fileManager,
                                    const Clock& clock, WebWorkerHost& host, pid_t parentProcessIdentifier);
    ~ManagedWhatsAppWebWorkerService() override;
    ManagedWhatsAppWebWorkerService(const ManagedWhatsAppWebWorkerService&) = delete;
    ManagedWhatsAppWebWorkerService& operator=(const ManagedWhatsAppWebWorkerService&) = delete;

    /// Opens the page and works until the host's loop ends, by a signal or because the parent is gone. Called
    /// once. Throws FileSystemFailure when the process identifier cannot be written, Failure when a requested
    /// fresh link cannot be prepared, and what the host throws.
    void start();
    /// Starts the timers, unless there is no page or they have been started before.
    void startPolling();
    /// Ends the worker when its parent is gone.
    void checkParent();

    void pageFinished() override;
    void navigationFailed(const std::string& error) override;
    void provisionalNavigationFailed(const std::string& error) override;
    void pageLost(const std::string& error) override;

    /// What the worker knows at the moment.
    const WorkerState& state() const { return state_; }
    /// When the page was last loaded, and how often it has been reloaded since.
    const LoadRecovery& recovery() const { return recovery_; }

  private:
    struct OpenPage;

    Task<> loadFirstPage();
    void removeOwnFiles() noexcept;

    std::string platform_;
    Environment environment_;
    FileManager& fileManager_;
    const Clock& clock_;
    WebWorkerHost& host_;
    pid_t parentProcessIdentifier_;
    DataDirectory directory_;
    WorkerState state_;
    LoadRecovery recovery_;
    WorkerLog log_;
    WorkerStatusPublisher publisher_;
    QRCodeFile qrCode_;
    PageSource source_;
    bool hasStartedPolling_ = false;
    std::exception_ptr firstLoadFailure_;
    /// From the start to the end. Last, since it works with everything above.
    std::unique_ptr<OpenPage> page_;
};

}  // namespace brindle

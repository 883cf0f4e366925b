#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "backend/BackendState.h"
#include "backend/DiagnosticLog.h"
#include "backend/Housekeeping.h"
#include "backend/InboundDelivery.h"
#include "backend/InboundWatch.h"
#include "backend/StatusPublisher.h"
#include "backend/WorkerSupervisor.h"
#include "bridge/BridgeChannel.h"
#include "exchange/DataDirectory.h"
#include "exchange/RecordIdentifiers.h"
#include "system/Clock.h"
#include "system/Environment.h"
#include "system/FileManager.h"
#include "system/SerialQueue.h"

namespace brindle {

/// The backend role: answers the parent's requests, keeps the data directory, supervises one worker and
/// delivers what the worker captures.
class ManagedWhatsAppBackendService {
  public:
    /// Creates the data directory, starts the two pollers and writes the first status. Throws
    /// FileSystemFailure when a directory cannot be created. `fileManager`, `clock` and `channel` outlive the
    /// service; `parentProcessIdentifier` is the process that started this one, recorded before anything took
    /// its time.
    ManagedWhatsAppBackendService(std::string platform, Environment environment, FileManager& fileManager,
                                  const Clock& clock, BridgeChannel& channel, pid_t parentProcessIdentifier);
    /// Cancels the timers and stops the worker.
    ~ManagedWhatsAppBackendService();
    ManagedWhatsAppBackendService(const ManagedWhatsAppBackendService&) = delete;
    ManagedWhatsAppBackendService& operator=(const ManagedWhatsAppBackendService&) = delete;

    /// Launches the worker, greets the parent and answers requests until the end of input. Called once.
    /// Throws when standard output cannot be written; the worker has been stopped then all the same.
    void run();
    /// Carries out one request. Throws when it has failed.
    void handle(BridgeEnvelope envelope);

  private:
    void startPollers();
    void startParentMonitor();
    void checkParent() noexcept;
    void greet();
    void answerRequest();
    void replyWithError(const std::string& message);
    void shutDown() noexcept;
    bool isForUs(const std::string& platform) const;

    void perform(const BridgeConnectRequest& request);
    void perform(const BridgeDisconnectRequest& request);
    void perform(const BridgeStartListeningRequest& request);
    void perform(const BridgeStopListeningRequest& request);
    void perform(BridgeSendMessageRequest&& request);
    void emitSelfTestEvent(const BridgeTestOnlyScope& scope);
    void writeOutboundRecord(BridgeOutboundMessage message);

    // First, so that it outlives everything that its handlers use; the destructor joins it before anything
    // goes.
    SerialQueue pollQueue_;
    std::string platform_;
    Environment environment_;
    FileManager& fileManager_;
    const Clock& clock_;
    BridgeChannel& channel_;
    pid_t parentProcessIdentifier_;
    BackendState state_;
    DataDirectory directory_;
    DiagnosticLog log_;
    StatusPublisher publisher_;
    InboundDelivery delivery_;
    InboundWatch inboundWatch_;
    /// For the thread that answers requests.
    RecordIdentifiers outboundIdentifiers_;
    WorkerSupervisor supervisor_;
    Housekeeping housekeeping_;
    std::unique_ptr<RepeatingTimer> inboundPoller_;
    std::unique_ptr<RepeatingTimer> statusPoller_;
    std::unique_ptr<RepeatingTimer> parentMonitor_;
};

}  // namespace brindle

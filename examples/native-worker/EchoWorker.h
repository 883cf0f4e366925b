#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "exchange/DataDirectory.h"
#include "exchange/ExchangeRecords.h"
#include "exchange/RecordIdentifiers.h"
#include "system/FileManager.h"
#include "text/Failure.h"

/// What the backend hands over in the environment.
struct WorkerSettings {
    brindle::DataDirectory directory;
    std::string platform;
    pid_t backend = -1;
};

/// A native worker without a messaging service behind it: it answers every message with its echo.
///
/// A real worker replaces `deliver` by its protocol and writes what the service sends into "inbound" the way
/// `writeEcho` does. Everything else is the contract of the data directory and can stay.
class EchoWorker {
  public:
    /// `mustEnd` is asked between two records: nobody waits for a worker that was asked to end, so that even
    /// a long round has to break off.
    EchoWorker(WorkerSettings settings, brindle::FileManager& fileManager, std::function<bool()> mustEnd);
    /// Takes this worker's own files away.
    ~EchoWorker();
    EchoWorker(const EchoWorker&) = delete;
    EchoWorker& operator=(const EchoWorker&) = delete;

    /// Writes the process id and the first status. Throws FileSystemFailure.
    void start();
    /// One round: reads what to watch, handles every outbound record and publishes a fresh status. Never
    /// fails: what goes wrong is reported once on standard error and tried again in the next round.
    void tick();

  private:
    void refreshControl();
    void handleOutbound();
    std::optional<brindle::ManagedWhatsAppOutboundRecord> readOutgoing(const std::string& fileName);
    void reject(const std::string& fileName, const brindle::Failure& failure);
    void deliver(const brindle::ManagedWhatsAppOutboundRecord& record);
    std::set<std::string> echoedAmong(const std::vector<std::string>& waiting);
    void writeEcho(const brindle::ManagedWhatsAppOutboundRecord& record);
    void fileAway(const std::string& fileName, const std::string& directory);
    void publishStatus();
    void removeOwnFiles() noexcept;

    WorkerSettings settings_;
    brindle::FileManager& fileManager_;
    std::function<bool()> mustEnd_;
    brindle::RecordIdentifiers identifiers_;
    /// The chat to watch; none when the control record names none.
    std::optional<brindle::ManagedWhatsAppWorkerControlScope> watched_;
    /// The messages that are echoed and not filed away yet; not known before the first one waits.
    std::optional<std::set<std::string>> echoed_;
    std::string lastProblems_;
};

#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "console/DirectoryEvents.h"
#include "console/HelperProcess.h"
#include "exchange/DataDirectory.h"
#include "exchange/ExchangeRecords.h"
#include "system/Environment.h"
#include "system/FileManager.h"
#include "system/Processes.h"

namespace brindle::console {

/// What a trial of a native worker needs.
struct WorkerTrialUses {
    const std::string& worker;
    const std::string& platform;
    const Environment& environment;
    /// A directory of the trial's own; its folders are there.
    const DataDirectory& directory;
    FileManager& fileManager;
    /// A signal ends the trial with a Failure.
    const TerminationSignals& signals;
    /// How long the worker has for each step.
    std::chrono::milliseconds patience;
    /// What the worker prints, line by line.
    std::function<void(std::string_view)> onOutput;
};

/// A native worker that runs as if a backend had started it. Killed with the object, together with what it
/// has started.
class WorkerTrial {
  public:
    enum class Parent {
        /// This process.
        console,
        /// A process of its own, which can be taken away.
        another,
    };

    /// Starts the worker. Throws Failure.
    WorkerTrial(WorkerTrialUses uses, Parent parent);

    /// Waits until the condition holds; false when it does not within the patience, or the worker has ended.
    bool waitFor(const std::function<bool()>& condition);
    /// The process that was started has ended.
    bool hasEnded() const { return process_.hasEnded(); }
    /// How it ended. Precondition: hasEnded().
    ProcessEnd end() { return process_.finish(); }
    pid_t processIdentifier() const { return process_.processIdentifier(); }
    void signal(int number) const { process_.signal(number); }
    /// Kills the process of its own that is the worker's parent. From then on waiting does not depend on what
    /// was started.
    void takeParentAway();

    /// The number in worker.pid, when it holds that and nothing else.
    std::optional<pid_t> recordedIdentifier() const;
    /// The worker's status; nothing while it cannot be read.
    std::optional<ManagedWhatsAppWorkerStatusRecord> status() const;
    /// Waits until the worker has written its status so many times more, as its heartbeats tell.
    bool waitForHeartbeats(int count);

    /// What happened in outbound and inbound so far.
    const std::vector<DirectoryEvent>& outboundEvents() const { return outboundEvents_; }
    const std::vector<DirectoryEvent>& inboundEvents() const { return inboundEvents_; }

  private:
    void pump();
    void takeEvents();

    WorkerTrialUses uses_;
    DirectoryEvents outbound_;
    DirectoryEvents inbound_;
    std::vector<DirectoryEvent> outboundEvents_;
    std::vector<DirectoryEvent> inboundEvents_;
    bool isParentGone_ = false;
    HelperProcess process_;
};

}  // namespace brindle::console

#pragma once

#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "exchange/ExchangeRecords.h"
#include "exchange/RecordIdentifiers.h"
#include "system/Clock.h"
#include "system/FileManager.h"
#include "worker/PagePayloads.h"
#include "worker/PageScriptRunner.h"
#include "worker/RecordBudget.h"
#include "worker/Task.h"
#include "worker/WebWorkerHost.h"
#include "worker/WorkerLog.h"
#include "worker/WorkerState.h"
#include "worker/WorkerStatusPublisher.h"

namespace brindle {

/// Keeps the watched chat open in the page and makes a record of every message that arrives in it.
class ChatCapture {
  public:
    /// Records go into `inboundDirectory`. Everything handed in outlives it.
    ChatCapture(PageScriptRunner& scripts, WebWorkerHost& host, FileManager& fileManager,
                std::string inboundDirectory, const Clock& clock, WorkerState& state,
                const WorkerStatusPublisher& publisher, const WorkerLog& log)
        : scripts_(scripts),
          host_(host),
          fileManager_(fileManager),
          inboundDirectory_(std::move(inboundDirectory)),
          identifiers_(fileManager_, inboundDirectory_),
          clock_(clock),
          budget_(clock),
          state_(state),
          publisher_(publisher),
          log_(log) {}

    /// One step: opens the watched chat when it is not the open one, else takes the messages that the page
    /// has captured since the last step. Does nothing while no chat is watched. Never fails outward.
    Task<> pollInboundMessages();
    /// Looks for the watched chat and tries to open it. Every failure is the answer that it was not found.
    Task<ManagedWhatsAppChatActivationPayload> probeChatActivation(std::string watchedTitle);
    /// Writes a record's document as its file into "inbound". Throws FileSystemFailure.
    void writeInboundRecord(std::string_view messageId, std::string_view document);

  private:
    /// What one step watches.
    struct WatchedChat {
        std::string title;
        std::optional<std::string> conversationID;
    };
    /// What its messages are delivered under.
    struct Conversation {
        std::string id;
        std::string title;
    };

    Task<> captureInboundMessages(WatchedChat watched);
    void publishFailure(const std::exception& error);
    void expectLateMessages(Task<> task);
    /// The page has given the messages away when its answer comes, however late: nobody else has them. What
    /// else it says is out of date by then.
    Task<> takeLateMessages(Answer<EvaluationOutcome> answer, WatchedChat watched);
    void publishNoMessages(const ManagedWhatsAppObservedInboundDrainPayload& drain,
                           const WatchedChat& watched);
    Task<> takeMessages(ManagedWhatsAppObservedInboundDrainPayload drain, WatchedChat watched);
    /// Waits until so long a record may be written, and says so. Throws Failure for what does not wait: what
    /// never will be, and what the page has made up.
    Task<> roomFor(std::size_t record_bytes, bool isMadeUp, Conversation conversation);
    ManagedWhatsAppWorkerInboundRecord recordFor(ManagedWhatsAppObservedInboundMessage message,
                                                 const Conversation& conversation);

    PageScriptRunner& scripts_;
    WebWorkerHost& host_;
    FileManager& fileManager_;
    std::string inboundDirectory_;
    RecordIdentifiers identifiers_;
    const Clock& clock_;
    RecordBudget budget_;
    /// Deliveries that wait for room. Meanwhile the page keeps what it captures, as much as it can.
    int waitingDeliveries_ = 0;
    WorkerState& state_;
    const WorkerStatusPublisher& publisher_;
    const WorkerLog& log_;
    /// Last, so that they are given up before anything they use is gone.
    std::vector<Task<>> lateCaptures_;
};

}  // namespace brindle

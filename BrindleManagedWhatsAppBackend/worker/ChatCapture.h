#pragma once

#include <optional>
#include <string>

#include "exchange/ExchangeRecords.h"
#include "worker/PagePayloads.h"
#include "worker/PageScriptRunner.h"
#include "worker/Task.h"
#include "worker/WorkerContext.h"
#include "worker/WorkerStatusPublisher.h"

namespace brindle {

/// Keeps the watched chat open in the page and makes a record of every message that arrives in it.
class ChatCapture {
  public:
    ChatCapture(const WorkerContext& context, const WorkerStatusPublisher& publisher,
                PageScriptRunner& scripts)
        : context_(context), publisher_(publisher), scripts_(scripts) {}

    /// One step: opens the watched chat when it is not the open one, else takes the messages that the page
    /// has captured since the last step. Does nothing while no chat is watched. Never fails outward.
    Task<> pollInboundMessages();
    /// Looks for the watched chat and tries to open it. Every failure is the answer that it was not found.
    Task<ManagedWhatsAppChatActivationPayload> probeChatActivation(std::string watchedTitle);
    /// Writes the record's file into "inbound". Throws FileSystemFailure.
    void writeInboundRecord(const ManagedWhatsAppWorkerInboundRecord& record);

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
    void publishNoMessages(const ManagedWhatsAppObservedInboundDrainPayload& drain,
                           const WatchedChat& watched);
    Task<> takeMessages(ManagedWhatsAppObservedInboundDrainPayload drain, WatchedChat watched);
    void takeMessage(const ManagedWhatsAppObservedInboundMessage& message, const Conversation& conversation);
    ManagedWhatsAppWorkerInboundRecord recordFor(const ManagedWhatsAppObservedInboundMessage& message,
                                                 const Conversation& conversation) const;

    const WorkerContext& context_;
    const WorkerStatusPublisher& publisher_;
    PageScriptRunner& scripts_;
};

}  // namespace brindle

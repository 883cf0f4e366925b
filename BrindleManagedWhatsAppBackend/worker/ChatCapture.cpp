#include "worker/ChatCapture.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

#include "exchange/DataDirectory.h"
#include "text/Failure.h"
#include "text/Text.h"
#include "worker/PageScripts.h"

namespace brindle {
namespace {

constexpr std::string_view default_sender = "WhatsApp Web Sender";
constexpr std::string_view unknown_title = "?";

/// The page keeps no more messages, and an end that is asked for meanwhile waits for them, so that none is
/// lost. What comes beyond them a page has made up, and must not hold up the worker's end.
constexpr std::size_t longest_queue_of_a_page = 200;

/// How soon it is looked again whether there is room for a record.
constexpr std::chrono::seconds room_interval{1};

std::string budgetText() {
    return std::to_string(RecordBudget::budget_bytes >> 20U) + " MiB";
}

std::string quoted(std::string_view title) {
    return "'" + shortened(title, longest_shown_title) + "'";
}

/// What to publish while the watched chat is not open; nothing when it is.
std::optional<std::string> activationDetail(const ManagedWhatsAppChatActivationPayload& payload,
                                            const std::string& watchedTitle) {
    const auto title = quoted(payload.matchedTitle.value_or(watchedTitle));
    if (payload.state == activation_state::activating)
        return "Opening chat " + title + " in the managed WhatsApp worker.";
    if (payload.state == activation_state::searching)
        return "Searching for chat " + title + " in WhatsApp Web.";
    if (payload.state == activation_state::wrong_active_chat) {
        return "Active chat is " + quoted(payload.activeChatTitle.value_or(std::string(unknown_title))) +
               ". Switching to " + title + ".";
    }
    if (payload.state == activation_state::no_active_chat) {
        return "Selecting chat " + title + " in the managed runtime session.";
    }
    if (payload.state == activation_state::chat_not_found)
        return "Chat " + title + " is not visible yet in WhatsApp Web.";
    return std::nullopt;
}

/// What is not is passed over.
bool isDeliverable(const ManagedWhatsAppObservedInboundMessage& message) {
    return message.text && message.fingerprint && !trimmed(*message.text).empty();
}

std::string senderIdentifier(std::string_view sender) {
    auto identifier = lowercased(sender);
    std::replace(identifier.begin(), identifier.end(), ' ', '-');
    return identifier;
}

/// Counts for as long as it lives.
class Counted {
  public:
    explicit Counted(int& count) : count_(count) { ++count_; }
    ~Counted() { --count_; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

  private:
    int& count_;
};

/// Lets everything else go first, and time pass.
Task<> pause(WebWorkerHost& host, std::chrono::milliseconds duration) {
    Answer<std::monostate> end;
    const auto deliver = end.callback();
    const std::unique_ptr<HostTimer> timer = host.once(duration, [deliver] { deliver(std::monostate()); });
    co_await end;
}

/// Lets everything else that is due go first.
Task<> nextTurn(WebWorkerHost& host) {
    return pause(host, std::chrono::milliseconds(0));
}

}  // namespace

Task<> ChatCapture::pollInboundMessages() {
    // Taken once: while the page is awaited, the backend may ask for another chat.
    const WatchedChat watched{.title = state_.currentWatchedTitle.value_or(""),
                              .conversationID = state_.currentConversationID};
    if (watched.title.empty() || waitingDeliveries_ > 0) co_return;
    const auto activation = co_await probeChatActivation(watched.title);
    if (const auto detail = activationDetail(activation, watched.title)) {
        publisher_.publish(worker_state::activating_chat, *detail);
        co_return;
    }
    try {
        co_await captureInboundMessages(watched);
    } catch (const std::exception& error) {
        publishFailure(error);
    }
}

void ChatCapture::publishFailure(const std::exception& error) {
    publisher_.publish(worker_state::error,
                       "Managed WhatsApp worker failed to poll inbound messages: " + descriptionOf(error));
}

Task<ManagedWhatsAppChatActivationPayload> ChatCapture::probeChatActivation(std::string watchedTitle) {
    try {
        auto script = scriptWithWatchedTitle(page_script::chat_activation, watchedTitle);
        const auto result = co_await scripts_.evaluateJavaScriptStringAsync(std::move(script));
        if (result) co_return decodedPageResult<ManagedWhatsAppChatActivationPayload>(*result);
    } catch (const std::exception& error) {
        log_.failure("Chat activation probe failed", error);
    }
    ManagedWhatsAppChatActivationPayload notFound;
    notFound.state = activation_state::chat_not_found;
    notFound.matchedTitle = std::move(watchedTitle);
    co_return notFound;
}

Task<> ChatCapture::captureInboundMessages(WatchedChat watched) {
    auto script = scriptWithWatchedTitle(page_script::inbound_capture, watched.title);
    std::optional<std::string> result;
    try {
        result = co_await scripts_.evaluateJavaScriptStringAsync(std::move(script));
    } catch (const LateAnswer& late) {
        expectLateMessages(takeLateMessages(late.answer(), std::move(watched)));
        throw;
    }
    if (!result) co_return;
    auto drain = decodedPageResult<ManagedWhatsAppObservedInboundDrainPayload>(*result);
    if (drain.state == capture_state::ok) {
        co_await takeMessages(std::move(drain), std::move(watched));
    } else {
        publishNoMessages(drain, watched);
    }
}

void ChatCapture::expectLateMessages(Task<> task) {
    std::erase_if(lateCaptures_, [](const Task<>& each) { return each.isDone(); });
    lateCaptures_.push_back(std::move(task));
    lateCaptures_.back().start();
}

Task<> ChatCapture::takeLateMessages(Answer<EvaluationOutcome> answer, WatchedChat watched) {
    try {
        const EvaluationOutcome outcome = co_await answer;
        if (!outcome.value) co_return;
        auto drain = decodedPageResult<ManagedWhatsAppObservedInboundDrainPayload>(*outcome.value);
        if (drain.state == capture_state::ok) co_await takeMessages(std::move(drain), std::move(watched));
    } catch (const std::exception& error) {
        publishFailure(error);
    }
}

void ChatCapture::publishNoMessages(const ManagedWhatsAppObservedInboundDrainPayload& drain,
                                    const WatchedChat& watched) {
    if (drain.state == capture_state::wrong_chat) {
        publisher_.publish(worker_state::wrong_chat,
                           "Active chat is " +
                               quoted(drain.activeChatTitle.value_or(std::string(unknown_title))) +
                               " while watching " + quoted(drain.watchedTitle.value_or(watched.title)) + ".");
    } else if (drain.state == capture_state::no_active_chat) {
        publisher_.publish(
            worker_state::no_active_chat,
            "WhatsApp Web is linked, but no active chat is available in the managed runtime session.");
    } else if (drain.state == capture_state::no_incoming_message) {
        publisher_.publish(worker_state::watching_chat,
                           "Watching chat " + quoted(drain.activeChatTitle.value_or(watched.title)) +
                               ". No incoming message yet. Visible inbound nodes: " +
                               std::to_string(drain.visibleInboundCount.value_or(0)) + ".");
    }
}

Task<> ChatCapture::takeMessages(ManagedWhatsAppObservedInboundDrainPayload drain, WatchedChat watched) {
    if (!drain.activeChatTitle || !drain.messages || drain.messages->empty()) co_return;
    const Conversation conversation{.id = watched.conversationID.value_or(*drain.activeChatTitle),
                                    .title = *drain.activeChatTitle};
    std::size_t taken = 0;
    for (auto& message : *drain.messages) {
        const bool isMadeUp = ++taken > longest_queue_of_a_page;
        if (isMadeUp) co_await nextTurn(host_);
        if (!isDeliverable(message)) continue;
        auto fingerprint = message.fingerprint;
        const auto record = recordFor(std::move(message), conversation);
        const auto document = encodedRecord(record, JsonStyle::pretty);
        co_await roomFor(document.size(), isMadeUp, conversation);
        state_.lastSeenMessageFingerprint = std::move(fingerprint);
        writeInboundRecord(record.messageId, document);
    }
    publisher_.publish(worker_state::watching_chat, "Watching chat " + quoted(*drain.activeChatTitle) +
                                                        " through the managed WhatsApp worker. Captured " +
                                                        std::to_string(drain.messages->size()) +
                                                        " inbound message(s).");
}

Task<> ChatCapture::roomFor(std::size_t record_bytes, bool isMadeUp, Conversation conversation) {
    if (budget_.take(record_bytes)) co_return;
    if (isMadeUp || !RecordBudget::canEverTake(record_bytes)) {
        throw Failure(
            "The page delivers more than the " + budgetText() +
            " a minute that are taken from it, and more than it could have kept; the rest was dropped.");
    }
    const Counted waiting(waitingDeliveries_);
    do {
        publisher_.publish(
            worker_state::watching_chat,
            "Watching chat " + quoted(conversation.title) + ". The page has delivered " + budgetText() +
                " of messages within a minute, which is all that is taken from it; the next ones "
                "wait.");
        co_await pause(host_, room_interval);
    } while (!budget_.take(record_bytes));
}

ManagedWhatsAppWorkerInboundRecord ChatCapture::recordFor(ManagedWhatsAppObservedInboundMessage message,
                                                          const Conversation& conversation) {
    auto sender = std::move(message.senderDisplayName).value_or(std::string(default_sender));
    ManagedWhatsAppWorkerInboundRecord record;
    record.messageId = identifiers_.next();
    record.conversationId = conversation.id;
    record.conversationTitle = conversation.title;
    record.senderId = senderIdentifier(sender);
    record.senderDisplayName = std::move(sender);
    record.text = std::move(*message.text);
    record.timestampISO8601 = iso8601(clock_.now());
    // The page does not tell groups apart reliably, so neither does the worker.
    record.isDirectMessage = true;
    record.rawReference = std::move(message.rawReference ? message.rawReference : message.fingerprint);
    return record;
}

void ChatCapture::writeInboundRecord(std::string_view messageId, std::string_view document) {
    const auto file = DataDirectory::recordFile(inboundDirectory_, messageId);
    // The page has given the message away: from here on this file is the only copy.
    fileManager_.writeFileAtomically(file, document, Durability::disk);
}

}  // namespace brindle

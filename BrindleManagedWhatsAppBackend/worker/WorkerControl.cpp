#include "worker/WorkerControl.h"

#include <utility>

#include "exchange/ExchangeWords.h"
#include "text/Text.h"

namespace brindle {
namespace {

std::optional<std::string> trimmedOption(const std::optional<std::string>& text) {
    if (!text) return std::nullopt;
    return std::string(trimmed(*text));
}

}  // namespace

void WorkerControl::refreshControl() noexcept {
    try {
        if (!takeRecord()) return;
    } catch (const std::exception& error) {
        context_.logError("Failed to decode worker control: " + descriptionOf(error));
        context_.state.hasReceivedControlSnapshot = false;
        context_.state.currentScopeKind.reset();
        forgetWatchedChat();
    }
    context_.hideWindow();
}

bool WorkerControl::takeRecord() {
    WorkerState& state = context_.state;
    if (!context_.fileManager.fileExists(context_.directory.workerControlFile)) {
        state.hasReceivedControlSnapshot = false;
        state.currentScopeKind.reset();
        forgetWatchedChat();
        return true;
    }
    const auto record = readRecord<ManagedWhatsAppWorkerControlRecord>(context_.fileManager,
                                                                       context_.directory.workerControlFile);
    if (record.platform != context_.platform) return false;
    state.hasReceivedControlSnapshot = true;
    if (record.activeScope) {
        takeScope(*record.activeScope);
    } else {
        state.currentScopeKind.reset();
        forgetWatchedChat();
        state.lastSeenMessageFingerprint.reset();
    }
    return true;
}

void WorkerControl::takeScope(const ManagedWhatsAppWorkerControlScope& scope) {
    WorkerState& state = context_.state;
    state.currentScopeKind = scope.kind;
    if (!scope_kind::isChat(scope.kind)) {
        forgetWatchedChat();
        state.lastSeenMessageFingerprint.reset();
        return;
    }
    auto title = trimmedOption(scope.title);
    auto conversationID = trimmedOption(scope.id);
    if (title != state.currentWatchedTitle || conversationID != state.currentConversationID) {
        state.lastSeenMessageFingerprint.reset();
    }
    state.currentWatchedTitle = std::move(title);
    state.currentConversationID = std::move(conversationID);
}

void WorkerControl::forgetWatchedChat() {
    context_.state.currentWatchedTitle.reset();
    context_.state.currentConversationID.reset();
}

}  // namespace brindle

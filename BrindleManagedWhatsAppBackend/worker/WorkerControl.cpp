#include "worker/WorkerControl.h"

#include <utility>

#include "exchange/ExchangeWords.h"
#include "text/Text.h"
#include "text/WithoutFailing.h"

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
        log_.failure("Failed to decode worker control", error);
        state_.hasReceivedControlSnapshot = false;
        state_.currentScopeKind.reset();
        forgetWatchedChat();
    }
    withoutFailing([this] { page_.orderOut(); });
}

bool WorkerControl::takeRecord() {
    if (!fileManager_.fileExists(controlFile_)) {
        state_.hasReceivedControlSnapshot = false;
        state_.currentScopeKind.reset();
        forgetWatchedChat();
        return true;
    }
    const auto record = readRecord<ManagedWhatsAppWorkerControlRecord>(fileManager_, controlFile_);
    if (record.platform != platform_) return false;
    state_.hasReceivedControlSnapshot = true;
    if (record.activeScope) {
        takeScope(*record.activeScope);
    } else {
        state_.currentScopeKind.reset();
        forgetWatchedChat();
        state_.lastSeenMessageFingerprint.reset();
    }
    return true;
}

void WorkerControl::takeScope(const ManagedWhatsAppWorkerControlScope& scope) {
    state_.currentScopeKind = scope.kind;
    if (!scope_kind::isChat(scope.kind)) {
        forgetWatchedChat();
        state_.lastSeenMessageFingerprint.reset();
        return;
    }
    auto title = trimmedOption(scope.title);
    auto conversationID = trimmedOption(scope.id);
    if (title != state_.currentWatchedTitle || conversationID != state_.currentConversationID) {
        state_.lastSeenMessageFingerprint.reset();
    }
    state_.currentWatchedTitle = std::move(title);
    state_.currentConversationID = std::move(conversationID);
}

void WorkerControl::forgetWatchedChat() {
    state_.currentWatchedTitle.reset();
    state_.currentConversationID.reset();
}

}  // namespace brindle

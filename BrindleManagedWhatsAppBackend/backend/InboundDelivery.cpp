#include "backend/InboundDelivery.h"

#include <algorithm>

#include "exchange/RecordFiles.h"
#include "system/Paths.h"
#include "text/Identifier.h"
#include "text/Text.h"
#include "text/WithoutFailing.h"

namespace brindle {
namespace {

struct ScopeFilter {
    const ManagedWhatsAppInboundRecord& record;

    bool operator()(const BridgeConversationScope& scope) const { return matches(scope.id, scope.title); }
    bool operator()(const BridgeChannelScope& scope) const { return matches(scope.id, scope.title); }
    bool operator()(const BridgeThreadScope& scope) const {
        return !scope.title || matches(scope.id, *scope.title);
    }
    bool operator()(const BridgeTestOnlyScope&) const { return false; }

    bool matches(const std::string& id, const std::string& title) const {
        return record.conversationId == id || record.conversationTitle == title;
    }
};

}  // namespace

bool belongsToScope(const ManagedWhatsAppInboundRecord& record, const BridgeScope& scope) {
    return std::visit(ScopeFilter{record}, scope);
}

void InboundDelivery::drainInboundDirectory() noexcept {
    const std::lock_guard hold(drainLock_);
    drain();
}

void InboundDelivery::drainUnlessUnderWay() noexcept {
    const std::unique_lock hold(drainLock_, std::try_to_lock);
    if (hold) drain();
}

void InboundDelivery::drain() noexcept {
    withoutFailing([this] { deliverAll(); },
                   [this](const std::exception& error) {
                       uses_.log.write("failed to drain inbound directory: " + descriptionOf(error));
                   });
}

void InboundDelivery::deliverAll() {
    const auto scope = uses_.state.activeScope();
    if (!scope || !uses_.state.isConnected()) return;
    if (std::holds_alternative<BridgeTestOnlyScope>(*scope)) return;
    try {
        for (const auto& name : recordNames()) {
            // What is not delivered by the end of the process stays for the next backend.
            if (isStopped_ || uses_.departureWatch.isDepartureOver()) return;
            deliverOrReject(name, *scope);
        }
    } catch (const OutputAbandoned&) {
        // As above.
    }
}

std::vector<std::string> InboundDelivery::recordNames() {
    auto names = uses_.fileManager.visibleEntries(uses_.directory.inbound);
    std::erase_if(names, [](const std::string& name) { return !isRecordFileName(name); });
    std::sort(names.begin(), names.end());
    return names;
}

void InboundDelivery::deliverOrReject(const std::string& name, const BridgeScope& scope) {
    try {
        deliver(name, scope);
    } catch (const OutputAbandoned&) {
        throw;
    } catch (const std::exception& error) {
        withoutFailing(
            [&] { uses_.log.write("rejected inbound event at " + name + ": " + descriptionOf(error)); });
        fileAway(name, uses_.directory.rejected);
    }
}

void InboundDelivery::deliver(const std::string& name, const BridgeScope& scope) {
    auto record = readRecord<ManagedWhatsAppInboundRecord>(uses_.fileManager,
                                                           joinedPath(uses_.directory.inbound, name));
    if (!belongsToScope(record, scope)) return;
    // Emitting comes first: should the process end in between, the message comes twice rather than never.
    uses_.emitter.emit(BridgeInboundEvent{eventFor(std::move(record), name)});
    fileAway(name, uses_.directory.processed);
}

BridgeInboundMessageEvent InboundDelivery::eventFor(ManagedWhatsAppInboundRecord record,
                                                    const std::string& name) {
    BridgeInboundMessageEvent event;
    event.messageId = record.messageId ? std::move(*record.messageId) : randomIdentifier();
    event.conversationId = std::move(record.conversationId);
    event.conversationTitle = std::move(record.conversationTitle);
    event.senderId = std::move(record.senderId);
    event.senderDisplayName = std::move(record.senderDisplayName);
    event.text = std::move(record.text);
    event.timestampISO8601 =
        record.timestampISO8601 ? std::move(*record.timestampISO8601) : iso8601(uses_.clock.now());
    event.isDirectMessage = record.isDirectMessage;
    event.rawReference = std::move(record.rawReference).value_or(name);
    return event;
}

void InboundDelivery::fileAway(const std::string& name, const std::string& directory) {
    moveRecordFile(uses_.fileManager, name, uses_.directory.inbound, directory);
}

}  // namespace brindle

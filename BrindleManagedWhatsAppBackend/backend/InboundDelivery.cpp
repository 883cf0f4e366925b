#include "backend/InboundDelivery.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "exchange/RecordFiles.h"
#include "system/Paths.h"
#include "text/Identifier.h"
#include "text/Text.h"
#include "text/WithoutFailing.h"

namespace brindle {
namespace {

/// How many beats of the poller, which make about a second, a parent that goes has to show it.
constexpr int looks_for_departure = 2;
/// How long a process that ends takes between closing one of its descriptors and another, at most.
constexpr std::chrono::milliseconds reader_departure_patience{100};

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
    const MutexHold hold(drainLock_);
    // What another scope has left waiting is listed anew.
    waiting_.clear();
    drain();
}

void InboundDelivery::drainUnlessUnderWay() noexcept {
    if (!drainLock_.try_lock()) return;
    const MutexHold hold(drainLock_, std::adopt_lock);
    if (failed_) --failed_->looksLeft;
    drain();
}

void InboundDelivery::completeWhatIsUnderWay() noexcept {
    const MutexHold hold(drainLock_);
    try {
        while (isUnderWay() && !isStopped_ && uses_.departureWatch.isWritableInTime(output().descriptor()))
            drain();
    } catch (...) {
        // Without the memory to wait, the rest stays for the next backend.
    }
}

void InboundDelivery::drain() noexcept {
    try {
        deliverWhatFits();
    } catch (const std::exception& error) {
        withoutFailing(
            [&] { uses_.log.write("failed to drain inbound directory: " + descriptionOf(error)); });
    }
}

void InboundDelivery::deliverWhatFits() {
    auto names = std::exchange(waiting_, {});
    if (failed_) return decideOnFailure();
    try {
        if (isBegunLineWritten() && deliver(names)) return;
    } catch (const OutputAbandoned&) {
        // What is not delivered by the end of the process stays for the next backend.
        return;
    }
    waiting_ = std::move(names);
    waitForOutput();
}

/// Delivers those of the names that the parent takes, the last one first; false when it is to be waited for.
bool InboundDelivery::deliver(std::vector<std::string>& names) {
    const auto scope = scopeToDeliver();
    if (!scope || failed_) return true;
    if (names.empty()) {
        names = waitingRecords(uses_.fileManager, uses_.directory.inbound);
        std::reverse(names.begin(), names.end());
    }
    // What is left by the end of the process stays for the next backend.
    while (!names.empty() && !failed_ && !isStopped_ && !uses_.departureWatch.isDepartureOver()) {
        if (!uses_.emitter.takesLine() || !begin(names.back(), *scope)) return false;
        names.pop_back();
        if (!isBegunLineWritten()) return false;
    }
    return true;
}

std::optional<BridgeScope> InboundDelivery::scopeToDeliver() const {
    auto scope = uses_.state.activeScope();
    if (!scope || !uses_.state.isConnected() || std::holds_alternative<BridgeTestOnlyScope>(*scope))
        return std::nullopt;
    return scope;
}

/// Begins to deliver a record that belongs to the scope; false when somebody else is writing meanwhile.
bool InboundDelivery::begin(const std::string& name, const BridgeScope& scope) {
    try {
        auto record = readRecord<ManagedWhatsAppInboundRecord>(uses_.fileManager,
                                                               joinedPath(uses_.directory.inbound, name));
        if (!belongsToScope(record, scope)) return true;
        const auto end = uses_.emitter.begin(BridgeInboundEvent{eventFor(std::move(record), name)});
        if (!end) return false;
        begun_ = {.name = name, .end = *end};
    } catch (const OutputAbandoned&) {
        throw;
    } catch (const OutputFailure& failure) {
        holdUp(name, failure);
    } catch (const std::exception& error) {
        reject(name, descriptionOf(error));
    }
    return true;
}

/// Goes on with the line that has begun, if there is one; once it is written, its record is filed away.
/// Writing comes first: should the process end in between, the message comes twice rather than never.
bool InboundDelivery::isBegunLineWritten() {
    if (!begun_) return true;
    try {
        if (!uses_.emitter.isWrittenUpTo(begun_->end)) return false;
    } catch (const OutputFailure& failure) {
        holdUp(std::exchange(begun_, std::nullopt)->name, failure);
        return true;
    }
    fileAsDelivered(*std::exchange(begun_, std::nullopt));
    return true;
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

void InboundDelivery::fileAsDelivered(const Begun& line) {
    std::string filedAs;
    try {
        filedAs =
            moveRecordFile(uses_.fileManager, line.name, uses_.directory.inbound, uses_.directory.processed);
    } catch (const std::exception& error) {
        return reject(line.name, descriptionOf(error));
    }
    forgetWhatWasRead();
    delivered_.push_back({.name = line.name, .filedAs = std::move(filedAs), .end = line.end});
}

void InboundDelivery::reject(const std::string& name, const std::string& reason) {
    withoutFailing([&] { uses_.log.write("rejected inbound event at " + name + ": " + reason); });
    moveRecordFile(uses_.fileManager, name, uses_.directory.inbound, uses_.directory.rejected);
}

void InboundDelivery::waitForOutput() {
    if (outputWatch_) return outputWatch_->resume();
    outputWatch_ =
        std::make_unique<ReadinessWatch>(uses_.queue, output().descriptor(), Readiness::writable, [this] {
            goOn();
            return false;
        });
}

/// On the queue, when the parent takes more.
void InboundDelivery::goOn() noexcept {
    const MutexHold hold(drainLock_);
    drain();
}

/// Nothing is rejected because the parent goes: it would be lost to the next one. A parent that only has
/// closed its end of the output is another matter.
void InboundDelivery::holdUp(const std::string& name, const OutputFailure& failure) {
    failed_ = {.name = name, .reason = descriptionOf(failure), .looksLeft = looks_for_departure};
    decideOnFailure();
}

void InboundDelivery::decideOnFailure() {
    if (isOver_) return;
    if (uses_.departureWatch.isDeparting()) {
        isOver_ = true;
        putBackDelivered();
    } else if (failed_->looksLeft <= 0) {
        isOver_ = true;
        reject(failed_->name, failed_->reason);
    }
}

void InboundDelivery::putBackWhatWasNotRead() noexcept {
    const MutexHold hold(drainLock_);
    isStopped_ = true;
    forgetWhatWasRead();
    if (!delivered_.empty() && output().hasLostReader(reader_departure_patience)) putBackDelivered();
}

void InboundDelivery::forgetWhatWasRead() noexcept {
    const auto taken = output().taken();
    while (!delivered_.empty() && delivered_.front().end <= taken) delivered_.pop_front();
}

void InboundDelivery::putBackDelivered() noexcept {
    forgetWhatWasRead();
    for (const auto& record : delivered_) {
        withoutFailing(
            [&] {
                putRecordFileBack(uses_.fileManager, joinedPath(uses_.directory.processed, record.filedAs),
                                  uses_.directory.inbound, record.name);
            },
            [&](const std::exception& error) {
                uses_.log.write("failed to put back unread inbound event at " + record.name + ": " +
                                descriptionOf(error));
            });
    }
    delivered_.clear();
}

}  // namespace brindle

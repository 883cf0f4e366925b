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

/// Asking what the parent has read costs a call for the system, so it is not asked after every message.
constexpr std::size_t deliveries_between_looks = 64;

/// How long other work of the queue, such as publishing the status, waits for a long delivery at most.
constexpr std::chrono::milliseconds longest_turn{50};

/// A look at more records than that takes milliseconds: too long for each of many messages that come one by
/// one, however little every look finds.
constexpr std::size_t most_left_for_news = 1000;

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
    pass_.reset();
    memory_.lookAtEverything();
    drain(never);
}

void InboundDelivery::drainUnlessUnderWay() noexcept {
    if (!drainLock_.try_lock()) return;
    const MutexHold hold(drainLock_, std::adopt_lock);
    if (failed_) --failed_->looksLeft;
    drain(endOfTurn());
}

void InboundDelivery::drainWhatHasChanged() noexcept {
    // Set first: a drain that is under way leaves it to the next beat.
    lookAtEverythingNext();
    if (!drainLock_.try_lock()) return;
    const MutexHold hold(drainLock_, std::adopt_lock);
    if (memory_.leftInPlace() <= most_left_for_news) drain(endOfTurn());
}

void InboundDelivery::completeWhatIsUnderWay() noexcept {
    const MutexHold hold(drainLock_);
    try {
        while (isUnderWay() && !isStopped_ && uses_.departureWatch.isWritableInTime(output().descriptor()))
            drain(never);
    } catch (...) {
        // Without the memory to wait, the rest stays for the next backend.
    }
}

/// On the queue, when the parent takes more or others have had their turn.
void InboundDelivery::goOn() noexcept {
    // Whoever drains on another thread does what there is to do.
    if (!drainLock_.try_lock()) return;
    const MutexHold hold(drainLock_, std::adopt_lock);
    if (isUnderWay()) drain(endOfTurn());
}

void InboundDelivery::drain(TurnEnd turnEnd) noexcept {
    try {
        deliverWhatFits(turnEnd);
    } catch (const std::exception& error) {
        withoutFailing(
            [&] { uses_.log.write("failed to drain inbound directory: " + descriptionOf(error)); });
    }
}

void InboundDelivery::deliverWhatFits(TurnEnd turnEnd) {
    auto pass = std::exchange(pass_, std::nullopt);
    if (failed_) return decideOnFailure();
    auto outcome = Outcome::isHeldUp;
    try {
        if (isBegunLineWritten()) outcome = deliver(pass, turnEnd);
    } catch (const OutputAbandoned&) {
        // What is not delivered by the end of the process stays for the next backend.
        return;
    } catch (const std::exception&) {
        if (pass) pass->look.miss();
        endPass(pass);
        throw;
    }
    if (outcome == Outcome::isDone) return endPass(pass);
    pass_ = std::move(pass);
    if (outcome == Outcome::isHeldUp) return waitForOutput();
    takeAnotherTurn();
}

/// Behind what else is due. One turn that waits on the queue is enough, however many beats and news come
/// meanwhile: each would keep the other work waiting for its own length.
void InboundDelivery::takeAnotherTurn() {
    if (isTurnDue_.exchange(true)) return;
    try {
        uses_.queue.post([this] {
            isTurnDue_ = false;
            goOn();
        });
    } catch (...) {
        isTurnDue_ = false;
        throw;
    }
}

/// Delivers those records of the pass, or of a new one, that the parent takes, in their order.
InboundDelivery::Outcome InboundDelivery::deliver(std::optional<Pass>& pass, TurnEnd turnEnd) {
    const auto scope = scopeToDeliver();
    if (!scope || !memory_.isOf(*scope)) {
        pass.reset();
        memory_.forget();
    }
    if (!scope || failed_) return Outcome::isDone;
    if (pass && pass->records.empty()) endPass(pass);
    if (!pass) pass = beginPass(*scope);
    if (!pass) return Outcome::isDone;
    if (!pass->records.empty() && !uses_.emitter.takesLine()) return Outcome::isHeldUp;
    while (!pass->records.empty() && mayGoOn()) {
        if (uses_.clock.sinceBoot() >= turnEnd) return Outcome::isLeftForLater;
        if (!begin(*pass, *scope)) return Outcome::isHeldUp;
        pass->records.pop_back();
        if (!isBegunLineWritten()) return Outcome::isHeldUp;
    }
    return Outcome::isDone;
}

/// What is left by the end of the process stays for the next backend.
bool InboundDelivery::mayGoOn() const {
    return !failed_ && !isStopped_ && !uses_.departureWatch.isDepartureOver();
}

/// Nothing when there is nothing new to look at.
std::optional<InboundDelivery::Pass> InboundDelivery::beginPass(const BridgeScope& scope) {
    std::shared_ptr<Directory> inbound = uses_.fileManager.openDirectory(uses_.directory.inbound);
    if (hasChanged_.exchange(false)) memory_.lookAtEverything();
    auto look = memory_.beginPass(scope, *inbound);
    if (!look) return std::nullopt;
    auto records = waitingRecords(*inbound);
    std::reverse(records.begin(), records.end());
    return Pass{.inbound = std::move(inbound), .records = std::move(records), .look = std::move(*look)};
}

void InboundDelivery::endPass(std::optional<Pass>& pass) noexcept {
    if (!pass) return;
    if (!pass->records.empty()) pass->look.miss();
    memory_.endPass(std::move(pass->look));
    pass.reset();
}

InboundDelivery::TurnEnd InboundDelivery::endOfTurn() const {
    return uses_.clock.sinceBoot() + longest_turn;
}

std::optional<BridgeScope> InboundDelivery::scopeToDeliver() const {
    auto scope = uses_.state.activeScope();
    if (!scope || !uses_.state.isConnected() || std::holds_alternative<BridgeTestOnlyScope>(*scope))
        return std::nullopt;
    return scope;
}

/// Begins to deliver the pass's next record when it belongs to the scope; false when the parent takes nothing
/// or somebody else is writing meanwhile.
bool InboundDelivery::begin(Pass& pass, const BridgeScope& scope) {
    const auto& entry = pass.records.back();
    const auto& name = entry.name;
    if (memory_.isKnown(pass.look, *pass.inbound, entry)) return true;
    try {
        auto [record, attributes] = reader_.read<ManagedWhatsAppInboundRecord>(*pass.inbound, entry);
        if (!belongsToScope(record, scope)) {
            WaitingMemory::leave(pass.look, entry, attributes);
            return true;
        }
        Begun line{.inbound = pass.inbound, .name = name, .end = 0};
        const auto end = uses_.emitter.begin(BridgeInboundEvent{eventFor(std::move(record), name)});
        if (!end) return false;
        line.end = *end;
        begun_ = std::move(line);
    } catch (const OutputAbandoned&) {
        throw;
    } catch (const OutputFailure& failure) {
        holdUp(pass.inbound, name, failure);
    } catch (const std::exception& error) {
        pass.look.miss();
        reject(*pass.inbound, name, descriptionOf(error));
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
        const auto line = *std::exchange(begun_, std::nullopt);
        holdUp(line.inbound, line.name, failure);
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
        filedAs = moveRecordFile(*line.inbound, line.name, uses_.directory.processed);
    } catch (const std::exception& error) {
        return reject(*line.inbound, line.name, descriptionOf(error));
    }
    if (delivered_.size() % deliveries_between_looks == 0) forgetWhatWasRead();
    delivered_.push_back({.name = line.name, .filedAs = std::move(filedAs), .end = line.end});
}

/// From the directory where it was looked at: under its name there may be a record that nobody has read by
/// now where the path leads.
void InboundDelivery::reject(Directory& inbound, const std::string& name, const std::string& reason) {
    withoutFailing([&] { uses_.log.write("rejected inbound event at " + name + ": " + reason); });
    moveRecordFile(inbound, name, uses_.directory.rejected);
}

void InboundDelivery::waitForOutput() {
    if (outputWatch_) return outputWatch_->resume();
    outputWatch_ =
        std::make_unique<ReadinessWatch>(uses_.queue, output().descriptor(), Readiness::writable, [this] {
            goOn();
            return false;
        });
}

/// Nothing is rejected because the parent goes: it would be lost to the next one. A parent that only has
/// closed its end of the output is another matter.
void InboundDelivery::holdUp(const std::shared_ptr<Directory>& inbound, const std::string& name,
                             const OutputFailure& failure) {
    failed_ = {
        .inbound = inbound, .name = name, .reason = descriptionOf(failure), .looksLeft = looks_for_departure};
    decideOnFailure();
}

void InboundDelivery::decideOnFailure() {
    if (isOver_) return;
    if (uses_.departureWatch.isDeparting()) {
        isOver_ = true;
        putBackDelivered();
    } else if (failed_->looksLeft <= 0) {
        isOver_ = true;
        reject(*failed_->inbound, failed_->name, failed_->reason);
    }
}

void InboundDelivery::putBackWhatWasNotRead() noexcept {
    const MutexHold hold(drainLock_);
    isStopped_ = true;
    forgetWhatWasRead();
    if (!delivered_.empty() && output().hasLostReader(reader_departure_patience)) putBackDelivered();
}

bool InboundDelivery::mayGoBack(const std::string& path) noexcept {
    if (!drainLock_.try_lock()) return true;
    const MutexHold hold(drainLock_, std::adopt_lock);
    forgetWhatWasRead();
    return std::any_of(delivered_.begin(), delivered_.end(), [&](const Delivered& record) {
        return path.ends_with(record.filedAs) &&
               path == joinedPath(uses_.directory.processed, record.filedAs);
    });
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

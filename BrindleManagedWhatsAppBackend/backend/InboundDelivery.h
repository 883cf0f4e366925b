#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backend/BackendState.h"
#include "backend/DiagnosticLog.h"
#include "backend/WaitingMemory.h"
#include "bridge/ManagedWhatsAppBackendEmitter.h"
#include "exchange/DataDirectory.h"
#include "exchange/ExchangeRecords.h"
#include "exchange/RecordReader.h"
#include "system/Clock.h"
#include "system/FileManager.h"
#include "system/Mutex.h"
#include "system/OutputStream.h"
#include "system/SerialQueue.h"

namespace brindle {

/// True when a message belongs to what is listened to. Texts compare exactly.
bool belongsToScope(const ManagedWhatsAppInboundRecord& record, const BridgeScope& scope);

/// Delivers the records that a worker leaves in "inbound" to the parent. Callable from any thread; waits for
/// the parent in one operation alone.
///
/// A record is begun only while the parent takes more, and filed away once its whole line is written. When
/// the parent takes no more, the delivery goes on from the queue as soon as it does again. There it works in
/// turns, between which the queue does what else is due.
class InboundDelivery {
  public:
    /// What it works with; all of it outlives the delivery.
    struct Uses {
        const DataDirectory& directory;
        FileManager& fileManager;
        const Clock& clock;
        const BackendState& state;
        ManagedWhatsAppBackendEmitter& emitter;
        DepartureWatch& departureWatch;
        const DiagnosticLog& log;
        /// Here it goes on. Joined before the delivery goes.
        SerialQueue& queue;
    };

    explicit InboundDelivery(const Uses& uses) : uses_(uses), memory_(uses.clock) {}

    /// Delivers the records that belong to the active scope, in order of file names, and files them away.
    /// Does nothing while disconnected, without a scope or during a self-test. Failures are logged. A drain
    /// that is under way on another thread is waited for.
    void drainInboundDirectory() noexcept;
    /// What the poller does at each beat, on the queue: the same, but nothing when a drain is under way on
    /// another thread, and no look at what waits when nothing has changed since the last one.
    void drainUnlessUnderWay() noexcept;
    /// For whoever is told that a record has come or was written to, on the queue: what the poller does, with
    /// a look at everything that waits. Where that is very much, it is left to the next beat.
    void drainWhatHasChanged() noexcept;
    /// The next look that is due is one at everything that waits.
    void lookAtEverythingNext() noexcept { hasChanged_ = true; }
    /// Whether there is anything that a record could belong to.
    bool isListening() const { return scopeToDeliver().has_value(); }
    /// For the end of the input: goes on with what was begun while the parent reads, waiting for it.
    void completeWhatIsUnderWay() noexcept;
    /// A drain that is under way ends behind the file it is at; later ones deliver nothing.
    void stop() noexcept { isStopped_ = true; }
    /// Whether the record that was filed away under that path may still go back to "inbound", because the
    /// parent has not read it. Waits for nobody: while a drain is under way on another thread each may.
    bool mayGoBack(const std::string& path) noexcept;
    /// For the end of the process: when the parent has stopped reading for good, what it has not read goes
    /// back to "inbound", for the next backend. Nothing is delivered afterwards.
    void putBackWhatWasNotRead() noexcept;

  private:
    /// One look at "inbound".
    struct Pass {
        /// Lives as long as a record of it has begun.
        std::shared_ptr<Directory> inbound;
        /// Those still to be looked at, the first one last.
        std::vector<DirectoryEntry> records;
        WaitingMemory::Pass look;
    };
    /// How a delivery has ended.
    enum class Outcome { isDone, isHeldUp, isLeftForLater };
    /// Until when a delivery may go on, by the clock's time since boot.
    using TurnEnd = std::chrono::nanoseconds;
    static constexpr TurnEnd never = TurnEnd::max();
    /// A record whose line has begun.
    struct Begun {
        std::shared_ptr<Directory> inbound;
        std::string name;
        /// Where its line ends in the output.
        std::uint64_t end;
    };
    /// A record whose line is written, though perhaps not read.
    struct Delivered {
        std::string name;
        /// Its name in "processed".
        std::string filedAs;
        std::uint64_t end;
    };
    /// The message at which the output has failed.
    struct Failed {
        std::shared_ptr<Directory> inbound;
        std::string name;
        std::string reason;
        /// At so many more beats of the poller a sign is looked for that the parent is going.
        int looksLeft;
    };

    const OutputStream& output() const { return uses_.emitter.output(); }
    bool isUnderWay() const BRINDLE_REQUIRES(drainLock_) { return begun_ || pass_; }
    void drain(TurnEnd turnEnd) noexcept BRINDLE_REQUIRES(drainLock_);
    void goOn() noexcept;
    void takeAnotherTurn();
    TurnEnd endOfTurn() const;
    void deliverWhatFits(TurnEnd turnEnd) BRINDLE_REQUIRES(drainLock_);
    Outcome deliver(std::optional<Pass>& pass, TurnEnd turnEnd) BRINDLE_REQUIRES(drainLock_);
    std::optional<Pass> beginPass(const BridgeScope& scope) BRINDLE_REQUIRES(drainLock_);
    void endPass(std::optional<Pass>& pass) noexcept BRINDLE_REQUIRES(drainLock_);
    bool mayGoOn() const BRINDLE_REQUIRES(drainLock_);
    std::optional<BridgeScope> scopeToDeliver() const;
    bool begin(Pass& pass, const BridgeScope& scope) BRINDLE_REQUIRES(drainLock_);
    bool isBegunLineWritten() BRINDLE_REQUIRES(drainLock_);
    BridgeInboundMessageEvent eventFor(ManagedWhatsAppInboundRecord record, const std::string& name);
    void fileAsDelivered(const Begun& line) BRINDLE_REQUIRES(drainLock_);
    void reject(Directory& inbound, const std::string& name, const std::string& reason);
    void waitForOutput() BRINDLE_REQUIRES(drainLock_);
    void holdUp(const std::shared_ptr<Directory>& inbound, const std::string& name,
                const OutputFailure& failure) BRINDLE_REQUIRES(drainLock_);
    void decideOnFailure() BRINDLE_REQUIRES(drainLock_);
    void forgetWhatWasRead() noexcept BRINDLE_REQUIRES(drainLock_);
    void putBackDelivered() noexcept BRINDLE_REQUIRES(drainLock_);

    Uses uses_;
    /// Two drains over one backlog would overtake each other and deliver messages out of order or twice.
    Mutex drainLock_;
    /// What goes on when the parent takes more.
    std::optional<Pass> pass_ BRINDLE_GUARDED_BY(drainLock_);
    RecordReader reader_ BRINDLE_GUARDED_BY(drainLock_);
    WaitingMemory memory_ BRINDLE_GUARDED_BY(drainLock_);
    /// Something has come or was written to that the next pass must look at.
    std::atomic<bool> hasChanged_ = false;
    /// A turn waits on the queue.
    std::atomic<bool> isTurnDue_ = false;
    std::optional<Begun> begun_ BRINDLE_GUARDED_BY(drainLock_);
    /// Those that the reader may not have got yet, in their order.
    std::deque<Delivered> delivered_ BRINDLE_GUARDED_BY(drainLock_);
    std::optional<Failed> failed_ BRINDLE_GUARDED_BY(drainLock_);
    /// What a failed output means for its message is decided.
    bool isOver_ BRINDLE_GUARDED_BY(drainLock_) = false;
    std::atomic<bool> isStopped_ = false;
    std::unique_ptr<ReadinessWatch> outputWatch_ BRINDLE_GUARDED_BY(drainLock_);
};

}  // namespace brindle

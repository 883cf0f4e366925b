#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backend/BackendState.h"
#include "backend/DiagnosticLog.h"
#include "bridge/ManagedWhatsAppBackendEmitter.h"
#include "exchange/DataDirectory.h"
#include "exchange/ExchangeRecords.h"
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
/// the parent takes no more, the delivery goes on from the queue as soon as it does again.
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

    explicit InboundDelivery(const Uses& uses) : uses_(uses) {}

    /// Delivers the records that belong to the active scope, in order of file names, and files them away.
    /// Does nothing while disconnected, without a scope or during a self-test. Failures are logged. A drain
    /// that is under way on another thread is waited for.
    void drainInboundDirectory() noexcept;
    /// What the poller does at each beat: the same, but nothing when a drain is under way on another thread.
    void drainUnlessUnderWay() noexcept;
    /// For the end of the input: goes on with what was begun while the parent reads, waiting for it.
    void completeWhatIsUnderWay() noexcept;
    /// A drain that is under way ends behind the file it is at; later ones deliver nothing.
    void stop() noexcept { isStopped_ = true; }
    /// For the end of the process: when the parent has stopped reading for good, what it has not read goes
    /// back to "inbound", for the next backend. Nothing is delivered afterwards.
    void putBackWhatWasNotRead() noexcept;

  private:
    /// A record whose line has begun.
    struct Begun {
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
        std::string name;
        std::string reason;
        /// At so many more beats of the poller a sign is looked for that the parent is going.
        int looksLeft;
    };

    const OutputStream& output() const { return uses_.emitter.output(); }
    bool isUnderWay() const BRINDLE_REQUIRES(drainLock_) { return begun_ || !waiting_.empty(); }
    void drain() noexcept BRINDLE_REQUIRES(drainLock_);
    void goOn() noexcept;
    void deliverWhatFits() BRINDLE_REQUIRES(drainLock_);
    bool deliver(std::vector<std::string>& names) BRINDLE_REQUIRES(drainLock_);
    std::optional<BridgeScope> scopeToDeliver() const;
    bool begin(const std::string& name, const BridgeScope& scope) BRINDLE_REQUIRES(drainLock_);
    bool isBegunLineWritten() BRINDLE_REQUIRES(drainLock_);
    BridgeInboundMessageEvent eventFor(ManagedWhatsAppInboundRecord record, const std::string& name);
    void fileAsDelivered(const Begun& line) BRINDLE_REQUIRES(drainLock_);
    void reject(const std::string& name, const std::string& reason);
    void waitForOutput() BRINDLE_REQUIRES(drainLock_);
    void holdUp(const std::string& name, const OutputFailure& failure) BRINDLE_REQUIRES(drainLock_);
    void decideOnFailure() BRINDLE_REQUIRES(drainLock_);
    void forgetWhatWasRead() noexcept BRINDLE_REQUIRES(drainLock_);
    void putBackDelivered() noexcept BRINDLE_REQUIRES(drainLock_);

    Uses uses_;
    /// Two drains over one backlog would overtake each other and deliver messages out of order or twice.
    Mutex drainLock_;
    /// Names still to be looked at, the first one last.
    std::vector<std::string> waiting_ BRINDLE_GUARDED_BY(drainLock_);
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

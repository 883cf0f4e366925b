#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "system/Mutex.h"
#include "system/OutputStream.h"
#include "system/SerialQueue.h"

namespace brindle {

/// A stream and the turn to write to it. Whoever has the turn may be waiting for the reader.
struct SharedOutput {
    SharedOutput(int descriptor, std::string name, DepartureWatch& watch)
        : stream(descriptor, std::move(name), watch) {}

    Mutex turn;
    OutputStream stream;
};

/// Who has something to say.
enum class DiagnosticSource { backend, worker };

/// The way of diagnostics to standard error: at once while somebody reads; else they wait here, up to a
/// bound, and nobody waits for them. Callable from any thread.
///
/// When the bound is reached, lines of the worker are dropped before those of the backend, always whole, and
/// a line tells later how many.
class DiagnosticBuffer {
  public:
    /// How much may wait. More than a worker's pipe can hold when it ends, prefixes included.
    static constexpr std::size_t capacity_bytes = std::size_t{4} << 20U;
    /// From so much on, those who have a choice had better wait before they add to it.
    static constexpr std::size_t congestion_bytes = std::size_t{256} << 10U;

    /// `error` may be the stream that envelopes go to as well. `descriptor` stands for it; no other watch on
    /// a queue has that number. Both outlive the buffer.
    DiagnosticBuffer(SharedOutput& error, int descriptor) : error_(error), descriptor_(descriptor) {}

    /// What waits goes on from this queue as soon as it can. Until then, and after stopUsingQueue, what waits
    /// is tried again with the next line.
    void useQueue(SerialQueue& queue);
    /// Precondition: the queue runs nothing any more.
    void stopUsingQueue();

    /// Never waits for a reader and never fails. The text is whole lines.
    void write(std::string_view text, DiagnosticSource source) noexcept;
    /// Whether much waits.
    bool isCongested() const;
    /// Gives what waits a last chance: waits for the reader as long as `patience` in all.
    void finish(std::chrono::milliseconds patience) noexcept;

  private:
    struct Entry {
        std::uint32_t bytes;
        DiagnosticSource source;
    };

    void add(std::string_view text, DiagnosticSource source) BRINDLE_REQUIRES(lock_);
    bool makeRoom(std::size_t bytes) BRINDLE_REQUIRES(lock_);
    void append(std::string_view text, DiagnosticSource source) BRINDLE_REQUIRES(lock_);
    std::string takeFirst() BRINDLE_REQUIRES(lock_);
    void tellWhatWasDropped() BRINDLE_REQUIRES(lock_);
    bool writeWhatFits() noexcept BRINDLE_REQUIRES(lock_);
    bool writeInTurn() noexcept BRINDLE_REQUIRES(lock_);
    void dropEverything() noexcept BRINDLE_REQUIRES(lock_);
    bool goOn() noexcept;
    void awaitReader() noexcept BRINDLE_REQUIRES(lock_);

    SharedOutput& error_;
    int descriptor_;

    /// Nobody who holds it waits for a reader, but at the end.
    mutable Mutex lock_;
    /// The lines that wait, one behind the other; those before `first_` are gone.
    std::string text_ BRINDLE_GUARDED_BY(lock_);
    std::size_t first_ BRINDLE_GUARDED_BY(lock_) = 0;
    std::deque<Entry> entries_ BRINDLE_GUARDED_BY(lock_);
    std::size_t dropped_ BRINDLE_GUARDED_BY(lock_) = 0;
    SerialQueue* queue_ BRINDLE_GUARDED_BY(lock_) = nullptr;
    std::unique_ptr<ReadinessWatch> watch_ BRINDLE_GUARDED_BY(lock_);
};

}  // namespace brindle

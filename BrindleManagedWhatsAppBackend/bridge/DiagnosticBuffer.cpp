#include "bridge/DiagnosticBuffer.h"

#include <poll.h>

#include <algorithm>

namespace brindle {
namespace {

std::string droppedLines(std::size_t count) {
    return "[ManagedWhatsAppBackend] dropped " + std::to_string(count) +
           " lines of diagnostics because nobody read standard error; read it all the time to get every line.\n";
}

}  // namespace

void DiagnosticBuffer::useQueue(SerialQueue& queue) {
    const MutexHold hold(lock_);
    queue_ = &queue;
}

void DiagnosticBuffer::stopUsingQueue() {
    const MutexHold hold(lock_);
    watch_.reset();
    queue_ = nullptr;
}

void DiagnosticBuffer::write(std::string_view text, DiagnosticSource source) noexcept {
    const MutexHold hold(lock_);
    try {
        add(text, source);
    } catch (...) {
        // Even to say that memory is wanting takes memory.
    }
    if (!writeWhatFits()) awaitReader();
}

bool DiagnosticBuffer::isCongested() const {
    const MutexHold hold(lock_);
    return text_.size() - first_ > congestion_bytes;
}

void DiagnosticBuffer::add(std::string_view text, DiagnosticSource source) {
    if (text.empty()) return;
    // Once lines are missing, those that follow are missed as well until there is room for many: one gap is
    // easier to read around than a hundred.
    const bool isUnwanted = source == DiagnosticSource::worker && dropped_ > 0;
    const bool fits = text_.size() - first_ + text.size() <= capacity_bytes;
    if (isUnwanted || (!fits && (source == DiagnosticSource::worker || !makeRoom(text.size())))) {
        ++dropped_;
        return;
    }
    append(text, source);
}

/// Drops lines of the worker, the last ones first; false when even that does not make room.
bool DiagnosticBuffer::makeRoom(std::size_t bytes) {
    auto end = text_.size();
    for (auto entry = entries_.end(); entry != entries_.begin();) {
        --entry;
        const auto begin = end - entry->bytes;
        if (entry->source == DiagnosticSource::worker) {
            text_.erase(begin, entry->bytes);
            entry = entries_.erase(entry);
            ++dropped_;
            if (text_.size() - first_ + bytes <= capacity_bytes) return true;
        }
        end = begin;
    }
    return false;
}

void DiagnosticBuffer::append(std::string_view text, DiagnosticSource source) {
    entries_.push_back({.bytes = static_cast<std::uint32_t>(text.size()), .source = source});
    try {
        text_ += text;
    } catch (...) {
        entries_.pop_back();
        throw;
    }
}

std::string DiagnosticBuffer::takeFirst() {
    const std::size_t bytes = entries_.front().bytes;
    std::string line = text_.substr(first_, bytes);
    entries_.pop_front();
    first_ += bytes;
    if (entries_.empty()) {
        dropEverything();
    } else if (first_ > text_.size() / 2) {
        text_.erase(0, first_);
        first_ = 0;
    }
    return line;
}

void DiagnosticBuffer::tellWhatWasDropped() {
    if (dropped_ == 0 || text_.size() - first_ > capacity_bytes / 2) return;
    append(droppedLines(dropped_), DiagnosticSource::backend);
    dropped_ = 0;
}

/// True when nothing waits any more.
bool DiagnosticBuffer::writeWhatFits() noexcept {
    // Whoever has the turn may wait for the reader; nobody waits for him here.
    if (!error_.turn.try_lock()) return entries_.empty();
    const MutexHold turn(error_.turn, std::adopt_lock);
    return writeInTurn();
}

bool DiagnosticBuffer::writeInTurn() noexcept {
    for (;;) {
        try {
            if (!error_.stream.isBroken() && !error_.stream.goOn()) return false;
            tellWhatWasDropped();
            if (entries_.empty()) return true;
            if (!error_.stream.begin(takeFirst())) return false;
        } catch (const Failure&) {
            // There is no place left to report this to. Perhaps the next line can be written.
            if (error_.stream.isBroken()) dropEverything();
        } catch (...) {
            // Want of memory: it goes on with the next line.
            return true;
        }
    }
}

void DiagnosticBuffer::dropEverything() noexcept {
    entries_.clear();
    // Assigning an empty one would keep the memory.
    std::string().swap(text_);
    first_ = 0;
}

/// On the queue: false when nothing is left to wait for.
bool DiagnosticBuffer::goOn() noexcept {
    const MutexHold hold(lock_);
    return !writeWhatFits();
}

void DiagnosticBuffer::awaitReader() noexcept {
    if (queue_ == nullptr) return;
    try {
        if (watch_) return watch_->resume();
        watch_ = std::make_unique<ReadinessWatch>(*queue_, descriptor_, Readiness::writable,
                                                  [this] { return goOn(); });
    } catch (...) {
        // Without the means to wait, it goes on with the next line.
    }
}

void DiagnosticBuffer::finish(std::chrono::milliseconds patience) noexcept {
    using SteadyClock = std::chrono::steady_clock;
    const MutexHold hold(lock_);
    const auto deadline = SteadyClock::now() + patience;
    while (!writeWhatFits()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
        pollfd reader{.fd = descriptor_, .events = POLLOUT, .revents = 0};
        if (left.count() <= 0 || ::poll(&reader, 1, static_cast<int>(left.count())) <= 0) return;
    }
}

}  // namespace brindle

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "bridge/BridgeMessages.h"
#include "bridge/DiagnosticBuffer.h"
#include "system/OutputStream.h"

namespace brindle {

/// The single writer of the backend's standard output and standard error. Callable from any thread; lines
/// never interleave, not even when both streams are one.
class ManagedWhatsAppBackendEmitter {
  public:
    /// `output` and `error` are the descriptors behind the two streams. `watch` decides when unread output is
    /// given up; all three must outlive the emitter.
    ManagedWhatsAppBackendEmitter(int output, int error, DepartureWatch& watch);
    /// Diagnostics that still wait are given a second to be read.
    ~ManagedWhatsAppBackendEmitter();
    ManagedWhatsAppBackendEmitter(const ManagedWhatsAppBackendEmitter&) = delete;
    ManagedWhatsAppBackendEmitter& operator=(const ManagedWhatsAppBackendEmitter&) = delete;

    /// Writes one envelope as a line of standard output, behind the one that has begun, and waits for the
    /// reader. Throws OutputFailure when it cannot be written and OutputAbandoned when the process is ending
    /// and nobody reads.
    void emit(const BridgeEnvelope& envelope);

    /// Whether a line can begin now: the reader takes more and nobody else is writing.
    bool takesLine();
    /// Begins the line of one envelope and writes of it what the reader takes; waits for nobody. Answers the
    /// place in the stream where the line ends; nothing, and nothing is written, when it cannot begin now.
    /// Throws as emit.
    std::optional<std::uint64_t> begin(const BridgeEnvelope& envelope);
    /// Goes on with the line that has begun, unless somebody else is at it; whether everything up to that
    /// place is written. Throws as emit.
    bool isWrittenUpTo(std::uint64_t place);
    /// Standard output, for those who wait for it or ask how much of it was read.
    const OutputStream& output() const { return output_.stream; }

    /// Writes the text, whole lines of the backend's own, unchanged to standard error; waits for nobody and
    /// never fails.
    void log(std::string_view text) noexcept;
    /// The same for lines that the worker has printed.
    void relay(std::string_view text) noexcept;
    /// What waits to be written to standard error.
    DiagnosticBuffer& diagnostics() { return diagnostics_; }

  private:
    DepartureWatch& watch_;
    SharedOutput output_;
    /// Nothing when standard error is the same as standard output.
    std::optional<SharedOutput> error_;
    DiagnosticBuffer diagnostics_;
};

}  // namespace brindle

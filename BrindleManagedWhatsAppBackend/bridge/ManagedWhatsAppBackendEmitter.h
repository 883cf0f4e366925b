#pragma once

#include <mutex>
#include <string_view>

#include "bridge/BridgeMessages.h"
#include "system/OutputStream.h"

namespace brindle {

/// The single writer of the backend's standard output and standard error. Callable from any thread; lines
/// never interleave.
class ManagedWhatsAppBackendEmitter {
  public:
    /// `output` and `error` are the descriptors behind the two streams. `watch` decides when unread output is
    /// given up; all three must outlive the emitter.
    ManagedWhatsAppBackendEmitter(int output, int error, DepartureWatch& watch);

    /// Writes one envelope as a line of standard output. Throws FileSystemFailure when it cannot be written
    /// and OutputAbandoned when the process is ending and nobody reads.
    void emit(const BridgeEnvelope& envelope);
    /// Writes the text, unchanged, to standard error. Never fails.
    void log(std::string_view text) noexcept;

  private:
    std::mutex outputLock_;
    OutputStream output_;
    OutputStream error_;
};

}  // namespace brindle

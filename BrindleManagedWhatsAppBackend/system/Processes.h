#pragma once

#include <sys/types.h>

#include "system/Descriptor.h"

namespace brindle {

/// True when a process of that id exists, whoever owns it (kill with signal 0 succeeds or fails with EPERM).
bool processExists(pid_t process);

/// The three-part rule by which both roles watch the process that started them: `recordedParent` is greater
/// than 1, it still is this process's parent, and it exists.
bool isParentAlive(pid_t recordedParent);

/// A descriptor of the process itself, whoever has its number later, that becomes readable when the process
/// ends (Linux pidfd); not open when there is none.
Descriptor processEndDescriptor(pid_t process);

/// Sends a signal to the process of such a descriptor, or, with 0, asks whether that is possible; false when
/// it is not.
bool signalProcess(const Descriptor& process, int signal);

/// Opens the null device in the wrong direction for each of the descriptors 0 to 2 that is closed, so that no
/// later file takes its number and using it still fails.
void reserveStandardDescriptors();

/// Makes a write into a broken pipe or beyond the file size limit fail with an error instead of killing the
/// process (ignores SIGPIPE and SIGXFSZ).
void ignoreSignalsOfFailedWrites();

/// Undoes a blocking of SIGTERM, SIGINT and SIGHUP that was inherited: they are how a process is asked to
/// end.
void letTerminationSignalsThrough();

/// From now on a piece of memory of a megabyte or more is taken from the system by itself and goes back as
/// soon as it is freed. Left alone, the allocator learns from the first large piece to keep such pieces, and
/// what a single large message has taken stays with a thread for good.
void giveLargeMemoryBackAtOnce();

/// From now on all threads take their memory from one place. By itself the allocator gives each a place of
/// its own, which is for threads that work at the same time all the time.
void shareOnePlaceOfMemory();

/// Hands freed memory back to the system.
void returnFreedMemory();

/// Which signals TerminationSignals takes.
enum class TerminationSignalSet {
    /// SIGTERM, SIGINT and SIGHUP, by which a process is asked to end.
    requests,
    /// Everything that would end the process and can be held back: for who has to clear up at any end.
    everyEnd,
};

/// Takes signals out of asynchronous delivery for this and every later thread. Whoever waits for input also
/// waits for the descriptor and ends in order.
class TerminationSignals {
  public:
    /// Throws Failure when the process has no descriptor left for it; the signals keep their effect then.
    explicit TerminationSignals(TerminationSignalSet which = TerminationSignalSet::requests);
    /// Readable once one of the signals has come (signalfd).
    int descriptor() const { return descriptor_.get(); }
    /// The signal that came, taken off the queue; 0 when none did.
    int take();

  private:
    Descriptor descriptor_;
};

/// Ends this process by the signal's default action, as if it had never been held back.
[[noreturn]] void endBySignal(int signal);

}  // namespace brindle

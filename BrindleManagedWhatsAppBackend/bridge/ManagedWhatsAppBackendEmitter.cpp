#include "bridge/ManagedWhatsAppBackendEmitter.h"

#include <sys/stat.h>

#include "text/Text.h"
#include "text/WithoutFailing.h"

namespace brindle {
namespace {

bool areOneStream(int one, int other) {
    struct stat first {};
    struct stat second {};
    return ::fstat(one, &first) == 0 && ::fstat(other, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

}  // namespace

ManagedWhatsAppBackendEmitter::ManagedWhatsAppBackendEmitter(int output, int error, DepartureWatch& watch)
    : watch_(watch),
      output_(output, "standard output", watch),
      // As one stream, so that no diagnostic gets into the middle of an envelope of which the rest must wait.
      diagnostics_(areOneStream(output, error) ? output_ : error_.emplace(error, "standard error", watch),
                   error) {}

ManagedWhatsAppBackendEmitter::~ManagedWhatsAppBackendEmitter() {
    using std::chrono::milliseconds;
    diagnostics_.finish(watch_.isOutputAbandoned() ? milliseconds{0} : DepartureWatch::unread_output_grace);
}

void ManagedWhatsAppBackendEmitter::emit(const BridgeEnvelope& envelope) {
    const std::string line = encodedLine(envelope);
    const MutexHold turn(output_.turn);
    output_.stream.write(line);
}

bool ManagedWhatsAppBackendEmitter::takesLine() {
    if (!output_.turn.try_lock()) return false;
    const MutexHold turn(output_.turn, std::adopt_lock);
    return output_.stream.takesMore();
}

std::optional<std::uint64_t> ManagedWhatsAppBackendEmitter::begin(const BridgeEnvelope& envelope) {
    std::string line = encodedLine(envelope);
    if (!output_.turn.try_lock()) return std::nullopt;
    const MutexHold turn(output_.turn, std::adopt_lock);
    if (!output_.stream.goOn()) return std::nullopt;
    const auto end = output_.stream.written() + line.size();
    if (!output_.stream.beginUnlessHeldUp(std::move(line))) return std::nullopt;
    return end;
}

bool ManagedWhatsAppBackendEmitter::isWrittenUpTo(std::uint64_t place) {
    if (output_.stream.written() >= place) return true;
    if (!output_.turn.try_lock()) return false;
    const MutexHold turn(output_.turn, std::adopt_lock);
    output_.stream.goOn();
    return output_.stream.written() >= place;
}

void ManagedWhatsAppBackendEmitter::log(std::string_view text) noexcept {
    withoutFailing([&] { diagnostics_.write(repairedUtf8(text), DiagnosticSource::backend); });
}

void ManagedWhatsAppBackendEmitter::relay(std::string_view text) noexcept {
    diagnostics_.write(text, DiagnosticSource::worker);
}

}  // namespace brindle

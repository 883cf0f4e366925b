#pragma once

#include <string>

#include "system/Descriptor.h"

namespace brindle::test {

/// The two ends of a pipe or of a connection; neither is inherited by a process that a test starts.
struct PipeEnds {
    Descriptor reading;
    Descriptor writing;
};

PipeEnds makePipe();
/// A pipe of which neither end ever waits.
PipeEnds makeNonBlockingPipe();
/// A connection of streams (AF_UNIX).
PipeEnds makeStreamConnection();
/// A connection of which every read gets exactly one of the pieces that were written.
PipeEnds makePieceByPieceConnection();

/// What one read gets; nothing at the end.
std::string readSome(const Descriptor& end);
/// Everything up to the end; waits for it also where a read would not.
std::string readAll(const Descriptor& end);

}  // namespace brindle::test

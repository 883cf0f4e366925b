#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "system/Descriptor.h"

namespace brindle::test {

/// The two ends of a pipe or of a connection; neither is inherited by a process that a test starts.
struct PipeEnds {
    Descriptor reading;
    Descriptor writing;
};

PipeEnds makePipe();
/// A pipe that takes 4096 bytes.
PipeEnds makeSmallPipe();
/// A pipe of which neither end ever waits.
PipeEnds makeNonBlockingPipe();
/// A connection of streams (AF_UNIX).
PipeEnds makeStreamConnection();
/// A connection of which every read gets exactly one of the pieces that were written.
PipeEnds makePieceByPieceConnection();

/// A file in memory that holds `content`; a read gets as much of it as it asks for.
Descriptor memoryFileWith(std::string_view content);

/// Writes all of it. Throws when that fails.
void put(const Descriptor& end, std::string_view bytes);
/// Writes until no more is taken; answers how many bytes that were.
std::size_t fill(const Descriptor& end);
/// What one read gets; nothing at the end.
std::string readSome(const Descriptor& end);
/// Everything up to the end; waits for it also where a read would not.
std::string readAll(const Descriptor& end);

}  // namespace brindle::test

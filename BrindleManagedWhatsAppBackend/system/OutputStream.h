#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "system/DepartureWatch.h"
#include "system/Descriptor.h"
#include "system/FileSystemFailure.h"

namespace brindle {

/// A stream to the outside cannot be written.
class OutputFailure : public FileSystemFailure {
  public:
    /// `name` is what messages call the stream; `code` is an errno value (POSIX).
    OutputFailure(std::string_view name, int code) : FileSystemFailure("write to", name, code) {}
};

/// Writes whole texts to a standard stream, however its descriptor is set up: at once and waiting, though
/// never longer than its reader exists, or little by little whenever the reader takes some. Not synchronised
/// unless said: one writer at a time.
///
/// After a failure in the middle of a text every further write fails likewise: what came next would be glued
/// to half a text.
class OutputStream {
  public:
    /// `name` is what messages call the stream.
    OutputStream(int descriptor, std::string name, DepartureWatch& watch);

    /// Writes the whole text behind what has begun, waiting for the reader. Throws OutputFailure, or
    /// OutputAbandoned.
    void write(std::string_view bytes);

    /// Whether the reader takes the beginning of a text now. True as well when the next write will fail.
    bool takesMore() const;
    /// Begins a text behind the one that has begun, which must have been written; writes what the reader
    /// takes without waiting. True when that was all. Throws as write.
    bool begin(std::string text);
    /// As begin, unless the reader takes nothing of it now: then it has not begun, and the answer is false.
    bool beginUnlessHeldUp(std::string text);
    /// Goes on with the text that has begun; true when nothing is left of it. Throws as write.
    bool goOn();

    /// Whether nothing more can be written, whatever happens.
    bool isBroken() const { return isCutOff_ || breakCode_ != 0; }

    /// What was handed to the system since the stream was made, in bytes. Callable from any thread.
    std::uint64_t written() const { return written_; }
    /// The part of it that a reader may have got: all but what still lies in a pipe, which tells this also
    /// after its reader has gone. What files and sockets took counts as got. Callable from any thread.
    std::uint64_t taken() const;
    /// Whether this is a pipe that nobody can read any more, now or within `patience`. Callable from any
    /// thread.
    bool hasLostReader(std::chrono::milliseconds patience) const;

    /// What to wait for when the reader takes nothing.
    int descriptor() const { return descriptor_; }

  private:
    ssize_t writeSome(std::string_view bytes);
    bool writeWhatFits(std::string_view& bytes);
    void waitForRoom();
    void requireWholeStream() const;

    enum class Manner {
        /// A descriptor of our own that answers EAGAIN: the description that the parent may share stays as it
        /// is.
        nonblocking,
        /// Sockets can be asked call by call.
        socket,
        /// Ask first, then write no more than is guaranteed not to block.
        pieces,
    };

    int descriptor_;
    std::string name_;
    DepartureWatch& watch_;
    Descriptor reopened_;
    Manner manner_ = Manner::pieces;
    bool isPipe_ = false;
    std::atomic<std::uint64_t> written_ = 0;
    /// What is left of the text that has begun.
    std::string begun_;
    std::size_t begunWritten_ = 0;
    /// A text was given up, perhaps in its middle; nothing may follow it.
    bool isCutOff_ = false;
    /// The errno value by which a write has failed in the middle of a text; 0 for none.
    int breakCode_ = 0;
};

}  // namespace brindle

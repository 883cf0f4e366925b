#pragma once

#include <limits.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string_view>

namespace brindle {

/// Writes the text to a descriptor if that takes something within `patience`; a reader that does not read
/// loses the text instead of holding up the writer. The descriptor is below FD_SETSIZE. Of a longer text
/// PIPE_BUF bytes are written (POSIX), which a pipe takes in one piece and without a wait. Errors are passed
/// over: this is for words of which nobody could be told that they were lost. Inline, because the engine's
/// module links no room.
inline void writeInTime(int descriptor, std::string_view text, std::chrono::milliseconds patience) noexcept {
    if (descriptor < 0 || descriptor >= FD_SETSIZE) return;
    // Not poll(), which refuses to wait where a process may have no descriptors any more.
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(descriptor, &ready);
    timeval left{.tv_sec = patience.count() / 1000, .tv_usec = patience.count() % 1000 * 1000};
    if (::select(descriptor + 1, nullptr, &ready, nullptr, &left) != 1) return;
    if (::write(descriptor, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF)) < 0) return;
}

}  // namespace brindle

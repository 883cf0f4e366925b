#pragma once

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string_view>

namespace brindle {

/// Writes the text to a descriptor if that takes something within `patience`; a reader that does not read
/// loses the text instead of holding up the writer. Of a longer text PIPE_BUF bytes are written (POSIX),
/// which a pipe takes in one piece and without a wait. Errors are passed over: this is for words of which
/// nobody could be told that they were lost. Inline, because the engine's module links no room.
inline void writeInTime(int descriptor, std::string_view text, std::chrono::milliseconds patience) noexcept {
    pollfd ready{.fd = descriptor, .events = POLLOUT, .revents = 0};
    if (::poll(&ready, 1, static_cast<int>(patience.count())) != 1) return;
    if (::write(descriptor, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF)) < 0) return;
}

}  // namespace brindle

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace brindle::test {

/// A parent application that only passes on: its own standard streams are those of the helper that it starts.
///
/// It is a process of its own, so that it can be killed. What it has taken from the helper has arrived behind
/// it in the same instant (splice), so that whoever reads there knows exactly what the parent had read when
/// it was killed.
struct PlayedParent {
    enum class Kills { nobody, itself, backend };

    std::string backend;  ///< The helper's executable.
    std::int64_t chunkBytes = 65536;
    std::int64_t restMicroseconds = 0;
    Kills kills = Kills::nobody;
    /// Kills after exactly so many bytes in that direction; 0 never.
    std::int64_t bytesToBackend = 0;
    std::int64_t bytesToParent = 0;

    /// How this program is told to play the parent.
    std::vector<std::string> arguments() const;
    static PlayedParent from(const std::vector<std::string>& arguments);
    /// Plays until the helper has ended; the helper's status, as shells tell it.
    int play() const;
};

/// The first of the arguments.
inline constexpr const char* play_parent_argument = "--play-parent";
/// What stands before the helper's process id in the first line on the parent's standard error.
inline constexpr const char* backend_process_prefix = "[parent] backend process ";

}  // namespace brindle::test

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brindle::test {

/// Who works for the backend in a round.
enum class WorkerKind { none, native, web };

/// Who is killed.
enum class Victim { backend, parent, nativeWorker, webWorker, engine };
inline constexpr std::array all_victims{Victim::backend, Victim::parent, Victim::nativeWorker,
                                        Victim::webWorker, Victim::engine};
/// The victim's name on the command line and in the table.
std::string_view nameOf(Victim victim);
/// Throws TestFailure when there is none of that name.
Victim victimNamed(std::string_view name);

/// When a victim is killed.
struct KillPoint {
    enum class After {
        microseconds,     ///< since the helper was started
        directoryEvents,  ///< anything that happens to a file of the data directory
        bytesToBackend,   ///< taken from the parent by the backend's input
        bytesToParent,    ///< read from the backend's output by the parent
    };
    After after = After::microseconds;
    std::int64_t count = 0;
};

/// One life of the helper that is cut short.
struct LifePlan {
    Victim victim = Victim::backend;
    KillPoint point;
    /// How much the parent takes from the helper at a time.
    std::int64_t parentChunkBytes = 0;
    /// How long the parent rests after each such piece.
    std::int64_t parentRestMicroseconds = 0;
    /// How many messages wait in "inbound" at the start.
    std::int64_t backlog = 0;
};

/// What a seed stands for: some lives in the same directory that are cut short, before one that is not.
struct RoundPlan {
    std::uint64_t seed = 0;
    WorkerKind worker = WorkerKind::none;
    /// Whether the data directory lies in memory, as the default one usually does, or on a disk.
    bool isInMemory = false;
    std::vector<LifePlan> lives;
};

/// What the one who starts a storm may choose.
struct Preferences {
    /// How many rounds of a hundred run the built-in worker, whose engine takes most of a second to start.
    std::int64_t webPercent = 5;
    /// The only victim; without one all are.
    std::optional<Victim> only;
};

RoundPlan planFor(std::uint64_t seed, const Preferences& preferences);
/// The plan in words, for the one who looks into a failure.
std::string describe(const RoundPlan& plan);

}  // namespace brindle::test

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <list>
#include <string>

#include "storm/Plan.h"
#include "storm/Round.h"
#include "system/Descriptor.h"

namespace brindle::test {

/// What a storm consists of.
struct StormOptions {
    std::uint64_t firstSeed = 1;
    std::size_t rounds = 100;
    std::size_t roundsAtATime = 6;
    Preferences preferences;
    /// How the one who started it repeats a round: before and after the seed.
    std::string repeatCommand;
    std::string repeatOptions;
    /// Keeps the next seed and what all storms so far have come to; none when empty.
    std::filesystem::path stateFile;
};

/// Runs rounds, several at a time, each in a process of its own, and tells how it goes.
class Coordinator {
  public:
    explicit Coordinator(StormOptions options);

    /// Whether every round was in order.
    bool run();

  private:
    struct RunningRound {
        std::uint64_t seed = 0;
        pid_t process = -1;
        Descriptor result;
        std::string text;
        std::chrono::steady_clock::time_point deadline;
    };

    void readState();
    void writeState() const;
    void startRound();
    void takeResults();
    void finish(RunningRound& round);
    void endIfHung(RunningRound& round) const;
    void showProgress();
    void showTable() const;

    StormOptions options_;
    std::uint64_t nextSeed_ = 1;
    std::size_t started_ = 0;
    std::size_t failed_ = 0;
    std::list<RunningRound> running_;
    Tally now_;
    Tally before_;
    std::chrono::steady_clock::time_point lastProgress_;
};

}  // namespace brindle::test

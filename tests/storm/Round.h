#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "storm/DirectoryWatch.h"
#include "storm/Ledger.h"
#include "storm/Plan.h"
#include "storm/Random.h"
#include "support/BackendProcess.h"
#include "support/DrivenPage.h"
#include "support/TemporaryDirectory.h"

namespace brindle::test {

/// What came of one or of many rounds.
struct Tally {
    std::map<Victim, std::size_t> kills;
    std::size_t rounds = 0;
    std::size_t delivered = 0;    ///< Inbound messages, each counted once.
    std::size_t sent = 0;         ///< Outbound records.
    std::size_t repeated = 0;     ///< Deliveries of a message that had been delivered before.
    std::size_t temporaries = 0;  ///< Temporary files that a kill has left.

    void add(const Tally& other);
    std::string asText() const;
    static Tally from(const std::string& text);
};

/// Runs a plan in a fresh data directory. Precondition: a process of its own, to which orphans come.
class Round {
  public:
    explicit Round(RoundPlan plan);

    /// Throws TestFailure when something was wrong.
    Tally run();

  private:
    struct Life {
        std::unique_ptr<BackendProcess> process;
        pid_t backend = -1;
        /// What was killed in it.
        std::string killed;
        /// What the parent is still given; it is gone when it takes no more.
        bool takesRequests = true;
    };

    void makeDirectories() const;
    BackendOptions options(const LifePlan* plan) const;
    void addWebWorker(BackendOptions& options) const;
    Life start(const LifePlan* plan);
    void runCutLife(const LifePlan& plan);
    void makeTrafficUntilKilled(Life& life, const LifePlan& plan);
    void goOnWithoutVictim(Life& life, const LifePlan& plan);
    void runWholeLife();
    std::vector<std::filesystem::path> temporaries() const;
    void ageTemporaries() const;
    void end(Life& life, const LifePlan* plan);
    void requireEndOfAllProcesses();
    void requireProblemFree(const Life& life, std::vector<std::string> problems) const;

    void makeTraffic(Life& life);
    void placeInbound(std::int64_t count);
    void placeGarbage();
    void request(Life& life, const Message& message);
    void mark(Life& life);
    void send(Life& life, const std::string& line);
    void pause();
    bool isIdle() const;
    static bool hasMessageOfPageAfter(const Life& life, std::int64_t time);
    bool hasNoWorker() const;
    void waitFor(const Life& life, const std::function<bool()>& condition, const std::string& what) const;
    std::string story(const Life& life) const;

    RoundPlan plan_;
    Random random_;
    TemporaryDirectory directory_;
    TemporaryDirectory home_;
    std::shared_ptr<TemporaryDirectory> data_;
    std::unique_ptr<DirectoryWatch> watch_;
    Ledger ledger_;
    std::optional<DrivenPage> page_;
    std::map<Series, std::int64_t> numbers_;
    Tally tally_;
};

}  // namespace brindle::test

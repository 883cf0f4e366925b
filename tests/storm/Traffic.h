#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/BackendProcess.h"

namespace brindle::test {

/// Keeps a helper with the sample native worker busy in both directions, garbage in between, and takes away
/// what it has filed away, so that only the helper can grow.
class Traffic {
  public:
    explicit Traffic(BackendProcess& process) : process_(process) {}

    /// Fills both directions up to what may be under way, takes what has come and cleans up. Throws
    /// TestFailure when a message comes out of order, twice or not at all.
    void turn();
    /// Takes what is still under way.
    void finish();

    /// Messages that have arrived so far, in both directions.
    std::size_t messages() const { return arrived_; }
    std::size_t garbage() const { return garbage_; }
    /// How long the messages took that arrived since the last call, in milliseconds; their median, 0 for
    /// none.
    double takeMedianLatency();

  private:
    using Clock = std::chrono::steady_clock;

    /// A direction: messages with ascending numbers, of which some are under way.
    struct Direction {
        std::int64_t begun = 0;
        std::map<std::int64_t, Clock::time_point> underWay{};
    };

    void begin(Direction& direction);
    void placeInbound();
    void placeGarbage();
    void send();
    void takeOutput();
    void takeLine(const std::string& line);
    void arrive(Direction& direction, std::int64_t number);
    void cleanUp() const;

    BackendProcess& process_;
    Direction inbound_;
    Direction echoes_;
    std::size_t arrived_ = 0;
    std::size_t garbage_ = 0;
    std::size_t badLines_ = 0;
    std::size_t errors_ = 0;
    std::vector<double> latencies_;
};

}  // namespace brindle::test

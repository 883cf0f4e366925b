#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "support/WebWorkerProcess.h"

namespace brindle::test {

/// The most that one worker tree may take while no message arrives.
constexpr double most_memory_mebibytes = 260;
constexpr double most_processor_percent = 2;

/// What one process of a worker's tree costs.
struct ProcessCost {
    std::string name;
    double memory_mebibytes = 0;
    /// Share of one core.
    double processor_percent = 0;
};

/// A worker on the sample web client, linked and capturing, with nobody writing.
class IdleWorker {
  public:
    /// Returns once the watched chat is open.
    IdleWorker();
    /// On another page, with another chat to be watched.
    IdleWorker(WebWorkerOptions options, const std::string& chat);

    /// The cost of every process of the tree that lives on, measured over `idle`.
    std::vector<ProcessCost> measure(std::chrono::seconds idle);
    WebWorkerProcess& worker() { return worker_; }

  private:
    WebWorkerProcess worker_;
};

/// The sum of a tree's costs.
ProcessCost total(const std::vector<ProcessCost>& processes);

}  // namespace brindle::test

#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "system/Clock.h"
#include "system/FileManager.h"
#include "worker/WorkerLog.h"
#include "worker/WorkerState.h"

namespace brindle {

/// Tells the backend how the worker is doing, through "worker-status.json". Nothing here fails outward: what
/// cannot be written is logged, and the next change writes again.
class WorkerStatusPublisher {
  public:
    /// Publishes `state` in `statusFile`. Everything handed in outlives it.
    WorkerStatusPublisher(WorkerState& state, FileManager& fileManager, std::string statusFile,
                          const Clock& clock, const WorkerLog& log)
        : state_(state),
          fileManager_(fileManager),
          statusFile_(std::move(statusFile)),
          clock_(clock),
          log_(log) {}

    /// Writes the state as it is, with the present time as heartbeat.
    void writeStatus() const noexcept;
    /// Takes the word and the sentence over into the state and writes it.
    void publish(std::string_view workerState, std::string_view workerDetail) const noexcept;
    /// The same, and forgets the account's name first.
    void publishWithoutAccount(std::string_view workerState, std::string_view workerDetail) const noexcept;

  private:
    void write() const;
    void logFailure(const std::exception& error) const noexcept;

    WorkerState& state_;
    FileManager& fileManager_;
    std::string statusFile_;
    const Clock& clock_;
    const WorkerLog& log_;
};

}  // namespace brindle

#pragma once

#include <string>
#include <string_view>

#include "worker/WorkerContext.h"

namespace brindle {

/// Tells the backend how the worker is doing, through "worker-status.json". Nothing here fails outward: what
/// cannot be written is logged, and the next change writes again.
class WorkerStatusPublisher {
  public:
    explicit WorkerStatusPublisher(const WorkerContext& context) : context_(context) {}

    /// Writes the state as it is, with the present time as heartbeat.
    void writeStatus() const noexcept;
    /// Takes the word and the sentence over into the state and writes it.
    void publish(std::string_view workerState, std::string workerDetail) const noexcept;
    /// The same, and forgets the account's name first.
    void publishWithoutAccount(std::string_view workerState, std::string workerDetail) const noexcept;

  private:
    const WorkerContext& context_;
};

}  // namespace brindle

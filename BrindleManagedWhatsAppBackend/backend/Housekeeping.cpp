#include "backend/Housekeeping.h"

namespace brindle {

Housekeeping::Housekeeping(const Uses& uses)
    : queue_(uses.queue),
      schedule_(uses.schedule),
      retention_({.environment = uses.environment,
                  .directory = uses.directory,
                  .fileManager = uses.fileManager,
                  .clock = uses.clock,
                  .log = uses.log,
                  .isNeeded = uses.isNeeded}),
      abandonedFiles_({.directory = uses.directory, .fileManager = uses.fileManager, .clock = uses.clock}) {}

void Housekeeping::start() {
    queue_.post([this] { keepHouse(); });
}

void Housekeeping::keepHouse() {
    abandonedFiles_.begin();
    work();
    sweepTimer_ =
        std::make_unique<RepeatingTimer>(queue_, schedule_.firstSweep, schedule_.sweepInterval, [this] {
            retention_.begin();
            work();
        });
}

void Housekeeping::work() {
    if (stepTimer_) return;
    stepTimer_ = std::make_unique<RepeatingTimer>(queue_, std::chrono::milliseconds{0},
                                                  schedule_.stepInterval, [this] { step(); });
}

void Housekeeping::step() {
    const bool looks = abandonedFiles_.step();
    const bool sweeps = retention_.step();
    if (!looks && abandonedFiles_.hasSuspects()) lookAgainLater();
    if (!looks && !sweeps) stepTimer_.reset();
}

void Housekeeping::lookAgainLater() {
    if (secondLookTimer_) return;
    secondLookTimer_ =
        std::make_unique<RepeatingTimer>(queue_, schedule_.secondLook, schedule_.secondLook, [this] {
            abandonedFiles_.lookAgain();
            work();
            secondLookTimer_.reset();
        });
}

}  // namespace brindle

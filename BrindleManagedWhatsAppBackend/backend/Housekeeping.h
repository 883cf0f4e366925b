#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "backend/AbandonedFiles.h"
#include "backend/Retention.h"
#include "system/SerialQueue.h"

namespace brindle {

/// Keeps the data directory from growing for ever, a few files at a time, so that the other work of the queue
/// never waits for it.
class Housekeeping {
  public:
    struct Schedule {
        /// Once the start is over, which has better things to do.
        std::chrono::milliseconds firstSweep{500};
        std::chrono::milliseconds sweepInterval{std::chrono::hours{1}};
        /// After the first look at unfinished files.
        std::chrono::milliseconds secondLook{std::chrono::minutes{1}};
        /// The queue's other work comes in between, and where very much lies, the processor is left alone.
        std::chrono::milliseconds stepInterval{20};
    };
    /// All of it outlives the object. The queue has been joined when the object goes.
    struct Uses {
        const Environment& environment;
        const DataDirectory& directory;
        FileManager& fileManager;
        const Clock& clock;
        const DiagnosticLog& log;
        /// As Retention has it.
        std::function<bool(const std::string& path)> isNeeded;
        SerialQueue& queue;
        Schedule schedule = {};
    };

    explicit Housekeeping(const Uses& uses);

    /// Begins. An earlier worker has ended by then, so that its unfinished files are nobody's. Called once.
    void start();

  private:
    void keepHouse();
    void work();
    void step();
    void lookAgainLater();

    SerialQueue& queue_;
    Schedule schedule_;
    // From here on touched on the queue alone.
    Retention retention_;
    AbandonedFiles abandonedFiles_;
    std::unique_ptr<RepeatingTimer> sweepTimer_;
    std::unique_ptr<RepeatingTimer> secondLookTimer_;
    std::unique_ptr<RepeatingTimer> stepTimer_;
};

}  // namespace brindle

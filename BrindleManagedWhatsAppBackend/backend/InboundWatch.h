#pragma once

#include <memory>

#include "backend/InboundDelivery.h"
#include "exchange/DataDirectory.h"
#include "system/DirectoryWatch.h"
#include "system/FileManager.h"
#include "system/SerialQueue.h"

namespace brindle {

/// Has records delivered as soon as they come, where the system tells of them. Everywhere else, and until it
/// is told where to listen again, the poller finds them. Works on the queue alone.
class InboundWatch {
  public:
    /// What it works with; all of it outlives the watch, and the queue is joined before the watch goes.
    struct Uses {
        const DataDirectory& directory;
        FileManager& fileManager;
        InboundDelivery& delivery;
        SerialQueue& queue;
    };

    explicit InboundWatch(const Uses& uses) : uses_(uses) {}

    /// For each beat of the poller, before it looks, and when listening begins: watches the directory that is
    /// "inbound" now while anything can be delivered, and nothing otherwise. Without a watch to be had the
    /// poller is alone.
    void keepUp() noexcept;

  private:
    void begin();
    void end() noexcept;
    void takeNews(DirectoryWatch& watch) noexcept;

    Uses uses_;
    /// Shared with what waits on the queue for its descriptor.
    std::shared_ptr<DirectoryWatch> watch_;
    std::unique_ptr<ReadinessWatch> readiness_;
};

}  // namespace brindle

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "console/Finding.h"
#include "console/WorkerTrial.h"
#include "exchange/DataDirectory.h"
#include "exchange/RecordIdentifiers.h"
#include "system/FileManager.h"

namespace brindle::console {

/// Messages for a worker that is examined: what becomes of them, and of what lies beside them.
class OutboundTrial {
  public:
    /// Lays messages out before the worker starts, so that it meets all of them at once. Both outlive it.
    OutboundTrial(FileManager& fileManager, const DataDirectory& directory, std::string_view conversation);

    /// Whether messages are taken once and in order, also one that comes later.
    Finding check(WorkerTrial& trial);
    /// Whether what is no message is set aside.
    Finding checkBadRecord(WorkerTrial& trial);
    /// Whether hidden files, and others that are no records, are left alone.
    Finding checkStrangers();
    /// Whether what the worker has written into inbound is whole, complete and in order.
    Finding checkInbound(WorkerTrial& trial);

  private:
    void write(const std::string& identifier);
    bool isIn(const std::string& folder, std::string_view name) const;
    std::vector<std::string> taken(const WorkerTrial& trial) const;
    Finding checkOrder(const WorkerTrial& trial) const;

    FileManager& fileManager_;
    const DataDirectory& directory_;
    std::string conversation_;
    RecordIdentifiers identifiers_;
    /// The files, in the order of their names.
    std::vector<std::string> names_;
};

}  // namespace brindle::console

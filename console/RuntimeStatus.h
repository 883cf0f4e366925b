#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "exchange/ExchangeRecords.h"

namespace brindle::console {

/// A field of the runtime status as text; an absent one has no value.
struct StatusField {
    std::string name;
    std::optional<std::string> value;
};

/// The status in a file; nothing while there is none that can be read.
std::optional<ManagedWhatsAppRuntimeStatusRecord> readableStatus(FileManager& fileManager,
                                                                 const std::string& file);

/// Why nothing will come from a worker any more, as part of a sentence; empty while something may.
std::string workerObstacle(const ManagedWhatsAppRuntimeStatusRecord& status);

/// What somebody should know who sends a message now; empty when a worker sends it, or when none has spoken
/// yet.
std::string sendingRemark(const ManagedWhatsAppRuntimeStatusRecord& status);

/// Every field of the status, in the order of their declaration.
std::vector<StatusField> statusFields(const ManagedWhatsAppRuntimeStatusRecord& status);

/// The value of the field of that name; nothing when it is absent.
std::optional<std::string> statusValue(const ManagedWhatsAppRuntimeStatusRecord& status,
                                       std::string_view name);

/// The fields as lines of two columns; an absent value is shown as "-".
std::string statusTable(const std::vector<StatusField>& fields);

}  // namespace brindle::console

#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "exchange/DataDirectory.h"
#include "exchange/ExchangeRecords.h"
#include "system/FileManager.h"

namespace brindle::console {

/// What a data directory tells about the helper and the worker that use it.
struct WatchFacts {
    std::string directory;
    bool hasHelper = false;
    /// Nothing while there is none that can be read.
    std::optional<ManagedWhatsAppRuntimeStatusRecord> status;
    std::size_t inboundWaiting = 0;
    std::size_t inboundDelivered = 0;
    std::size_t inboundRejected = 0;
    std::size_t outboundWaiting = 0;
    std::size_t outboundSent = 0;
    std::size_t outboundRejected = 0;
    /// The message with the greatest name, "Bo Nilsson: Good morning!"; nothing when there is none.
    std::optional<std::string> lastMessage;
};

/// Looks at the directory. Never fails: what cannot be read is left out.
WatchFacts watchFacts(FileManager& fileManager, const DataDirectory& directory);

/// The facts for people, a line each, without anything that a terminal would obey.
std::vector<std::string> watchLines(const WatchFacts& facts, std::chrono::system_clock::time_point now);

/// The beginning of a text that is not wider than `columns` on a terminal.
std::string fitted(const std::string& text, std::size_t columns);

}  // namespace brindle::console

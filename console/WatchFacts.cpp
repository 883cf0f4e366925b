#include "console/WatchFacts.h"

#include <wchar.h>

#include <algorithm>
#include <string_view>

#include "console/Columns.h"
#include "console/Inbox.h"
#include "console/RuntimeStatus.h"
#include "console/TerminalText.h"
#include "console/Timestamps.h"
#include "system/LockHolder.h"
#include "system/Paths.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

using TimePoint = std::chrono::system_clock::time_point;

constexpr std::size_t label_columns = 11;

std::vector<std::string> namesIn(FileManager& fileManager, const std::string& directory) {
    try {
        return recordNames(fileManager, directory);
    } catch (const Failure&) {
        return {};
    }
}

std::optional<std::string> messageIn(FileManager& fileManager, const std::string& file) {
    try {
        const auto record = readRecord<ManagedWhatsAppInboundRecord>(fileManager, file);
        return record.senderDisplayName + ": " + record.text;
    } catch (const Failure&) {
        return std::nullopt;
    }
}

bool isLocked(FileManager& fileManager, const std::string& directory) {
    try {
        return directoryLockHolder(fileManager, directory).has_value();
    } catch (const Failure&) {
        return false;
    }
}

std::string line(std::string_view label, std::string_view text) {
    return leftAligned(label, label_columns) + terminalSafe(text);
}

/// "3 s ago", for a time that a record names.
std::string age(const std::optional<std::string>& timestamp, TimePoint now) {
    const auto time = timestamp ? parsedTimestamp(*timestamp) : std::nullopt;
    if (!time) return "never";
    return shortDuration(std::max(now - *time, TimePoint::duration(0))) + " ago";
}

std::string helperText(const WatchFacts& facts, TimePoint now) {
    if (!facts.status)
        return facts.hasHelper ? "runs, without a status that can be read" : "none has been here";
    const auto written = "status written " + age(facts.status->updatedAtISO8601, now);
    return (facts.hasHelper ? facts.status->connectionState : "does not run") + ", " + written;
}

std::string counted(std::size_t first, std::string_view word, std::size_t waiting, std::size_t rejected) {
    return std::to_string(first) + " " + std::string(word) + ", " + std::to_string(waiting) + " waiting, " +
           std::to_string(rejected) + " rejected";
}

}  // namespace

WatchFacts watchFacts(FileManager& fileManager, const DataDirectory& directory) {
    const auto inbound = namesIn(fileManager, directory.inbound);
    const auto processed = namesIn(fileManager, directory.processed);
    WatchFacts facts{.directory = directory.path,
                     .hasHelper = isLocked(fileManager, directory.path),
                     .status = readableStatus(fileManager, directory.runtimeStatusFile),
                     .inboundWaiting = inbound.size(),
                     .inboundDelivered = processed.size(),
                     .inboundRejected = namesIn(fileManager, directory.rejected).size(),
                     .outboundWaiting = namesIn(fileManager, directory.outbound).size(),
                     .outboundSent = namesIn(fileManager, directory.workerProcessedOutbound).size(),
                     .outboundRejected = namesIn(fileManager, directory.workerRejectedOutbound).size(),
                     .lastMessage = std::nullopt};
    const bool isWaiting = !inbound.empty() && (processed.empty() || processed.back() < inbound.back());
    const auto& names = isWaiting ? inbound : processed;
    if (!names.empty()) {
        const auto& folder = isWaiting ? directory.inbound : directory.processed;
        facts.lastMessage = messageIn(fileManager, joinedPath(folder, names.back()))
                                .value_or("one that cannot be read; inbox tells why");
    }
    return facts;
}

std::vector<std::string> watchLines(const WatchFacts& facts, TimePoint now) {
    const ManagedWhatsAppRuntimeStatusRecord none;
    const auto& status = facts.status ? *facts.status : none;
    return {
        line("directory", facts.directory),
        line("helper", helperText(facts, now)),
        line("listening", status.activeScopeDescription.value_or("to nothing")),
        line("worker", (status.workerState.empty() ? "unknown" : status.workerState) + ", heartbeat " +
                           age(status.workerLastHeartbeatISO8601, now)),
        line("", status.workerDetail.value_or("")),
        line("in", counted(facts.inboundDelivered, "delivered", facts.inboundWaiting, facts.inboundRejected)),
        line("out", counted(facts.outboundSent, "sent", facts.outboundWaiting, facts.outboundRejected)),
        line("last", facts.lastMessage.value_or("no message yet")),
        "",
        "q ends this view."};
}

std::string fitted(const std::string& text, std::size_t columns) {
    std::size_t used = 0;
    mbstate_t state{};
    for (std::size_t at = 0; at < text.size();) {
        wchar_t character = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): only a null state would be shared.
        const auto length = ::mbrtowc(&character, text.data() + at, text.size() - at, &state);
        if (length == 0 || length > text.size()) return text.substr(0, at);
        const auto width = static_cast<std::size_t>(std::max(::wcwidth(character), 0));
        if (used + width > columns) return text.substr(0, at);
        used += width;
        at += length;
    }
    return text;
}

}  // namespace brindle::console

#include "console/RuntimeStatus.h"

#include <utility>

#include "console/Columns.h"
#include "console/TerminalText.h"
#include "exchange/ExchangeWords.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

std::string valueText(bool value) {
    return value ? "true" : "false";
}
std::string valueText(const std::string& value) {
    return value;
}

template <class Value>
std::optional<std::string> valueText(const std::optional<Value>& value) {
    if (!value) return std::nullopt;
    return valueText(*value);
}

}  // namespace

std::optional<ManagedWhatsAppRuntimeStatusRecord> readableStatus(FileManager& fileManager,
                                                                 const std::string& file) {
    try {
        return readRecord<ManagedWhatsAppRuntimeStatusRecord>(fileManager, file);
    } catch (const Failure&) {
        return std::nullopt;
    }
}

std::string workerObstacle(const ManagedWhatsAppRuntimeStatusRecord& status) {
    if (status.workerProcessRunning || !worker_state::isFinal(status.workerState)) return {};
    return "no worker runs, its state is \"" + status.workerState +
           "\" and stays so; start anew with a worker that works (--builtin-worker, --native-worker PATH)";
}

std::string sendingRemark(const ManagedWhatsAppRuntimeStatusRecord& status) {
    if (status.workerSupportsOutbound) return {};
    if (!workerObstacle(status).empty()) {
        return "No worker runs that could send this; the message is stored in outbound and waits there.";
    }
    if (!status.workerLastHeartbeatISO8601) return {};
    return "The worker says that it does not send (workerSupportsOutbound is false); the message is stored in "
           "outbound and waits for one that does.";
}

std::vector<StatusField> statusFields(const ManagedWhatsAppRuntimeStatusRecord& status) {
    std::vector<StatusField> result;
    forEachField<ManagedWhatsAppRuntimeStatusRecord>([&](const auto& field) {
        result.push_back({.name = std::string(field.name), .value = valueText(status.*(field.member))});
    });
    return result;
}

std::optional<std::string> statusValue(const ManagedWhatsAppRuntimeStatusRecord& status,
                                       std::string_view name) {
    for (auto& field : statusFields(status)) {
        if (field.name == name) return std::move(field.value);
    }
    return std::nullopt;
}

std::string statusTable(const std::vector<StatusField>& fields) {
    constexpr std::size_t name_columns = 32;
    std::string table;
    for (const auto& [name, value] : fields) {
        table.append("  ").append(leftAligned(name, name_columns));
        table.append(value ? terminalSafe(*value) : "-").append("\n");
    }
    return table;
}

}  // namespace brindle::console

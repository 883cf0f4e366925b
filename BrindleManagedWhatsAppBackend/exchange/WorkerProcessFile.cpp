#include "exchange/WorkerProcessFile.h"

#include <charconv>

#include "text/Failure.h"
#include "text/Text.h"

namespace brindle {

std::optional<pid_t> parsedProcessIdentifier(std::string_view text) {
    text = trimmed(text);
    // from_chars knows no plus sign.
    if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
    pid_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<pid_t> recordedWorkerProcess(FileManager& fileManager, const DataDirectory& directory) {
    try {
        return parsedProcessIdentifier(fileManager.readFile(directory.workerPIDFile));
    } catch (const Failure&) {
        return std::nullopt;
    }
}

}  // namespace brindle

#include "worker/webkit/SystemLog.h"

#include <glib.h>
#include <limits.h>
#include <unistd.h>

#include <array>
#include <chrono>

#include "system/WriteInTime.h"
#include "worker/webkit/OneLine.h"

namespace brindle {
namespace {

/// A pipe takes so much in one piece, so that the line stays whole among those of the engine's processes.
constexpr std::size_t longest_line = PIPE_BUF;

}  // namespace

void SystemLog::error(const std::string& message) const {
    constexpr gssize null_terminated = -1;
    const std::array<GLogField, 4> fields{{
        {"SUBSYSTEM", subsystem_.c_str(), null_terminated},
        {"CATEGORY", category_.c_str(), null_terminated},
        {"PRIORITY", "3", null_terminated},
        {"MESSAGE", message.data(), static_cast<gssize>(message.size())},
    }};
    if (g_log_writer_journald(G_LOG_LEVEL_CRITICAL, fields.data(), fields.size(), nullptr) ==
        G_LOG_WRITER_HANDLED) {
        return;
    }
    const std::string line = oneLine(category_ + ": " + message, longest_line - 1) + "\n";
    // A reader that does not read must not hold up the worker, nor its end; it loses the line.
    writeInTime(STDERR_FILENO, line, std::chrono::milliseconds(0));
}

}  // namespace brindle

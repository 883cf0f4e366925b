#include "worker/WorkerContext.h"

#include <chrono>
#include <memory>
#include <variant>

namespace brindle {

void WorkerContext::logError(const std::string& message) const noexcept {
    try {
        host.logError(message);
    } catch (const std::exception&) {
        // There is no other place for it; the work it speaks of goes on.
    }
}

bool WorkerContext::isQRCodeShown() const {
    return fileManager.fileExists(directory.workerQRCodeFile);
}

void WorkerContext::hideWindow() const {
    if (webView) webView->orderOut();
}

Task<> WorkerContext::nextTurn() const {
    Answer<std::monostate> turn;
    const auto deliver = turn.callback();
    const std::unique_ptr<HostTimer> timer =
        host.once(std::chrono::milliseconds(0), [deliver] { deliver(std::monostate()); });
    co_await turn;
}

}  // namespace brindle

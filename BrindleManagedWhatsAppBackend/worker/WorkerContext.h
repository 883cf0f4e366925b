#pragma once

#include <memory>
#include <string>

#include "exchange/DataDirectory.h"
#include "system/Clock.h"
#include "system/Environment.h"
#include "system/FileManager.h"
#include "text/Failure.h"
#include "worker/Task.h"
#include "worker/WebWorkerHost.h"
#include "worker/WorkerState.h"

namespace brindle {

/// What the parts of the worker service share. The service owns all of it and outlives the parts.
struct WorkerContext {
    const std::string& platform;
    const Environment& environment;
    const DataDirectory& directory;
    FileManager& fileManager;
    const Clock& clock;
    WebWorkerHost& host;
    /// Empty until the worker starts and once it ends.
    const std::unique_ptr<WebPage>& webView;
    WorkerState& state;

    /// Writes one line to the system log.
    void logError(const std::string& message) const noexcept;
    /// Whether the page shows a code to scan, as the last look at it found.
    bool isQRCodeShown() const;
    /// Takes the page's window off the screen, when there is one.
    void hideWindow() const;
    /// Lets everything else that is due go first.
    Task<> nextTurn() const;
};

}  // namespace brindle

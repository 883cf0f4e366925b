#pragma once

#include <memory>

#include "worker/WebWorkerHost.h"

namespace brindle {

/// Loads the module that holds the browser engine, from beside this executable or from the installation's
/// private library directory, and makes its host. Only the worker role pays for the engine, so nothing links
/// it. Throws Failure when the module or a library that it needs is missing.
std::unique_ptr<WebWorkerHost> makeWebWorkerHost(const WebWorkerHostOptions& options);

}  // namespace brindle

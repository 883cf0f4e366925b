#pragma once

#include "worker/WebWorkerHost.h"

namespace brindle {

/// How the worker wants its engine: the window, the log and the user agent. The operating system's version is
/// left out of the user agent on purpose.
WebWorkerHostOptions webWorkerHostOptions();

}  // namespace brindle

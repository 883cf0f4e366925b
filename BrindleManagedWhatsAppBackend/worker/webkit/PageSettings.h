#pragma once

#include <webkit2/webkit2.h>

#include "worker/WebWorkerHost.h"
#include "worker/webkit/GObjectPointer.h"

namespace brindle {

/// What a page gets of the engine: as much as a client that nobody looks at and listens to needs.
GObjectPointer<WebKitSettings> pageSettings(const WebWorkerHostOptions& options);

}  // namespace brindle

#include "worker/HostOptions.h"

namespace brindle {

WebWorkerHostOptions webWorkerHostOptions() {
    return {
        .applicationName = "BrindleManagedWhatsAppBackend",
        .logSubsystem = "com.brindle.Brindle",
        .logCategory = "ManagedWhatsAppWebWorker",
        .windowTitle = "Brindle WhatsApp Worker",
        .contentWidth_px = 1200,
        .contentHeight_px = 900,
        .userAgent =
            "Mozilla/5.0 (Macintosh; Intel Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.0 Safari/605.1.15",
        // Several times of what a large account needs.
        .pageMemoryLimit_mebibytes = 2048,
        // More than two of the longest answers at a time cost.
        .workerGrowthLimit_mebibytes = 512,
    };
}

}  // namespace brindle

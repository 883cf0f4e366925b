#include "worker/FreshLinkReset.h"

#include <variant>

namespace brindle {

Task<> FreshLinkReset::resetForFreshLinkIfRequested() {
    const auto& request = context_.directory.freshLinkRequestFile;
    if (!context_.fileManager.fileExists(request)) co_return;
    publisher_.publishWithoutAccount(worker_state::starting,
                                     "Resetting the managed WhatsApp Web session for a fresh link request.");
    context_.fileManager.removeIfPresent(context_.directory.workerQRCodeFile);
    Answer<std::monostate> removal;
    const auto deliver = removal.callback();
    context_.webView->removeAllWebsiteData([deliver] { deliver(std::monostate()); });
    co_await removal;
    // Only now, so that a crash in between repeats the reset at the next start.
    context_.fileManager.removeIfPresent(request);
    publisher_.publishWithoutAccount(
        worker_state::starting,
        "Managed WhatsApp worker cleared its local session. Loading a fresh WhatsApp Web login page.");
}

}  // namespace brindle

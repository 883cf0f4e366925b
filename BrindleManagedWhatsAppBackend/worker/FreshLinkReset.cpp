#include "worker/FreshLinkReset.h"

#include "text/Failure.h"

namespace brindle {

Task<> FreshLinkReset::resetForFreshLinkIfRequested() {
    const auto& request = context_.directory.freshLinkRequestFile;
    if (!context_.fileManager.fileExists(request)) co_return;
    publisher_.publishWithoutAccount(worker_state::starting,
                                     "Resetting the managed WhatsApp Web session for a fresh link request.");
    context_.fileManager.removeIfPresent(context_.directory.workerQRCodeFile);
    Answer<bool> removal;
    context_.webView->removeAllWebsiteData(removal.callback());
    const bool isGone = co_await removal;
    if (!isGone) {
        throw Failure(
            "The linked account cannot be forgotten: website data are left after their removal; start the worker again or remove them by hand.");
    }
    // Only now, so that a crash in between repeats the reset at the next start.
    context_.fileManager.removeIfPresent(request);
    publisher_.publishWithoutAccount(
        worker_state::starting,
        "Managed WhatsApp worker cleared its local session. Loading a fresh WhatsApp Web login page.");
}

}  // namespace brindle

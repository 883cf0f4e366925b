#include "worker/FreshLinkReset.h"

#include "text/Failure.h"

namespace brindle {

Task<> FreshLinkReset::resetForFreshLinkIfRequested() {
    if (!fileManager_.fileExists(requestFile_)) co_return;
    publisher_.publishWithoutAccount(worker_state::starting,
                                     "Resetting the managed WhatsApp Web session for a fresh link request.");
    qrCode_.removeIfPresent();
    Answer<bool> removal;
    page_.removeAllWebsiteData(removal.callback());
    const bool isGone = co_await removal;
    if (!isGone) {
        throw Failure(
            "The linked account cannot be forgotten: website data are left after their removal; start the worker again or remove them by hand.");
    }
    // Only now, so that a crash in between repeats the reset at the next start.
    fileManager_.removeIfPresent(requestFile_);
    publisher_.publishWithoutAccount(
        worker_state::starting,
        "Managed WhatsApp worker cleared its local session. Loading a fresh WhatsApp Web login page.");
}

}  // namespace brindle

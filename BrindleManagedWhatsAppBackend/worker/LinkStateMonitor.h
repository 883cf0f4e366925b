#pragma once

#include <optional>
#include <string>

#include "worker/PagePayloads.h"
#include "worker/PageScriptRunner.h"
#include "worker/Task.h"
#include "worker/WorkerContext.h"
#include "worker/WorkerStatusPublisher.h"

namespace brindle {

/// Finds out whether the page is linked to an account, shows its code to scan to outside readers and reloads
/// a page that renders neither. Nothing here fails outward.
class LinkStateMonitor {
  public:
    LinkStateMonitor(const WorkerContext& context, const WorkerStatusPublisher& publisher,
                     PageScriptRunner& scripts)
        : context_(context), publisher_(publisher), scripts_(scripts) {}

    /// Makes "worker-qr.png" what the page shows: written while there is a code, removed when there is none.
    Task<> refreshQRCode();
    /// Publishes the link state; true when the page was found linked.
    Task<bool> refreshLinkState();
    /// Reloads a page that has shown neither code nor session for too long, at most twice a load.
    void reloadIfLoginRenderStalled(bool skip);

  private:
    void takeQRCode(const std::optional<std::string>& dataURL);
    bool takeLinkState(const ManagedWhatsAppLinkedStatePayload& payload);
    void publishLinked(const ManagedWhatsAppLinkedStatePayload& payload);
    void publishNotLinked();
    bool isReloadDue() const;

    const WorkerContext& context_;
    const WorkerStatusPublisher& publisher_;
    PageScriptRunner& scripts_;
};

}  // namespace brindle

#pragma once

#include <optional>
#include <string>

#include "worker/LoadRecovery.h"
#include "worker/PagePayloads.h"
#include "worker/PageScriptRunner.h"
#include "worker/QRCodeFile.h"
#include "worker/Task.h"
#include "worker/WebWorkerHost.h"
#include "worker/WorkerLog.h"
#include "worker/WorkerState.h"
#include "worker/WorkerStatusPublisher.h"

namespace brindle {

/// Finds out whether the page is linked to an account, shows its code to scan to outside readers and reloads
/// a page that renders neither. Nothing here fails outward.
class LinkStateMonitor {
  public:
    /// Everything handed in outlives it.
    LinkStateMonitor(WebPage& page, PageScriptRunner& scripts, LoadRecovery& recovery,
                     const QRCodeFile& qrCode, WorkerState& state, const WorkerStatusPublisher& publisher,
                     const WorkerLog& log)
        : page_(page),
          scripts_(scripts),
          recovery_(recovery),
          qrCode_(qrCode),
          state_(state),
          publisher_(publisher),
          log_(log) {}

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

    WebPage& page_;
    PageScriptRunner& scripts_;
    LoadRecovery& recovery_;
    const QRCodeFile& qrCode_;
    WorkerState& state_;
    const WorkerStatusPublisher& publisher_;
    const WorkerLog& log_;
};

}  // namespace brindle

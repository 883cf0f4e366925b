#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "worker/LoadRecovery.h"
#include "worker/PageSource.h"
#include "worker/QRCodeFile.h"
#include "worker/WebWorkerHost.h"
#include "worker/WorkerLog.h"
#include "worker/WorkerState.h"
#include "worker/WorkerStatusPublisher.h"

namespace brindle {

/// Loads the page, and loads it again when it is lost or the network has not let it come. Nothing here fails
/// outward.
class PageLoader {
  public:
    /// Everything handed in outlives it.
    PageLoader(WebPage& page, const PageSource& source, LoadRecovery& recovery, WebWorkerHost& host,
               const QRCodeFile& qrCode, WorkerState& state, const WorkerStatusPublisher& publisher,
               const WorkerLog& log)
        : page_(page),
          source_(source),
          recovery_(recovery),
          host_(host),
          qrCode_(qrCode),
          state_(state),
          publisher_(publisher),
          log_(log) {}

    /// Issues the page load and publishes which page it is.
    void loadPage();
    /// The page has been loaded.
    void pageFinished();
    /// A load of the page has failed after or before its document had begun to arrive: says so and has it
    /// loaded anew later, unless a login or its chats show until then.
    void navigationFailed(const std::string& error);
    void provisionalNavigationFailed(const std::string& error);
    /// The page is gone: says so and loads it again, the later the more often in a row this happens.
    void pageLost(const std::string& error);
    /// True from the loss of the page until it is loaded again. There is nothing to ask a lost page, and
    /// people can read meanwhile why it was lost.
    bool isReloadPending() const { return reloadTimer_ != nullptr; }

  private:
    PageLoadOutcome issueLoad();
    void loadFailed(const std::string& detail);
    void reloadAfterLoss();
    void loadAnewUnlessInUse();
    /// For loads that a timer asks for.
    void reportingFailure(void (PageLoader::*load)()) noexcept;

    WebPage& page_;
    const PageSource& source_;
    LoadRecovery& recovery_;
    WebWorkerHost& host_;
    const QRCodeFile& qrCode_;
    WorkerState& state_;
    const WorkerStatusPublisher& publisher_;
    const WorkerLog& log_;
    bool hasIssuedLoad_ = false;
    /// The pause before the next reload should the page be lost.
    std::chrono::seconds reloadPause_{0};
    std::unique_ptr<HostTimer> reloadTimer_;
    /// Runs from a failed load until the page is loaded or lost.
    std::unique_ptr<HostTimer> newLoadTimer_;
    /// Runs while a loaded page stays up.
    std::unique_ptr<HostTimer> stabilityTimer_;
};

}  // namespace brindle

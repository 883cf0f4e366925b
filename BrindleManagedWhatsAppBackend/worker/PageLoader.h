#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "worker/WorkerContext.h"
#include "worker/WorkerStatusPublisher.h"

namespace brindle {

/// Loads the messaging service's web client, or a page for tests in its place, and loads it again when it is
/// lost or the network has not let it come. Nothing here fails outward.
class PageLoader {
  public:
    PageLoader(const WorkerContext& context, const WorkerStatusPublisher& publisher)
        : context_(context), publisher_(publisher) {}

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
    /// What there is to publish about a load.
    struct Outcome {
        bool isIssued;
        std::string detail;
    };

    Outcome issueLoad();
    Outcome loadTestHTML(const std::string& path);
    Outcome loadAddress(const std::string& address, std::string detail);
    void loadFailed(std::string detail);
    void reloadAfterLoss();
    void loadAnewUnlessInUse();

    const WorkerContext& context_;
    const WorkerStatusPublisher& publisher_;
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

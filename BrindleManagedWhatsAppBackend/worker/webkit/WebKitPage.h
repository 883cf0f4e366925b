#pragma once

#include <webkit2/webkit2.h>

#include <memory>
#include <optional>
#include <string>

#include "worker/WebWorkerHost.h"
#include "worker/webkit/GObjectPointer.h"
#include "worker/webkit/MainLoopTimer.h"
#include "worker/webkit/PageMemoryWatch.h"
#include "worker/webkit/PageSite.h"
#include "worker/webkit/SystemLog.h"
#include "worker/webkit/UndrawnWindow.h"

namespace brindle {

/// The page in an offscreen window: nothing is ever on a screen, yet the page is laid out, painted and timed
/// as if it were in front.
class WebKitPage final : public WebPage {
  public:
    /// The context's website data and policies apply to the page. All but the delegate belong to the host and
    /// outlive it.
    WebKitPage(const WebWorkerHostOptions& options, WebKitWebContext& context, const SystemLog& log,
               WebPageDelegate& delegate);
    ~WebKitPage() override;
    WebKitPage(const WebKitPage&) = delete;
    WebKitPage& operator=(const WebKitPage&) = delete;

    bool isAddress(std::string_view text) const override;
    void loadText(const std::string& html, const std::string& baseDirectory) override;
    void loadAddress(const std::string& address, std::chrono::seconds timeout) override;
    void reload() override;
    void evaluate(const std::string& script, std::function<void(EvaluationOutcome)> done) override;
    void removeAllWebsiteData(std::function<void(bool isGone)> done) override;
    void endProcess() override;
    void orderOut() override;

  private:
    /// What the worker asked to be shown; what the page shows may have moved on within its site.
    struct Source {
        /// Of a text its base address.
        std::string address;
        std::optional<std::string> text;
        std::chrono::seconds timeout{0};
    };
    /// Whether a load failed before or after its document had begun to arrive.
    enum class Stage { provisional, committed };
    enum class Progress { idle, provisional, committed, finished };

    /// Has the page take what the engine reports; the engine's frames know no exceptions.
    template <class Work>
    static void hear(gpointer self, const Work& work) noexcept;

    void openView();
    void connectSignals();
    void load();
    void loadChanged(WebKitLoadEvent event);
    void loadFailed(WebKitLoadEvent event, const std::string& address, const GError& error);
    void deny(const std::string& denial);
    void documentCommitted();
    void reportFailure(Stage stage, const std::string& error);
    void watchTransfer();
    void transferStalled();
    bool decidePolicy(WebKitPolicyDecision& decision, WebKitPolicyDecisionType type);
    bool decideResponse(WebKitResponsePolicyDecision& decision);
    void endProcessBecause(const char* reason);
    void processTerminated(WebKitWebProcessTerminationReason reason);

    const WebWorkerHostOptions& options_;
    WebKitWebContext& context_;
    const SystemLog& log_;
    WebPageDelegate& delegate_;
    WidgetPointer window_;
    WebKitWebView* view_ = nullptr;
    /// The view is of no use any more.
    bool isProcessGone_ = false;
    Source source_;
    std::optional<PageSite> site_;
    Progress progress_ = Progress::idle;
    std::unique_ptr<MainLoopTimer> stallTimer_;
    std::unique_ptr<MainLoopTimer> endTimer_;
    std::unique_ptr<MainLoopTimer> denialPause_;
    /// Why the process is being ended from here; null when it is not.
    const char* endReason_ = nullptr;
    PageMemoryWatch memoryWatch_;
};

}  // namespace brindle

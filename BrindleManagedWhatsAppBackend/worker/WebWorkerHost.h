#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// What the worker's logic needs of a browser engine and its main loop, and nothing more. The logic never
/// sees a toolkit; the toolkit never sees the data directory.
///
/// One thread owns everything here: every call is made on it, and every callback arrives on it, never from
/// within the call that asked for it.
namespace brindle {

/// How the evaluation of a script ended.
struct EvaluationOutcome {
    /// The result when it was a string; nothing for null, undefined and every other type. UTF-8.
    std::optional<std::string> value;
    /// Set when the evaluation failed: one sentence.
    std::optional<std::string> error;
};

/// Hears what happens to the page's top-level document.
class WebPageDelegate {
  public:
    virtual ~WebPageDelegate() = default;

    /// The document and what belongs to it has been loaded.
    virtual void pageFinished() = 0;
    /// A load failed after its document had begun to arrive. `error` is one sentence.
    virtual void navigationFailed(const std::string& error) = 0;
    /// A load failed before its document had begun to arrive.
    virtual void provisionalNavigationFailed(const std::string& error) = 0;
    /// The page is gone: its process has ended, or it has left for an address that nobody can refuse. `error`
    /// says which way it went.
    virtual void pageLost(const std::string& error) = 0;
};

/// One page in a window that is never shown, with the website data that persists between starts.
class WebPage {
  public:
    virtual ~WebPage() = default;

    /// True for an absolute URL (RFC 3986).
    virtual bool isAddress(std::string_view text) const = 0;
    /// Shows `html` (UTF-8); relative addresses in it count from `baseDirectory`, an absolute path.
    virtual void loadText(const std::string& html, const std::string& baseDirectory) = 0;
    /// Loads a URL. The load fails once it has made no progress for `timeout`.
    virtual void loadAddress(const std::string& address, std::chrono::seconds timeout) = 0;
    /// Loads the current page again.
    virtual void reload() = 0;
    /// Runs a script in the page; an answer that no honest page gives for its length is a failure. `done` may
    /// never be called when the page hangs or goes away.
    virtual void evaluate(const std::string& script, std::function<void(EvaluationOutcome)> done) = 0;
    /// Removes website data of every type, whenever it was stored. `done` hears whether all of it is gone.
    virtual void removeAllWebsiteData(std::function<void(bool isGone)> done) = 0;
    /// Ends the process that runs a page which has stopped answering; the delegate hears of it as of any end.
    virtual void endProcess() = 0;
    /// Takes the page's window off the screen; the page stays live.
    virtual void orderOut() = 0;
};

/// Fires until it is destroyed, which its own callback may do.
class HostTimer {
  public:
    virtual ~HostTimer() = default;
};

/// The engine as the worker uses it.
class WebWorkerHost {
  public:
    virtual ~WebWorkerHost() = default;

    /// Opens the page in its hidden window. `delegate` must outlive the page. Throws Failure.
    virtual std::unique_ptr<WebPage> openPage(WebPageDelegate& delegate) = 0;
    /// Calls `tick` every `interval`, at most `tolerance` late so that wake-ups can be shared.
    virtual std::unique_ptr<HostTimer> repeat(std::chrono::milliseconds interval,
                                              std::chrono::milliseconds tolerance,
                                              std::function<void()> tick) = 0;
    /// Calls `action` once, as soon as `delay` has passed; without a delay, after everything else that is
    /// due.
    virtual std::unique_ptr<HostTimer> once(std::chrono::milliseconds delay,
                                            std::function<void()> action) = 0;
    /// Runs the main loop until end() is called or a signal asks for the end (SIGTERM, SIGINT, SIGHUP).
    virtual void run() = 0;
    /// Lets run() return.
    virtual void end() = 0;
    /// Writes one line to the system log at error level.
    virtual void logError(const std::string& message) = 0;
};

/// Where the engine keeps what outlives it, the login above all. Both are there and private to this user.
struct WebsiteDataFolders {
    std::string data;
    std::string cache;
};

/// What a host is made with.
struct WebWorkerHostOptions {
    std::string applicationName;
    WebsiteDataFolders folders{};
    std::string logSubsystem;
    std::string logCategory;
    std::string windowTitle;
    int contentWidth_px = 0;
    int contentHeight_px = 0;
    std::string userAgent;
    /// A page that needs more is ended.
    unsigned pageMemoryLimit_mebibytes = 0;
    /// A page that makes this very process grow by more is ended.
    unsigned workerGrowthLimit_mebibytes = 0;
};

/// The one function of the loadable module that holds the engine: makes the host. Throws Failure when the
/// machine lacks what the engine needs, with a sentence that says what and how to provide it.
using MakeWebWorkerHost = std::unique_ptr<WebWorkerHost> (*)(const WebWorkerHostOptions& options);
/// Its name in the module.
inline constexpr const char* make_web_worker_host_symbol = "brindleMakeWebWorkerHost";

}  // namespace brindle

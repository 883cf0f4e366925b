#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"
#include "worker/HostOptions.h"
#include "worker/WebWorkerHost.h"

namespace brindle::test {

/// A page in the real engine, driven synchronously: loaded through the same module as in the worker, with
/// website data in a directory of its own and a display of the test's own.
class EnginePage : private WebPageDelegate {
  public:
    EnginePage() : EnginePage(std::make_shared<TemporaryDirectory>()) {}
    /// With the website data of an earlier page that had the same directory.
    explicit EnginePage(std::shared_ptr<TemporaryDirectory> directory,
                        const WebWorkerHostOptions& options = webWorkerHostOptions());
    ~EnginePage() override;
    EnginePage(const EnginePage&) = delete;
    EnginePage& operator=(const EnginePage&) = delete;

    /// Shows a document and waits until it has been loaded.
    void load(const std::string& html);
    /// Loads a URL and waits for it. Throws std::runtime_error when the load fails.
    void loadAddress(const std::string& address);
    /// Runs a script and waits for its answer. Throws std::runtime_error when the evaluation fails.
    std::optional<std::string> evaluate(const std::string& script);
    /// Waits until the expression, evaluated in the page, gives true.
    void waitUntil(const std::string& expression, std::chrono::seconds patience = must_happen_deadline);
    /// Runs the main loop until the condition holds.
    void runUntil(const std::function<bool()>& condition, const std::string& what,
                  std::chrono::seconds patience = must_happen_deadline);

    WebWorkerHost& host() { return *host_; }
    WebPage& page() { return *page_; }

    /// What the page has reported since the last load() or loadAddress().
    struct Events {
        int finished = 0;
        std::vector<std::string> failures;
        std::vector<std::string> provisionalFailures;
        std::vector<std::string> processEnds;
    };
    const Events& events() const { return events_; }
    void forgetEvents() { events_ = {}; }

    /// Where the engine keeps website data, and where its cache.
    std::filesystem::path dataDirectory() const { return directory_->path() / "data"; }
    std::filesystem::path cacheDirectory() const { return directory_->path() / "cache"; }

  private:
    void pageFinished() override { ++events_.finished; }
    void navigationFailed(const std::string& error) override { events_.failures.push_back(error); }
    void provisionalNavigationFailed(const std::string& error) override {
        events_.provisionalFailures.push_back(error);
    }
    void pageLost(const std::string& error) override { events_.processEnds.push_back(error); }

    std::shared_ptr<TemporaryDirectory> directory_;
    Events events_;
    std::unique_ptr<WebWorkerHost> host_;
    std::unique_ptr<WebPage> page_;
};

}  // namespace brindle::test

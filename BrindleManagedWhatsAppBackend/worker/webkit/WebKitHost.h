#pragma once

#include <webkit2/webkit2.h>

#include <array>
#include <memory>
#include <string>

#include "worker/WebWorkerHost.h"
#include "worker/webkit/EngineHome.h"
#include "worker/webkit/GObjectPointer.h"
#include "worker/webkit/SystemLog.h"

namespace brindle {

/// The engine in this process: main loop, website data and log.
class WebKitHost final : public WebWorkerHost {
  public:
    /// Throws Failure when display or sandbox are missing.
    explicit WebKitHost(const WebWorkerHostOptions& options);
    ~WebKitHost() override;
    WebKitHost(const WebKitHost&) = delete;
    WebKitHost& operator=(const WebKitHost&) = delete;

    std::unique_ptr<WebPage> openPage(WebPageDelegate& delegate) override;
    std::unique_ptr<HostTimer> repeat(std::chrono::milliseconds interval, std::chrono::milliseconds tolerance,
                                      std::function<void()> tick) override;
    std::unique_ptr<HostTimer> once(std::chrono::milliseconds delay, std::function<void()> action) override;
    void run() override;
    void end() override;
    void logError(const std::string& message) override;

  private:
    WebWorkerHostOptions options_;
    SystemLog log_;
    EngineHome home_;
    bool hasEnded_ = false;
    std::array<GSource*, 3> signalSources_{};
    GObjectPointer<WebKitWebContext> context_;
};

}  // namespace brindle

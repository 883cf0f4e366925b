#pragma once

#include <string>
#include <utility>

#include "system/FileManager.h"
#include "worker/QRCodeFile.h"
#include "worker/Task.h"
#include "worker/WebWorkerHost.h"
#include "worker/WorkerStatusPublisher.h"

namespace brindle {

/// Lets the worker forget its linked account when an outside party has asked for it by leaving
/// "fresh-link-request.flag".
class FreshLinkReset {
  public:
    /// `requestFile` is the request. Everything handed in outlives it.
    FreshLinkReset(WebPage& page, FileManager& fileManager, std::string requestFile, const QRCodeFile& qrCode,
                   const WorkerStatusPublisher& publisher)
        : page_(page),
          fileManager_(fileManager),
          requestFile_(std::move(requestFile)),
          qrCode_(qrCode),
          publisher_(publisher) {}

    /// Removes everything that pages have stored, and then the request. Never fails outward.
    Task<> resetForFreshLinkIfRequested();

  private:
    WebPage& page_;
    FileManager& fileManager_;
    std::string requestFile_;
    const QRCodeFile& qrCode_;
    const WorkerStatusPublisher& publisher_;
};

}  // namespace brindle

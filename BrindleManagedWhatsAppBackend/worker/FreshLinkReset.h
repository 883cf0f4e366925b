#pragma once

#include "worker/Task.h"
#include "worker/WorkerContext.h"
#include "worker/WorkerStatusPublisher.h"

namespace brindle {

/// Lets the worker forget its linked account when an outside party has asked for it by leaving
/// "fresh-link-request.flag".
class FreshLinkReset {
  public:
    FreshLinkReset(const WorkerContext& context, const WorkerStatusPublisher& publisher)
        : context_(context), publisher_(publisher) {}

    /// Removes everything that pages have stored, and then the request. Never fails outward.
    Task<> resetForFreshLinkIfRequested();

  private:
    const WorkerContext& context_;
    const WorkerStatusPublisher& publisher_;
};

}  // namespace brindle

#pragma once

#include <string>

#include "system/Environment.h"
#include "system/FileManager.h"
#include "worker/WebWorkerHost.h"

namespace brindle {

/// What there is to publish about a load that was asked for.
struct PageLoadOutcome {
    bool isIssued;
    std::string detail;
};

/// Which page the worker shows: the messaging service's web client, or a page for tests in its place.
class PageSource {
  public:
    /// Both outlive it.
    PageSource(const Environment& environment, FileManager& fileManager)
        : environment_(environment), fileManager_(fileManager) {}

    /// Has the page load what the environment names. A test page that cannot be read is an outcome, too;
    /// nothing else is tried then.
    PageLoadOutcome loadInto(WebPage& page) const;

  private:
    PageLoadOutcome loadTestHTML(WebPage& page, const std::string& path) const;

    const Environment& environment_;
    FileManager& fileManager_;
};

}  // namespace brindle

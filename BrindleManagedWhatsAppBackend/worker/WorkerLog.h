#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "worker/WebWorkerHost.h"

namespace brindle {

/// The system log as the worker's parts use it: a line that cannot be written is dropped, since there is no
/// other place for it and the work it speaks of goes on.
class WorkerLog {
  public:
    /// `host` outlives it.
    explicit WorkerLog(WebWorkerHost& host) : host_(host) {}

    /// Writes one line.
    void error(const std::string& message) const noexcept;
    /// Writes what failed, and why: "QR fetch failed: Permission denied."
    void failure(std::string_view what, const std::exception& reason) const noexcept;

  private:
    WebWorkerHost& host_;
};

}  // namespace brindle

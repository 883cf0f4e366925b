#pragma once

#include <string>
#include <utility>

#include "exchange/ExchangeRecords.h"
#include "system/FileManager.h"
#include "worker/WebWorkerHost.h"
#include "worker/WorkerLog.h"
#include "worker/WorkerState.h"

namespace brindle {

/// Follows "worker-control.json", by which the backend says what to watch, and keeps the page's window off
/// the screen.
class WorkerControl {
  public:
    /// Follows `controlFile`, of which only records for `platform` count. Everything handed in outlives it.
    WorkerControl(WebPage& page, std::string platform, FileManager& fileManager, std::string controlFile,
                  WorkerState& state, const WorkerLog& log)
        : page_(page),
          platform_(std::move(platform)),
          fileManager_(fileManager),
          controlFile_(std::move(controlFile)),
          state_(state),
          log_(log) {}

    /// Takes the file over into the state. A missing or undecodable file means that nothing is watched; a
    /// record for another platform changes nothing. Never fails outward.
    void refreshControl() noexcept;

  private:
    /// False when the record is for another platform.
    bool takeRecord();
    void takeScope(const ManagedWhatsAppWorkerControlScope& scope);
    void forgetWatchedChat();

    WebPage& page_;
    std::string platform_;
    FileManager& fileManager_;
    std::string controlFile_;
    WorkerState& state_;
    const WorkerLog& log_;
};

}  // namespace brindle

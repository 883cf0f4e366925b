#include "backend/InboundWatch.h"

#include <algorithm>
#include <utility>

#include "exchange/RecordFiles.h"
#include "text/WithoutFailing.h"

namespace brindle {
namespace {

/// Whether a record may be among what has come. Hidden files are the unfinished ones of writers.
bool tellsOfRecords(const DirectoryNews& news) {
    return news.isCutOff || std::any_of(news.names.begin(), news.names.end(), [](const auto& name) {
               return !isHiddenName(name) && isRecordFileName(name);
           });
}

}  // namespace

void InboundWatch::keepUp() noexcept {
    if (!uses_.delivery.isListening()) return end();
    withoutFailing(
        [this] {
            if (!watch_) begin();
            // What came before the system tells of it is found by a look at everything.
            if (watch_->follow(uses_.directory.inbound)) uses_.delivery.lookAtEverythingNext();
        },
        // Tried again at the next beat; until then nothing is lost but time.
        [this](const std::exception&) { end(); });
}

void InboundWatch::begin() {
    std::shared_ptr<DirectoryWatch> watch = uses_.fileManager.makeDirectoryWatch();
    readiness_ = std::make_unique<ReadinessWatch>(uses_.queue, watch->descriptor(), Readiness::readable,
                                                  [this, watch] {
                                                      takeNews(*watch);
                                                      return true;
                                                  });
    watch_ = std::move(watch);
}

void InboundWatch::end() noexcept {
    readiness_.reset();
    watch_.reset();
}

void InboundWatch::takeNews(DirectoryWatch& watch) noexcept {
    withoutFailing(
        [&] {
            if (tellsOfRecords(watch.takeNews())) uses_.delivery.drainWhatHasChanged();
        },
        // What was taken from the system is told by nobody again.
        [this](const std::exception&) { uses_.delivery.lookAtEverythingNext(); });
}

}  // namespace brindle

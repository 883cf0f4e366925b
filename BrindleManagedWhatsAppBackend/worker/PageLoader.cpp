#include "worker/PageLoader.h"

#include <algorithm>

#include "text/WithoutFailing.h"

namespace brindle {
namespace {

using std::chrono::seconds;

constexpr auto navigation_failed = "Managed WhatsApp worker navigation failed: ";
constexpr auto provisional_navigation_failed = "Managed WhatsApp worker provisional navigation failed: ";

constexpr seconds shortest_reload_pause{1};
constexpr seconds longest_reload_pause{60};
/// A page that has stayed up so long is sound; its next loss is not a consequence of the last one.
constexpr seconds stable_after{60};
/// From the last failed load to a new one: both reloads of a page that does not render have been tried by
/// then.
constexpr seconds new_load_pause{30};

seconds longerPause(seconds pause) {
    return std::clamp(2 * pause, shortest_reload_pause, longest_reload_pause);
}

}  // namespace

void PageLoader::loadPage() {
    reloadTimer_.reset();
    const auto outcome = issueLoad();
    if (outcome.isIssued) {
        publisher_.publishWithoutAccount(worker_state::starting, outcome.detail);
    } else {
        publisher_.publish(worker_state::error, outcome.detail);
    }
}

PageLoadOutcome PageLoader::issueLoad() {
    hasIssuedLoad_ = true;
    newLoadTimer_.reset();
    recovery_.beginAnew();
    return source_.loadInto(page_);
}

void PageLoader::pageFinished() {
    newLoadTimer_.reset();
    stabilityTimer_ = host_.once(stable_after, [this] { reloadPause_ = seconds{0}; });
}

void PageLoader::navigationFailed(const std::string& error) {
    loadFailed(navigation_failed + error);
}

void PageLoader::provisionalNavigationFailed(const std::string& error) {
    loadFailed(provisional_navigation_failed + error);
}

void PageLoader::loadFailed(const std::string& detail) {
    publisher_.publishWithoutAccount(worker_state::error, detail);
    // A lost page is about to be loaded anyway.
    if (isReloadPending()) return;
    newLoadTimer_ =
        host_.once(new_load_pause, [this] { reportingFailure(&PageLoader::loadAnewUnlessInUse); });
}

void PageLoader::loadAnewUnlessInUse() {
    newLoadTimer_.reset();
    if (!state_.isLinked && !qrCode_.exists()) loadPage();
}

void PageLoader::pageLost(const std::string& error) {
    const auto detail = navigation_failed + error;
    log_.error(detail);
    state_.isLinked = false;
    publisher_.publishWithoutAccount(worker_state::error, detail);
    stabilityTimer_.reset();
    newLoadTimer_.reset();
    // Before the first load the page has nothing to come back to, and one loss may be reported several times.
    if (!hasIssuedLoad_ || isReloadPending()) return;
    reloadTimer_ = host_.once(reloadPause_, [this] { reportingFailure(&PageLoader::reloadAfterLoss); });
    reloadPause_ = longerPause(reloadPause_);
}

void PageLoader::reloadAfterLoss() {
    reloadTimer_.reset();
    const auto outcome = issueLoad();
    // A load that was issued says nothing yet, so that people can read why it was needed.
    if (!outcome.isIssued) publisher_.publish(worker_state::error, outcome.detail);
}

void PageLoader::reportingFailure(void (PageLoader::*load)()) noexcept {
    withoutFailing([&] { (this->*load)(); },
                   [this](const std::exception& error) { log_.failure("A load of the page failed", error); });
}

}  // namespace brindle

#include "worker/PageLoader.h"

#include <algorithm>
#include <utility>

#include "exchange/EnvironmentKeys.h"
#include "system/Paths.h"
#include "text/Text.h"

namespace brindle {
namespace {

using std::chrono::seconds;

constexpr auto web_client_address = "https://web.whatsapp.com/";
constexpr auto navigation_failed = "Managed WhatsApp worker navigation failed: ";
constexpr auto provisional_navigation_failed = "Managed WhatsApp worker provisional navigation failed: ";
constexpr seconds request_timeout{60};

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

std::string readText(FileManager& fileManager, const std::string& path) {
    auto text = fileManager.readFile(path);
    if (!isValidUtf8(text)) throw Failure("The file \"" + singleLine(path) + "\" is not UTF-8 text.");
    return text;
}

}  // namespace

void PageLoader::loadPage() {
    if (!context_.webView) return;
    reloadTimer_.reset();
    auto outcome = issueLoad();
    if (outcome.isIssued) {
        publisher_.publishWithoutAccount(worker_state::starting, std::move(outcome.detail));
    } else {
        publisher_.publish(worker_state::error, std::move(outcome.detail));
    }
}

PageLoader::Outcome PageLoader::issueLoad() {
    hasIssuedLoad_ = true;
    newLoadTimer_.reset();
    context_.state.pageLoadIssuedAt = context_.clock.now();
    context_.state.launchRecoveryAttemptCount = 0;
    context_.state.lastRecoveryAttemptAt.reset();
    if (const auto path = nonBlankValue(context_.environment, environment_key::worker_test_html_path)) {
        return loadTestHTML(standardizedPath(*path));
    }
    const auto address = nonBlankValue(context_.environment, environment_key::worker_test_url);
    if (address && context_.webView->isAddress(*address)) {
        return loadAddress(*address, "Loading managed WhatsApp worker test URL " + *address + ".");
    }
    return loadAddress(web_client_address, "Loading WhatsApp Web in the managed runtime worker.");
}

PageLoader::Outcome PageLoader::loadTestHTML(const std::string& path) {
    try {
        const auto html = readText(context_.fileManager, path);
        context_.webView->loadText(html, standardizedPath(joinedPath(path, "..")));
    } catch (const std::exception& error) {
        return {.isIssued = false,
                .detail = "Failed to load managed WhatsApp worker test HTML: " + descriptionOf(error)};
    }
    return {.isIssued = true,
            .detail = "Loading managed WhatsApp worker test HTML from " +
                      std::string(lastPathComponent(path)) + "."};
}

PageLoader::Outcome PageLoader::loadAddress(const std::string& address, std::string detail) {
    context_.webView->loadAddress(address, request_timeout);
    return {.isIssued = true, .detail = std::move(detail)};
}

void PageLoader::pageFinished() {
    newLoadTimer_.reset();
    stabilityTimer_ = context_.host.once(stable_after, [this] { reloadPause_ = seconds{0}; });
}

void PageLoader::navigationFailed(const std::string& error) {
    loadFailed(navigation_failed + error);
}

void PageLoader::provisionalNavigationFailed(const std::string& error) {
    loadFailed(provisional_navigation_failed + error);
}

void PageLoader::loadFailed(std::string detail) {
    publisher_.publishWithoutAccount(worker_state::error, std::move(detail));
    // A lost page is about to be loaded anyway.
    if (isReloadPending()) return;
    newLoadTimer_ = context_.host.once(new_load_pause, [this] { loadAnewUnlessInUse(); });
}

void PageLoader::loadAnewUnlessInUse() {
    newLoadTimer_.reset();
    if (!context_.state.isLinked && !context_.isQRCodeShown()) loadPage();
}

void PageLoader::pageLost(const std::string& error) {
    const auto detail = navigation_failed + error;
    context_.logError(detail);
    context_.state.isLinked = false;
    publisher_.publishWithoutAccount(worker_state::error, detail);
    stabilityTimer_.reset();
    newLoadTimer_.reset();
    // Before the first load the page has nothing to come back to, and one loss may be reported several times.
    if (!hasIssuedLoad_ || isReloadPending()) return;
    reloadTimer_ = context_.host.once(reloadPause_, [this] { reloadAfterLoss(); });
    reloadPause_ = longerPause(reloadPause_);
}

void PageLoader::reloadAfterLoss() {
    reloadTimer_.reset();
    if (!context_.webView) return;
    auto outcome = issueLoad();
    // A load that was issued says nothing yet, so that people can read why it was needed.
    if (!outcome.isIssued) publisher_.publish(worker_state::error, std::move(outcome.detail));
}

}  // namespace brindle

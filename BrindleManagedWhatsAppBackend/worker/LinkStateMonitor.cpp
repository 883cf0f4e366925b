#include "worker/LinkStateMonitor.h"

#include <chrono>
#include <cstddef>
#include <string_view>
#include <utility>

#include "text/Base64.h"
#include "worker/PageScripts.h"

namespace brindle {
namespace {

constexpr std::string_view png_data_url_prefix = "data:image/png;base64,";
/// No picture of a code is longer; what a page makes up is not written to disk again and again.
constexpr std::size_t longest_picture_characters = std::size_t{1} << 20U;
constexpr std::string_view default_account = "WhatsApp Web";
constexpr auto scan_detail = "Scan the QR code with WhatsApp on your phone.";
/// How long a page may render before it is loaded again.
constexpr std::chrono::seconds render_time_limit{12};
constexpr int most_reloads_per_load = 2;

}  // namespace

Task<> LinkStateMonitor::refreshQRCode() {
    if (!context_.webView) co_return;
    try {
        std::string script(page_script::qr_code);
        const auto dataURL = co_await scripts_.evaluateJavaScriptStringAsync(std::move(script));
        takeQRCode(dataURL);
    } catch (const std::exception& error) {
        context_.logError("QR fetch failed: " + descriptionOf(error));
    }
}

void LinkStateMonitor::takeQRCode(const std::optional<std::string>& dataURL) {
    const auto& file = context_.directory.workerQRCodeFile;
    if (!dataURL || !dataURL->starts_with(png_data_url_prefix) ||
        dataURL->size() > longest_picture_characters) {
        return context_.fileManager.removeIfPresent(file);
    }
    const auto picture = base64Decoded(std::string_view(*dataURL).substr(png_data_url_prefix.size()));
    if (!picture) return;
    context_.fileManager.writeFileAtomically(file, *picture, Durability::process);
    // The canvas of a linked page is no request to scan.
    const auto& word = context_.state.workerState;
    if (word == worker_state::linked || word == worker_state::watching_chat) return;
    publisher_.publish(worker_state::waiting_for_qr, scan_detail);
}

Task<bool> LinkStateMonitor::refreshLinkState() {
    if (!context_.webView) co_return false;
    try {
        std::string script(page_script::link_state);
        const auto result = co_await scripts_.evaluateJavaScriptStringAsync(std::move(script));
        if (!result) co_return false;
        co_return takeLinkState(decodedPageResult<ManagedWhatsAppLinkedStatePayload>(*result));
    } catch (const std::exception& error) {
        context_.state.isLinked = false;
        publisher_.publishWithoutAccount(worker_state::error,
                                         "Failed to detect WhatsApp link state: " + descriptionOf(error));
        context_.hideWindow();
    }
    co_return false;
}

bool LinkStateMonitor::takeLinkState(const ManagedWhatsAppLinkedStatePayload& payload) {
    context_.state.isLinked = payload.linked;
    if (payload.linked) {
        publishLinked(payload);
    } else {
        publishNotLinked();
    }
    context_.hideWindow();
    return payload.linked;
}

void LinkStateMonitor::publishLinked(const ManagedWhatsAppLinkedStatePayload& payload) {
    context_.state.displayName = payload.account.value_or(std::string(default_account));
    const auto watchedTitle = context_.state.currentWatchedTitle.value_or("");
    publisher_.publish(
        worker_state::linked,
        watchedTitle.empty()
            ? "Linked to WhatsApp Web. Select a watched chat title to start live listening."
            : "Linked to WhatsApp Web. Managed live listening is configured for '" + watchedTitle + "'.");
}

void LinkStateMonitor::publishNotLinked() {
    context_.state.displayName.reset();
    if (context_.isQRCodeShown()) return publisher_.publish(worker_state::waiting_for_qr, scan_detail);
    reloadIfLoginRenderStalled(false);
    publisher_.publishWithoutAccount(worker_state::starting,
                                     "Waiting for WhatsApp Web to render login state.");
}

void LinkStateMonitor::reloadIfLoginRenderStalled(bool skip) {
    if (skip || context_.isQRCodeShown() || !context_.webView || !isReloadDue()) return;
    WorkerState& state = context_.state;
    ++state.launchRecoveryAttemptCount;
    state.lastRecoveryAttemptAt = context_.clock.now();
    publisher_.publishWithoutAccount(
        worker_state::starting,
        "WhatsApp Web is still rendering login state. Reloading the managed runtime worker (attempt " +
            std::to_string(state.launchRecoveryAttemptCount) + ").");
    context_.webView->reload();
}

bool LinkStateMonitor::isReloadDue() const {
    const WorkerState& state = context_.state;
    const auto now = context_.clock.now();
    if (now - state.pageLoadIssuedAt < render_time_limit) return false;
    if (state.lastRecoveryAttemptAt && now - *state.lastRecoveryAttemptAt < render_time_limit) return false;
    return state.launchRecoveryAttemptCount < most_reloads_per_load;
}

}  // namespace brindle

#include "worker/LinkStateMonitor.h"

#include <cstddef>
#include <string_view>
#include <utility>

#include "text/Base64.h"
#include "text/Failure.h"
#include "text/Text.h"
#include "worker/PageScripts.h"

namespace brindle {
namespace {

constexpr std::string_view png_data_url_prefix = "data:image/png;base64,";
/// How every PNG file begins (ISO/IEC 15948).
constexpr std::string_view png_signature = "\x89PNG\r\n\x1A\n";
/// No picture of a code is longer; what a page makes up is not written to disk again and again.
constexpr std::size_t longest_picture_bytes = std::size_t{1} << 20U;
constexpr std::string_view default_account = "WhatsApp Web";
constexpr auto scan_detail = "Scan the QR code with WhatsApp on your phone.";

bool canBeACode(const std::string& picture) {
    return picture.starts_with(png_signature) && picture.size() <= longest_picture_bytes;
}

}  // namespace

Task<> LinkStateMonitor::refreshQRCode() {
    try {
        std::string script(page_script::qr_code);
        const auto dataURL = co_await scripts_.evaluateJavaScriptStringAsync(std::move(script));
        takeQRCode(dataURL);
    } catch (const std::exception& error) {
        log_.failure("QR fetch failed", error);
    }
}

void LinkStateMonitor::takeQRCode(const std::optional<std::string>& dataURL) {
    if (!dataURL || !dataURL->starts_with(png_data_url_prefix)) return qrCode_.removeIfPresent();
    const auto picture = base64Decoded(std::string_view(*dataURL).substr(png_data_url_prefix.size()));
    if (!picture) return;
    if (!canBeACode(*picture)) return qrCode_.removeIfPresent();
    qrCode_.write(*picture);
    // The canvas of a linked page is no request to scan.
    const auto& word = state_.workerState;
    if (word == worker_state::linked || word == worker_state::watching_chat) return;
    publisher_.publish(worker_state::waiting_for_qr, scan_detail);
}

Task<bool> LinkStateMonitor::refreshLinkState() {
    try {
        std::string script(page_script::link_state);
        const auto result = co_await scripts_.evaluateJavaScriptStringAsync(std::move(script));
        if (!result) co_return false;
        co_return takeLinkState(decodedPageResult<ManagedWhatsAppLinkedStatePayload>(*result));
    } catch (const std::exception& error) {
        state_.isLinked = false;
        publisher_.publishWithoutAccount(worker_state::error,
                                         "Failed to detect WhatsApp link state: " + descriptionOf(error));
        page_.orderOut();
    }
    co_return false;
}

bool LinkStateMonitor::takeLinkState(const ManagedWhatsAppLinkedStatePayload& payload) {
    state_.isLinked = payload.linked;
    if (payload.linked) {
        publishLinked(payload);
    } else {
        publishNotLinked();
    }
    page_.orderOut();
    return payload.linked;
}

void LinkStateMonitor::publishLinked(const ManagedWhatsAppLinkedStatePayload& payload) {
    state_.displayName =
        shortened(payload.account.value_or(std::string(default_account)), longest_shown_title);
    const auto watchedTitle = state_.currentWatchedTitle.value_or("");
    publisher_.publish(
        worker_state::linked,
        watchedTitle.empty()
            ? "Linked to WhatsApp Web. Select a watched chat title to start live listening."
            : "Linked to WhatsApp Web. Managed live listening is configured for '" + watchedTitle + "'.");
}

void LinkStateMonitor::publishNotLinked() {
    state_.displayName.reset();
    if (qrCode_.exists()) return publisher_.publish(worker_state::waiting_for_qr, scan_detail);
    reloadIfLoginRenderStalled(false);
    publisher_.publishWithoutAccount(worker_state::starting,
                                     "Waiting for WhatsApp Web to render login state.");
}

void LinkStateMonitor::reloadIfLoginRenderStalled(bool skip) {
    if (skip || qrCode_.exists() || !recovery_.isReloadDue()) return;
    const int attempt = recovery_.countReload();
    publisher_.publishWithoutAccount(
        worker_state::starting,
        "WhatsApp Web is still rendering login state. Reloading the managed runtime worker (attempt " +
            std::to_string(attempt) + ").");
    page_.reload();
}

}  // namespace brindle

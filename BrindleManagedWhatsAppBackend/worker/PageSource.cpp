#include "worker/PageSource.h"

#include <chrono>
#include <utility>

#include "exchange/EnvironmentKeys.h"
#include "system/Paths.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle {
namespace {

constexpr auto web_client_address = "https://web.whatsapp.com/";
constexpr std::chrono::seconds request_timeout{60};

std::string readText(FileManager& fileManager, const std::string& path) {
    auto text = fileManager.readFile(path);
    if (!isValidUtf8(text)) throw Failure("The file \"" + singleLine(path) + "\" is not UTF-8 text.");
    return text;
}

PageLoadOutcome loadAddress(WebPage& page, const std::string& address, std::string detail) {
    page.loadAddress(address, request_timeout);
    return {.isIssued = true, .detail = std::move(detail)};
}

}  // namespace

PageLoadOutcome PageSource::loadInto(WebPage& page) const {
    if (const auto path = nonBlankValue(environment_, environment_key::worker_test_html_path)) {
        return loadTestHTML(page, standardizedPath(*path));
    }
    const auto address = nonBlankValue(environment_, environment_key::worker_test_url);
    if (address && page.isAddress(*address)) {
        return loadAddress(page, *address, "Loading managed WhatsApp worker test URL " + *address + ".");
    }
    return loadAddress(page, web_client_address, "Loading WhatsApp Web in the managed runtime worker.");
}

PageLoadOutcome PageSource::loadTestHTML(WebPage& page, const std::string& path) const {
    try {
        const auto html = readText(fileManager_, path);
        page.loadText(html, standardizedPath(joinedPath(path, "..")));
    } catch (const std::exception& error) {
        return {.isIssued = false,
                .detail = "Failed to load managed WhatsApp worker test HTML: " + descriptionOf(error)};
    }
    return {.isIssued = true,
            .detail = "Loading managed WhatsApp worker test HTML from " +
                      std::string(lastPathComponent(path)) + "."};
}

}  // namespace brindle

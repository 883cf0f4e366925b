#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "support/DrivenPage.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/StoredLogin.h"
#include "support/Waiting.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr const char* html_variable = "BRINDLE_MANAGED_BRIDGE_WORKER_TEST_HTML_PATH";
constexpr const char* url_variable = "BRINDLE_MANAGED_BRIDGE_WORKER_TEST_URL";
constexpr const char* finished_detail = "WhatsApp worker page loaded. Detecting QR and link state.";
constexpr const char* service_detail = "Loading WhatsApp Web in the managed runtime worker.";
constexpr const char* waiting_detail = "Waiting for WhatsApp Web to render login state.";
constexpr const char* scan_detail = "Scan the QR code with WhatsApp on your phone.";

/// Options whose worker can reach no network at all.
WebWorkerOptions withoutNetwork(WebWorkerOptions options = {}) {
    return options.unshared("--net", "true");
}

class WebWorkerPage : public WebWorkerTest {};

TEST_F(WebWorkerPage, AnHTMLFileGoesBeforeAnAddress) {
    DrivenPage page("client.login()");
    auto options = WebWorkerOptions().withHtml("<body><div id=side></div></body>");
    options.process.environment[url_variable] = page.url();
    WebWorkerProcess worker(std::move(options));
    worker.waitForDetail("Loading managed WhatsApp worker test HTML from page.html.");
    worker.waitForState("linked");
    EXPECT_EQ(page.loads(), 0U);
}

TEST_F(WebWorkerPage, ABlankHTMLPathCountsAsNone) {
    DrivenPage page("client.login()");
    auto options = WebWorkerOptions().withUrl("\t " + page.url() + "\n");
    options.process.environment[html_variable] = " \n\t";
    WebWorkerProcess worker(std::move(options));
    worker.waitForDetail("Loading managed WhatsApp worker test URL " + page.url() + ".");
    worker.waitForState("waiting_for_qr");
    EXPECT_EQ(page.loads(), 1U);
}

class WebWorkerNoAddress : public WebWorkerTest, public testing::WithParamInterface<const char*> {};

TEST_P(WebWorkerNoAddress, LeadsToTheService) {
    WebWorkerProcess worker(withoutNetwork(WebWorkerOptions().withUrl(GetParam())));
    const auto loading = worker.waitForDetail(service_detail);
    worker.waitForDetail("Managed WhatsApp worker provisional navigation failed: ", loading);
    for (const auto& detail : worker.journal().details())
        EXPECT_THAT(detail, testing::Not(HasSubstr("test URL")));
}

INSTANTIATE_TEST_SUITE_P(WebWorkerPage, WebWorkerNoAddress,
                         testing::Values("", "  \n", "not a url", "/tmp/a.html"));

TEST_F(WebWorkerPage, AFailedLoadIsAnErrorThatPeopleCanRead) {
    WebWorkerProcess worker(withoutNetwork(WebWorkerOptions().withUrl("https://client.invalid/")));
    const auto failed = worker.waitForState("error");
    const auto status = worker.journal().statuses()[failed];
    EXPECT_THAT(status["detail"].get<std::string>(),
                testing::MatchesRegex("Managed WhatsApp worker provisional navigation failed: .+\\."));
    EXPECT_FALSE(status.contains("displayName"));
    worker.waitForMoreStatuses();
    EXPECT_TRUE(worker.process().isRunning());
}

TEST_F(WebWorkerPage, AnHTMLFileThatIsNotThereIsAnErrorAndNothingElseIsTried) {
    DrivenPage page("client.login()");
    WebWorkerOptions options;
    const auto file = options.place->path() / "missing.html";
    options.process.environment[html_variable] = file;
    options.process.environment[url_variable] = page.url();
    WebWorkerProcess worker(std::move(options));
    const auto failed = worker.waitForDetail("Failed to load managed WhatsApp worker test HTML: ");
    EXPECT_EQ(worker.journal().statuses()[failed]["state"], "error");
    EXPECT_THAT(worker.journal().details()[failed], HasSubstr("missing.html"));
    worker.waitForMoreStatuses();
    EXPECT_EQ(page.loads(), 0U);
}

TEST_F(WebWorkerPage, AnHTMLFileThatIsNoTextIsAnError) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml("<body>\xff\xfe</body>"));
    const auto failed = worker.waitForDetail("Failed to load managed WhatsApp worker test HTML: ");
    EXPECT_EQ(worker.journal().statuses()[failed]["state"], "error");
    EXPECT_THAT(worker.journal().details()[failed], HasSubstr("is not UTF-8 text."));
}

TEST_F(WebWorkerPage, AnHTMLFileFindsItsNeighbours) {
    const auto options = WebWorkerOptions().withHtml("<body><script src=neighbour.js></script></body>");
    writeFileAtomically(options.place->path() / "neighbour.js",
                        "document.body.innerHTML = '<div id=side></div>'");
    WebWorkerProcess worker(options);
    worker.waitForState("linked");
}

/// The seconds from one status to another by the times written into them.
long secondsBetween(const Json& earlier, const Json& later) {
    const auto timeOf = [](const Json& status) {
        std::tm parts{};
        const auto text = status["lastHeartbeatISO8601"].get<std::string>();
        if (::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts) == nullptr) throw TestFailure(text);
        return ::timegm(&parts);
    };
    return timeOf(later) - timeOf(earlier);
}

TEST_F(WebWorkerPage, ThatFinishesAgainStartsNoSecondTimers) {
    DrivenPage page("client.login()");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.waitForState("waiting_for_qr");
    const auto before = worker.journal().size();
    page.post("location.reload()");
    const auto finished = worker.waitForDetail(finished_detail, before);
    // One state tick publishes twice here: once for the picture, once for the link.
    const auto first = worker.waitForDetail(scan_detail, finished);
    constexpr std::size_t statuses_of_seven_intervals = 15;
    worker.waitForMoreStatuses(statuses_of_seven_intervals + 2);
    const auto statuses = worker.journal().statuses();
    const auto& last = statuses[first + statuses_of_seven_intervals];
    EXPECT_EQ(last["detail"], scan_detail);
    // 10.5 s with one set of timers, half of that with two; a late first tick takes some of it away.
    EXPECT_GE(secondsBetween(statuses[first], last), 8);
}

/// The bytes of the picture on the page's canvas, in hexadecimal digits.
std::string canvasBytes(DrivenPage& page) {
    return page.run(
        "[...atob(document.querySelector('canvas').toDataURL('image/png').split(',')[1])]"
        ".map((c) => c.charCodeAt(0).toString(16).padStart(2, '0')).join('')");
}

std::string hexadecimal(const std::string& bytes) {
    std::string text;
    for (const char character : bytes) {
        constexpr const char* digits = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(character);
        text += digits[byte >> 4U];
        text += digits[byte & 15U];
    }
    return text;
}

std::string pictureIn(const WebWorkerProcess& worker) {
    const auto file = worker.path("runtime/worker-qr.png");
    return fs::exists(file) ? hexadecimal(readFile(file)) : "none";
}

class WebWorkerQRCode : public WebWorkerTest {};

TEST_F(WebWorkerQRCode, IsTheCanvasOfThePageByteForByteAndFollowsIt) {
    DrivenPage page("client.login(1)");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    const auto waiting = worker.waitForState("waiting_for_qr");
    EXPECT_EQ(worker.journal().details()[waiting], scan_detail);
    const auto first = canvasBytes(page);
    EXPECT_THAT(first, testing::StartsWith("89504e470d0a1a0a"));
    EXPECT_EQ(pictureIn(worker), first);
    page.run("client.draw(2)");
    const auto second = canvasBytes(page);
    ASSERT_NE(first, second);
    worker.waitUntil([&] { return pictureIn(worker) == second; }, "the renewed picture");
}

TEST_F(WebWorkerQRCode, GoesWithTheCanvasAndTheStateWithIt) {
    DrivenPage page("client.login()");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.waitForState("waiting_for_qr");
    ASSERT_NE(pictureIn(worker), "none");
    page.run("client.chats(['Team Room'])");
    const auto linked = worker.waitForState("linked");
    // A tick looks for the picture before the link: the page may have changed in between.
    worker.waitUntil([&] { return pictureIn(worker) == "none"; }, "the end of the picture");
    EXPECT_EQ(worker.journal().statuses()[linked]["displayName"], "WhatsApp Web");
    page.run("client.login(3)");
    const auto waiting = worker.waitForState("waiting_for_qr", linked);
    EXPECT_FALSE(worker.journal().statuses()[waiting].contains("displayName"));
    page.run("client.clear()");
    worker.waitForDetail(waiting_detail, waiting);
    worker.waitUntil([&] { return pictureIn(worker) == "none"; }, "the end of the second picture");
}

class WebWorkerNoPicture : public WebWorkerTest, public testing::WithParamInterface<const char*> {};

TEST_P(WebWorkerNoPicture, TakesAStalePictureAway) {
    DrivenPage page("client.login()");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    const auto waiting = worker.waitForState("waiting_for_qr");
    page.run(std::string("document.querySelector('canvas').toDataURL = () => ") + GetParam());
    worker.waitUntil([&] { return pictureIn(worker) == "none"; }, "the end of the picture");
    worker.waitForDetail(waiting_detail, waiting);
}

INSTANTIATE_TEST_SUITE_P(WebWorkerQRCode, WebWorkerNoPicture,
                         testing::Values("'data:image/jpeg;base64,/9j/4AAQ'", "'data:,'", "null", "17"));

TEST_F(WebWorkerQRCode, IsKeptWhenItsTextIsNoBase64) {
    DrivenPage page("client.login()");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.waitForState("waiting_for_qr");
    const auto picture = pictureIn(worker);
    page.run("document.querySelector('canvas').toDataURL = () => 'data:image/png;base64,no!'");
    const auto from = worker.journal().size();
    worker.waitForMoreStatuses();
    EXPECT_EQ(pictureIn(worker), picture);
    EXPECT_EQ(worker.journal().statuses()[from + 1]["state"], "waiting_for_qr");
}

class WebWorkerLink : public WebWorkerTest {};

TEST_F(WebWorkerLink, ARequestToScanCountsForMoreThanASidePane) {
    DrivenPage page("client.login(); client.element(document.body, 'div', { id: 'side' })");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.waitForState("waiting_for_qr");
    worker.waitForMoreStatuses(4);
    for (const auto& status : worker.journal().statuses()) EXPECT_NE(status["state"], "linked");
}

TEST_F(WebWorkerLink, ACanvasDoesNotUndoALink) {
    DrivenPage page("client.chats(['Team Room'])");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.waitForState("linked");
    page.run("client.element(document.body, 'canvas', { width: 8, height: 8 })");
    worker.waitUntil([&] { return pictureIn(worker) != "none"; }, "the picture of the canvas");
    const auto from = worker.journal().size();
    worker.waitForMoreStatuses();
    const auto statuses = worker.journal().statuses();
    for (auto index = from; index < statuses.size(); ++index) EXPECT_EQ(statuses[index]["state"], "linked");
}

TEST_F(WebWorkerLink, AFailingPageIsAnErrorUntilItAnswersAgain) {
    DrivenPage page("client.chats(['Team Room'])");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    const auto linked = worker.waitForState("linked");
    page.run(
        "window.kept = document.querySelector; document.querySelector = () => { throw new Error('no'); }");
    const auto failed = worker.waitForDetail("Failed to detect WhatsApp link state: ", linked);
    const auto status = worker.journal().statuses()[failed];
    EXPECT_EQ(status["state"], "error");
    EXPECT_FALSE(status.contains("displayName"));
    page.run("document.querySelector = window.kept");
    worker.waitForState("linked", failed);
}

class WebWorkerRecovery : public WebWorkerTest {};

TEST_F(WebWorkerRecovery, APageThatShowsNoLoginIsReloadedTwiceAndNoMore) {
    DrivenPage page("client.clear()");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    if (!worker.journal().isExact()) GTEST_SKIP() << exact_watch_needs_root;
    const std::string text =
        "WhatsApp Web is still rendering login state. Reloading the managed runtime worker (attempt ";
    // A reload takes the place of a load that a slow machine has not even asked for.
    const auto comesBefore = [&](std::size_t load, const std::string& reload) {
        bool isInTime = false;
        worker.waitUntil(
            [&] {
                const bool hasCome = page.loads() >= load;
                const auto details = worker.journal().details();
                const bool isReloaded =
                    std::find(details.begin(), details.end(), text + reload) != details.end();
                isInTime = hasCome && !isReloaded;
                return hasCome || isReloaded;
            },
            "load " + std::to_string(load));
        return isInTime;
    };
    const std::size_t inTime = (comesBefore(1, "1).") ? 1U : 0U) + (comesBefore(2, "2).") ? 1U : 0U);
    const auto first = worker.waitForDetail(text + "1).");
    EXPECT_EQ(worker.waitForDetail(waiting_detail, first), first + 1);
    worker.waitForDetail(text + "2).", first);
    // Nine ticks are more than the 12 seconds after which a third reload would come.
    worker.waitForMoreStatuses(10);
    const auto details = worker.journal().details();
    EXPECT_EQ(std::count_if(details.begin(), details.end(),
                            [&](const auto& detail) { return detail.starts_with(text); }),
              2);
    // Nothing takes the place of the last load, however late it is.
    worker.waitUntil([&] { return page.loads() >= 1 + inTime; }, "the last load");
    EXPECT_LE(page.loads(), 3U);
}

LoopbackServer::Response storage(const LoopbackServer::Request& request) {
    return answerWithLogin(request, {.status = "404 Not Found"});
}

/// A script that shows a linked page exactly when everything that a login consists of is still there.
std::string loginPage() {
    return "client.login();" + login_functions + "listWhatIsStored().then(() => { if (window.listed === '" +
           all_of_a_login + "') { client.chats(['Team Room']); } });";
}

std::string listedIn(DrivenPage& page) {
    std::string listed;
    waitUntil(
        [&] {
            listed = page.run("window.listed");
            return listed != "undefined";
        },
        "the page to list what is stored");
    return listed;
}

/// A worker that has stored a login of every kind and has ended.
WebWorkerOptions optionsWithLogin(DrivenPage& page) {
    const auto options = WebWorkerOptions().withUrl(page.url());
    WebWorkerProcess worker(options);
    worker.waitForState("waiting_for_qr");
    page.run("storeALogin()");
    worker.waitUntil([&] { return page.run("window.stored") == std::to_string(login_parts); },
                     "the login to be stored");
    worker.terminate();
    return options;
}

class WebWorkerLogin : public WebWorkerTest {};

TEST_F(WebWorkerLogin, SurvivesARestartOfTheWorker) {
    DrivenPage page(loginPage(), storage);
    WebWorkerProcess worker(optionsWithLogin(page));
    worker.waitForDetail("page loaded");
    EXPECT_EQ(listedIn(page), all_of_a_login);
    worker.waitForState("linked");
    EXPECT_TRUE(lastVisitSentCookie(page.server()));
}

TEST_F(WebWorkerLogin, IsForgottenWhenAFreshLinkWasRequestedBeforeTheStart) {
    DrivenPage page(loginPage(), storage);
    const auto options = optionsWithLogin(page);
    writeFileAtomically(options.path("runtime/fresh-link-request.flag"), "");
    writeFileAtomically(options.path("runtime/worker-qr.png"), "stale");
    WebWorkerProcess worker(options);
    const auto loading = worker.waitForDetail("Loading managed WhatsApp worker test URL");
    auto details = worker.journal().details();
    details.resize(loading + 1);
    // Ticks may have come meanwhile; the page is not there yet, so they have nothing to say of it.
    std::erase(details, waiting_detail);
    std::vector<std::string> expected{
        "Launching managed WhatsApp Web worker.",
        "Resetting the managed WhatsApp Web session for a fresh link request.",
        "Managed WhatsApp worker cleared its local session. Loading a fresh WhatsApp Web login page.",
        "Loading managed WhatsApp worker test URL " + page.url() + "."};
    // A journal that may miss one of two statuses written in one go still tells the order of the others.
    if (!worker.journal().isExact()) {
        std::erase_if(expected, [&](const auto& detail) {
            return std::find(details.begin(), details.end(), detail) == details.end();
        });
    }
    EXPECT_EQ(details, expected);
    EXPECT_FALSE(fs::exists(worker.path("runtime/fresh-link-request.flag")));
    const auto waiting = worker.waitForState("waiting_for_qr", loading);
    EXPECT_NE(pictureIn(worker), hexadecimal("stale"));
    EXPECT_EQ(listedIn(page), nothing_of_a_login);
    EXPECT_FALSE(lastVisitSentCookie(page.server()));
    const auto requests = page.server().requests().size();
    page.run("fetch('/cached').then(() => { window.fetched = true; })");
    worker.waitUntil([&] { return page.run("window.fetched") == "true"; }, "the answer");
    const auto all = page.server().requests();
    EXPECT_TRUE(std::any_of(all.begin() + static_cast<std::ptrdiff_t>(requests), all.end(),
                            [](const auto& request) { return request.path == "/cached"; }))
        << "the answer came from a cache";
    const auto statuses = worker.journal().statuses();
    for (std::size_t index = 0; index <= waiting; ++index) EXPECT_NE(statuses[index]["state"], "linked");
}

TEST_F(WebWorkerLogin, AFreshLinkRequestedLaterWaitsForTheNextStart) {
    DrivenPage page(loginPage(), storage);
    WebWorkerProcess worker(optionsWithLogin(page));
    worker.waitForState("linked");
    writeFileAtomically(worker.path("runtime/fresh-link-request.flag"), "");
    worker.waitForMoreStatuses();
    EXPECT_TRUE(fs::exists(worker.path("runtime/fresh-link-request.flag")));
    EXPECT_EQ(page.run("localStorage.getItem('login')"), "linked");
    for (const auto& detail : worker.journal().details())
        EXPECT_THAT(detail, testing::Not(HasSubstr("Resetting")));
}

class WebWorkerWayland : public WebWorkerTest {};

TEST_F(WebWorkerWayland, ShowsTheCodeLinksAndCapturesAsUnderX11) {
    const TestDisplay display(TestDisplay::Kind::wayland);
    DrivenPage page("client.login()");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()).on(display));
    worker.waitForState("waiting_for_qr");
    EXPECT_EQ(pictureIn(worker), canvasBytes(page));
    page.run("client.chats(['Team Room'])");
    worker.waitForState("linked");
    worker.watchUntilOpen("Team Room");
    page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann Lee', text: 'under Wayland' })");
    EXPECT_EQ(worker.waitForTexts(1), std::vector<std::string>{"under Wayland"});
}

TEST_F(WebWorkerWayland, IsFoundByThePathOfItsSocketToo) {
    const TestDisplay display(TestDisplay::Kind::wayland);
    auto options = WebWorkerOptions().withHtml("<body><div id=side></div></body>").on(display);
    auto& environment = options.process.environment;
    environment["WAYLAND_DISPLAY"] = environment["XDG_RUNTIME_DIR"] + "/" + environment["WAYLAND_DISPLAY"];
    environment.erase("XDG_RUNTIME_DIR");
    WebWorkerProcess worker(std::move(options));
    worker.waitForState("linked");
}

}  // namespace
}  // namespace brindle::test

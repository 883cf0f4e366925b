#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "support/EnginePage.h"
#include "support/LoopbackServer.h"
#include "support/Processes.h"

namespace brindle::test {
namespace {

LoopbackServer::Response answer(const LoopbackServer::Request& request) {
    if (request.path == "/cookie") {
        return {.body = "set", .headers = "Set-Cookie: login=linked; Max-Age=86400; HttpOnly\r\n"};
    }
    if (request.path == "/cached") return {.body = "cached", .headers = "Cache-Control: max-age=86400\r\n"};
    return {.body = "<title>page</title><body></body>"};
}

/// Stores something of every kind that a page can store; gives true once all of it is there.
constexpr const char* store_everything = R"js(
(() => {
    if (window.storing) { return window.stored === 4; }
    window.storing = true;
    window.stored = 0;
    const done = () => { window.stored += 1; };
    localStorage.setItem("login", "linked");
    const request = indexedDB.open("login", 1);
    request.onupgradeneeded = () => { request.result.createObjectStore("keys").put("linked", "login"); };
    request.onsuccess = () => { request.result.close(); done(); };
    fetch("/cookie").then(done);
    fetch("/cached").then(done);
    caches.open("login").then((cache) => cache.put("/entry", new Response("linked"))).then(done);
    return false;
})()
)js";

/// What is stored, as one text.
constexpr const char* list_everything = R"js(
(() => {
    if (window.listing) { return window.listed !== undefined; }
    window.listing = true;
    Promise.all([indexedDB.databases(), caches.keys()]).then(([databases, keys]) => {
        window.listed = "local:" + localStorage.length + " databases:" + databases.length + " caches:" + keys.length;
    });
    return false;
})()
)js";

std::string storedIn(EnginePage& page) {
    page.waitUntil(list_everything);
    return page.evaluate("window.listed").value_or("nothing");
}

/// The header line by which the last request for "/" sent cookies.
bool lastVisitSentCookie(const LoopbackServer& server) {
    bool sent = false;
    for (const auto& request : server.requests()) {
        if (request.path == "/") sent = request.headers.find("login=linked") != std::string::npos;
    }
    return sent;
}

/// Waits until the engine has let go of the data: a page that is gone leaves a process behind that still
/// stores them, and two at a time on the same data disturb each other.
void waitForTheEndOfTheEngine() {
    waitUntil([] { return processesNamed(::getpid(), network_process_name).empty(); },
              "the end of the network's process");
}

TEST(WebsiteData, ALoginSurvivesARestart) {
    const LoopbackServer server(answer);
    const auto directory = std::make_shared<TemporaryDirectory>();
    {
        EnginePage page(directory);
        page.loadAddress(server.url());
        page.waitUntil(store_everything);
        ASSERT_FALSE(lastVisitSentCookie(server));
    }
    waitForTheEndOfTheEngine();
    EnginePage page(directory);
    page.loadAddress(server.url());
    EXPECT_EQ(storedIn(page), "local:1 databases:1 caches:1");
    EXPECT_TRUE(lastVisitSentCookie(server));
}

TEST(WebsiteData, NothingIsLeftAfterItsRemoval) {
    const LoopbackServer server(answer);
    EnginePage page;
    page.loadAddress(server.url());
    page.waitUntil(store_everything);
    bool removed = false;
    page.page().removeAllWebsiteData([&](bool isGone) { removed = isGone; });
    page.runUntil([&] { return removed; }, "the website data are removed");
    page.loadAddress(server.url());
    EXPECT_EQ(storedIn(page), "local:0 databases:0 caches:0");
    EXPECT_FALSE(lastVisitSentCookie(server));
    const auto before = server.requests().size();
    page.evaluate("fetch('/cached').then(() => { window.fetched = true; }); ''");
    page.waitUntil("window.fetched === true");
    EXPECT_EQ(server.requests().size(), before + 1) << "the answer came from a cache";
}

TEST(WebsiteData, NothingComesBackWithARestartAfterItsRemoval) {
    const LoopbackServer server(answer);
    const auto directory = std::make_shared<TemporaryDirectory>();
    {
        EnginePage page(directory);
        page.loadAddress(server.url());
        page.waitUntil(store_everything);
    }
    waitForTheEndOfTheEngine();
    {
        EnginePage page(directory);
        bool removed = false;
        page.page().removeAllWebsiteData([&](bool isGone) { removed = isGone; });
        page.runUntil([&] { return removed; }, "the website data are removed");
    }
    waitForTheEndOfTheEngine();
    EnginePage page(directory);
    page.loadAddress(server.url());
    EXPECT_EQ(storedIn(page), "local:0 databases:0 caches:0");
    EXPECT_FALSE(lastVisitSentCookie(server));
}

TEST(WebsiteData, AreRemovedAllTheSameWhenTheNetworksProcessDiesMeanwhile) {
    const LoopbackServer server(answer);
    EnginePage page;
    page.loadAddress(server.url());
    page.waitUntil(store_everything);
    bool removed = false;
    page.page().removeAllWebsiteData([&](bool isGone) { removed = isGone; });
    for (const pid_t process : processesNamed(::getpid(), network_process_name)) ::kill(process, SIGKILL);
    page.runUntil([&] { return removed; }, "the website data are removed");
    page.loadAddress(server.url());
    EXPECT_EQ(storedIn(page), "local:0 databases:0 caches:0");
    EXPECT_FALSE(lastVisitSentCookie(server));
}

TEST(WebsiteData, LiesInPrivateFoldersNamedAfterTheExecutable) {
    const EnginePage page;
    for (const auto& base : {page.dataDirectory(), page.cacheDirectory()}) {
        const auto folder = base / "BrindleManagedWhatsAppBackend";
        ASSERT_TRUE(std::filesystem::is_directory(folder)) << folder;
        EXPECT_EQ(std::filesystem::status(folder).permissions(), std::filesystem::perms::owner_all);
    }
}

}  // namespace
}  // namespace brindle::test

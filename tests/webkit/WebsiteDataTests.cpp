#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "support/EnginePage.h"
#include "support/LoopbackServer.h"
#include "support/Processes.h"
#include "support/StoredLogin.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

LoopbackServer::Response answer(const LoopbackServer::Request& request) {
    return answerWithLogin(request, {.body = "<title>page</title><body></body>"});
}

void store(EnginePage& page) {
    page.evaluate(login_functions + "storeALogin(); ''");
    page.waitUntil("window.stored === " + std::to_string(login_parts));
}

std::string storedIn(EnginePage& page) {
    page.evaluate(login_functions + "listWhatIsStored(); ''");
    page.waitUntil("window.listed !== undefined");
    return page.evaluate("window.listed").value_or("nothing");
}

void removeWebsiteData(EnginePage& page) {
    bool removed = false;
    page.page().removeAllWebsiteData([&](bool isGone) { removed = isGone; });
    page.runUntil([&] { return removed; }, "the website data are removed");
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
        store(page);
        ASSERT_FALSE(lastVisitSentCookie(server));
    }
    waitForTheEndOfTheEngine();
    EnginePage page(directory);
    page.loadAddress(server.url());
    EXPECT_EQ(storedIn(page), all_of_a_login);
    EXPECT_TRUE(lastVisitSentCookie(server));
}

TEST(WebsiteData, NothingIsLeftAfterItsRemoval) {
    const LoopbackServer server(answer);
    EnginePage page;
    page.loadAddress(server.url());
    store(page);
    removeWebsiteData(page);
    page.loadAddress(server.url());
    EXPECT_EQ(storedIn(page), nothing_of_a_login);
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
        store(page);
    }
    waitForTheEndOfTheEngine();
    {
        EnginePage page(directory);
        removeWebsiteData(page);
    }
    waitForTheEndOfTheEngine();
    EnginePage page(directory);
    page.loadAddress(server.url());
    EXPECT_EQ(storedIn(page), nothing_of_a_login);
    EXPECT_FALSE(lastVisitSentCookie(server));
}

TEST(WebsiteData, AreRemovedAllTheSameWhenTheNetworksProcessDiesMeanwhile) {
    const LoopbackServer server(answer);
    EnginePage page;
    page.loadAddress(server.url());
    store(page);
    bool removed = false;
    page.page().removeAllWebsiteData([&](bool isGone) { removed = isGone; });
    for (const pid_t process : processesNamed(::getpid(), network_process_name)) ::kill(process, SIGKILL);
    page.runUntil([&] { return removed; }, "the website data are removed");
    page.loadAddress(server.url());
    EXPECT_EQ(storedIn(page), nothing_of_a_login);
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

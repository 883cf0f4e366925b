#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <string>
#include <vector>

#include "support/DrivenPage.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/LoopbackServer.h"
#include "support/Processes.h"
#include "support/Waiting.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

namespace brindle::test {
namespace {

using testing::ElementsAre;

constexpr const char* chats = "client.chats(['Team Room', 'Family'])";

std::size_t linesWith(const std::vector<std::string>& lines, const std::string& text) {
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const auto& line) { return line.find(text) != std::string::npos; }));
}

class WebWorkerResilience : public WebWorkerTest {};

TEST_F(WebWorkerResilience, APageWhoseProcessIsKilledComesBackAndIsCapturedAgain) {
    DrivenPage page(chats);
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.watchUntilOpen("Team Room");
    const pid_t killed = worker.waitForWebProcess();
    const auto before = worker.journal().size();
    const auto loads = page.loads();
    ::kill(killed, SIGKILL);
    const auto failed = worker.waitForDetail(
        "Managed WhatsApp worker navigation failed: The page's process crashed or was killed.", before);
    const auto status = worker.journal().statuses()[failed];
    EXPECT_EQ(status["state"], "error");
    EXPECT_FALSE(status.contains("displayName"));
    worker.waitForWebProcess(killed);
    worker.waitForState("watching_chat", failed);
    EXPECT_GT(page.loads(), loads);
    page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'after the crash' })");
    EXPECT_THAT(worker.waitForTexts(1), ElementsAre("after the crash"));
}

TEST_F(WebWorkerResilience, APageThatKeepsDyingIsTakenUpAgainEachTime) {
    DrivenPage page(chats);
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.watchUntilOpen("Team Room");
    pid_t web = -1;
    for (int death = 1; death <= 4; ++death) {
        web = worker.waitForWebProcess(web);
        const auto before = worker.journal().size();
        const auto loads = page.loads();
        ::kill(web, death % 2 == 0 ? SIGKILL : SIGABRT);
        worker.waitForDetail("The page's process crashed or was killed.", before);
        worker.waitUntil([&] { return page.loads() > loads; }, "the page to be loaded again");
    }
    const auto before = worker.journal().size();
    worker.waitForState("watching_chat", before);
    page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'still here' })");
    EXPECT_THAT(worker.waitForTexts(1), ElementsAre("still here"));
}

TEST_F(WebWorkerResilience, TheNetworksProcessMayDieToo) {
    DrivenPage page(chats);
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.watchUntilOpen("Team Room");
    const auto network = processesNamed(worker.pid(), network_process_name);
    ASSERT_EQ(network.size(), 1U);
    ::kill(network.front(), SIGKILL);
    waitForEnds(network);
    // The first of its requests may still be one that the dead process has sent.
    const auto before = page.server().requests().size();
    worker.waitUntil([&] { return page.server().requests().size() >= before + 3; },
                     "the page to reach its server again");
    page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'without a break' })");
    EXPECT_THAT(worker.waitForTexts(1), ElementsAre("without a break"));
}

TEST_F(WebWorkerResilience, APageThatHangsHoldsUpNothingButItsOwnScripts) {
    // Twice, when the page begins to hang between the two scripts of a tick.
    constexpr std::chrono::seconds longer_than_the_limit{180};
    DrivenPage page("client.login()");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()).withoutJournal());
    worker.waitForState("waiting_for_qr");
    page.post("for (;;);");
    const pid_t web = worker.waitForWebProcess();
    const double used = processorSeconds(web);
    waitUntil([&] { return processorSeconds(web) > used + 0.2; }, "the page to hang");
    const auto published = worker.journal().size();
    // The control timer complains once a second.
    writeFileAtomically(worker.path("runtime/worker-control.json"), "garbage");
    worker.process().waitForStandardError("The page did not answer a script within 30 seconds.",
                                          longer_than_the_limit);
    EXPECT_LE(worker.journal().size(), published + 1) << "a status came from a tick that hangs";
    const auto lines = worker.process().standardErrorLines();
    EXPECT_GE(linesWith(lines, "Failed to decode worker control: "), 15U);
    EXPECT_EQ(linesWith(lines, "within 30 seconds."), 1U) << "ticks have piled up";
    const auto tree = worker.tree();
    EXPECT_EQ(worker.terminate(), exitedWith(0));
    waitForEnds(tree);
}

TEST_F(WebWorkerResilience, TheEndOfTheParentIsNoticedWhileThePageHangs) {
    DrivenPage page("client.login()");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()), true);
    if (!worker.journal().isExact()) GTEST_SKIP() << exact_watch_needs_root;
    worker.waitForState("waiting_for_qr");
    page.post("for (;;);");
    const pid_t web = worker.waitForWebProcess();
    const double used = processorSeconds(web);
    waitUntil([&] { return processorSeconds(web) > used + 0.2; }, "the page to hang");
    const auto tree = worker.tree();
    worker.process().killIntermediateParent();
    worker.waitForState("stopped");
    EXPECT_EQ(worker.process().waitForExit(), exitedWith(0));
    waitForEnds(tree);
}

TEST_F(WebWorkerResilience, APageThatClosesItselfComesBackAndIsCapturedAgain) {
    DrivenPage page(chats);
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.watchUntilOpen("Team Room");
    const auto before = worker.journal().size();
    page.post("window.close()");
    const auto closed =
        worker.waitForDetail("Managed WhatsApp worker navigation failed: The page closed itself.", before);
    worker.waitForState("watching_chat", closed);
    page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'open again' })");
    EXPECT_THAT(worker.waitForTexts(1), ElementsAre("open again"));
}

/// What a page may try; none of it needs an answer from anybody.
struct Nuisance {
    const char* name;
    std::string script;
};

class WebWorkerNuisance : public WebWorkerTest, public testing::WithParamInterface<Nuisance> {};

TEST_P(WebWorkerNuisance, DoesNotDisturbTheCapture) {
    DrivenPage page(chats);
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.watchUntilOpen("Team Room");
    auto script = GetParam().script;
    const std::string placeholder = "OTHER_SITE";
    if (const auto place = script.find(placeholder); place != std::string::npos) {
        script.replace(place, placeholder.size(), page.server().otherSiteUrl("/other"));
    }
    const auto loads = page.loads();
    page.post(script);
    page.run("client.receive('Team Room', { id: 'm1', sender: 'Ann', text: 'undisturbed' })");
    EXPECT_THAT(worker.waitForTexts(1), ElementsAre("undisturbed"));
    EXPECT_EQ(page.loads(), loads);
    EXPECT_EQ(worker.waitForWebProcess(), worker.waitForWebProcess());
}

INSTANTIATE_TEST_SUITE_P(
    Page, WebWorkerNuisance,
    testing::Values(
        Nuisance{"Dialogs", "alert('a'); confirm('b'); prompt('c')"},
        Nuisance{"Windows", "window.open('OTHER_SITE'); window.open('about:blank')"},
        Nuisance{"AnotherSite", "location.href = 'OTHER_SITE'"}, Nuisance{"Printing", "window.print()"},
        Nuisance{"Permissions",
                 "Notification.requestPermission(); navigator.geolocation.getCurrentPosition("
                 "() => { window.given = true; }, () => {})"},
        Nuisance{"Download",
                 "const a = document.createElement('a'); a.download = 'x'; a.href = 'data:text/plain,x';"
                 "document.body.append(a); a.click(); a.remove()"}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(WebWorkerResilience, APageThatTheNetworkWithheldIsLoadedOnceThereIsANetwork) {
    constexpr std::chrono::seconds longer_than_the_pause{180};
    std::atomic<bool> isBack = false;
    const LoopbackServer server([&](const LoopbackServer::Request&) {
        return LoopbackServer::Response{.body = "<body><div id=side>chats</div></body>",
                                        .breaksOff = !isBack};
    });
    WebWorkerProcess worker(WebWorkerOptions().withUrl(server.url()));
    const std::string failure = "Managed WhatsApp worker provisional navigation failed: ";
    worker.waitForDetail(failure);
    const auto reloaded =
        worker.waitForDetail("Reloading the managed runtime worker (attempt 2).", 0, longer_than_the_pause);
    const auto failed = worker.waitForDetail(failure, reloaded);
    isBack = true;
    const auto loading = worker.waitForDetail("Loading managed WhatsApp worker test URL " + server.url(),
                                              failed, longer_than_the_pause);
    worker.waitForState("linked", loading);
}

TEST_F(WebWorkerResilience, APageThatAsksBeforeItIsLeftIsReloadedAllTheSame) {
    DrivenPage page(
        std::string(
            "addEventListener('beforeunload', (event) => { event.preventDefault(); event.returnValue = 'stay'; });") +
        chats);
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.watchUntilOpen("Team Room");
    const auto loads = page.loads();
    page.post("location.reload()");
    waitUntil([&] { return page.loads() > loads; }, "the page to be loaded again");
    const auto before = worker.journal().size();
    worker.waitForState("watching_chat", before);
}

}  // namespace
}  // namespace brindle::test

#include "worker/PageLoader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/Files.h"
#include "support/WantOfMemory.h"
#include "support/WorkerParts.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::load_web_client;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class PageLoaderTests : public testing::Test {
  protected:
    void set(std::string_view key, const std::string& value) {
        parts_.environment.insert_or_assign(std::string(key), value);
    }
    void setTestHTML(const std::string& path) { set(environment_key::worker_test_html_path, path); }
    void setTestURL(const std::string& url) { set(environment_key::worker_test_url, url); }
    std::string put(const std::string& name, const std::string& content) const {
        const auto path = (parts_.home.path() / name).string();
        test::writeFileAtomically(path, content);
        return path;
    }
    void countTwoReloads() {
        parts_.recovery.countReload();
        parts_.recovery.countReload();
    }
    /// The page goes, and what works on it goes first.
    void closePage() {
        loader_.reset();
        parts_.openPage.reset();
    }
    std::string home() const { return parts_.home.path().string(); }

    test::WorkerParts parts_;
    WorkerState& state_ = parts_.state;
    PageSource source_{parts_.environment, parts_.files};
    std::optional<PageLoader> loader_{std::in_place,   parts_.page,      source_,
                                      parts_.recovery, parts_.host,      parts_.qrCode,
                                      state_,          parts_.publisher, parts_.log};
};

TEST_F(PageLoaderTests, LoadsTheWebClient) {
    state_.displayName = "Ann";
    loader_->loadPage();
    EXPECT_THAT(parts_.host.calls, ElementsAre(load_web_client));
    EXPECT_THAT(parts_.published(),
                ElementsAre("starting: Loading WhatsApp Web in the managed runtime worker."));
    EXPECT_EQ(state_.displayName, std::nullopt);
}

TEST_F(PageLoaderTests, LoadBeginsTheRecoveryAnew) {
    countTwoReloads();
    parts_.clock.passUntil(seconds(99));
    loader_->loadPage();
    EXPECT_EQ(parts_.recovery.pageLoadIssuedAt(), test::TestClock::boot_time_at_start + seconds(99));
    EXPECT_EQ(parts_.recovery.launchRecoveryAttemptCount(), 0);
    EXPECT_EQ(parts_.recovery.lastRecoveryAttemptAt(), std::nullopt);
}

TEST_F(PageLoaderTests, LoadsTestHTMLWithItsDirectoryAsBase) {
    setTestHTML(" \n" + put("page one.html", "<p>é</p>") + " ");
    state_.displayName = "Ann";
    loader_->loadPage();
    EXPECT_THAT(parts_.host.calls, ElementsAre("loadText " + home() + " <p>é</p>"));
    EXPECT_THAT(parts_.published(),
                ElementsAre("starting: Loading managed WhatsApp worker test HTML from page one.html."));
}

TEST_F(PageLoaderTests, TestHTMLPathIsStandardized) {
    put("page.html", "x");
    setTestHTML(home() + "/missing/.././/page.html");
    loader_->loadPage();
    EXPECT_THAT(parts_.host.calls, ElementsAre("loadText " + home() + " x"));
}

TEST_F(PageLoaderTests, TestHTMLComesBeforeTestURL) {
    setTestHTML(put("page.html", "x"));
    setTestURL("https://example.com/");
    loader_->loadPage();
    EXPECT_THAT(parts_.host.calls, ElementsAre("loadText " + home() + " x"));
}

TEST_F(PageLoaderTests, UnreadableTestHTMLIsPublishedAndNothingElseIsTried) {
    setTestHTML(home() + "/missing.html");
    setTestURL("https://example.com/");
    loader_->loadPage();
    EXPECT_THAT(parts_.host.calls, IsEmpty());
    EXPECT_THAT(parts_.published(),
                ElementsAre("error: Failed to load managed WhatsApp worker test HTML: Cannot read \"" +
                            home() + "/missing.html\": No such file or directory."));
}

TEST_F(PageLoaderTests, TestHTMLMustBeUtf8) {
    setTestHTML(put("page.html", "<p>\xFF</p>"));
    loader_->loadPage();
    EXPECT_THAT(parts_.host.calls, IsEmpty());
    EXPECT_THAT(parts_.published(),
                ElementsAre("error: Failed to load managed WhatsApp worker test HTML: The file \"" + home() +
                            "/page.html\" is not UTF-8 text."));
}

TEST_F(PageLoaderTests, DirectoryIsNoTestHTML) {
    setTestHTML(home());
    loader_->loadPage();
    EXPECT_THAT(state_.workerDetail, HasSubstr("Not a regular file"));
    EXPECT_EQ(state_.workerState, "error");
}

TEST_F(PageLoaderTests, BlankTestHTMLPathFallsThrough) {
    setTestHTML(" \n\t");
    setTestURL("https://example.com/");
    loader_->loadPage();
    EXPECT_THAT(parts_.host.calls, ElementsAre("loadAddress https://example.com/ 60"));
}

TEST_F(PageLoaderTests, LoadsTheTestURL) {
    setTestURL(" https://example.com/a?b=c#d\n");
    state_.displayName = "Ann";
    loader_->loadPage();
    EXPECT_THAT(parts_.host.calls, ElementsAre("loadAddress https://example.com/a?b=c#d 60"));
    EXPECT_THAT(
        parts_.published(),
        ElementsAre("starting: Loading managed WhatsApp worker test URL https://example.com/a?b=c#d."));
}

TEST_F(PageLoaderTests, TestURLThatIsNoneFallsThrough) {
    for (const std::string text : {"", "  ", "not a url", "::"}) {
        parts_.host.calls.clear();
        setTestURL(text);
        loader_->loadPage();
        EXPECT_THAT(parts_.host.calls, ElementsAre(load_web_client)) << text;
    }
}

/// A page whose process ends again and again.
class CrashRecoveryTests : public PageLoaderTests {
  protected:
    CrashRecoveryTests() {
        loader_->loadPage();
        parts_.host.calls.clear();
        parts_.files.forget();
    }

    void end() { loader_->pageLost("The page's process crashed."); }
    std::size_t loads() const { return parts_.host.count(load_web_client); }
    /// Ends the process and expects the reload exactly after `pause`.
    void expectReloadAfter(milliseconds pause) {
        const auto before = loads();
        end();
        EXPECT_EQ(loads(), before);
        if (pause > milliseconds(0)) parts_.host.advance(pause - milliseconds(1));
        EXPECT_EQ(loads(), before) << pause.count() << " ms";
        parts_.host.advance(milliseconds(pause > milliseconds(0) ? 1 : 0));
        EXPECT_EQ(loads(), before + 1) << pause.count() << " ms";
    }
};

TEST_F(CrashRecoveryTests, EndOfTheProcessIsPublishedAndLogged) {
    state_.displayName = "Ann";
    state_.isLinked = true;
    end();
    EXPECT_THAT(parts_.published(),
                ElementsAre("error: Managed WhatsApp worker navigation failed: The page's process crashed."));
    EXPECT_THAT(parts_.host.log,
                ElementsAre("Managed WhatsApp worker navigation failed: The page's process crashed."));
    EXPECT_FALSE(state_.isLinked);
}

TEST_F(CrashRecoveryTests, FirstReloadComesAtOnceButNotFromWithinTheReport) {
    end();
    EXPECT_EQ(loads(), 0U);
    parts_.host.advance(milliseconds(0));
    EXPECT_EQ(loads(), 1U);
}

TEST_F(CrashRecoveryTests, ReloadIsPendingFromTheLossToTheLoad) {
    EXPECT_FALSE(loader_->isReloadPending());
    expectReloadAfter(seconds(0));
    EXPECT_FALSE(loader_->isReloadPending());
    end();
    EXPECT_TRUE(loader_->isReloadPending());
    parts_.host.advance(milliseconds(999));
    EXPECT_TRUE(loader_->isReloadPending());
    parts_.host.advance(milliseconds(1));
    EXPECT_FALSE(loader_->isReloadPending());
}

TEST_F(CrashRecoveryTests, ErrorStaysReadableAfterTheReload) {
    end();
    parts_.host.advance(seconds(1));
    EXPECT_EQ(loads(), 1U);
    EXPECT_THAT(parts_.published(), SizeIs(1));
    EXPECT_EQ(state_.workerState, "error");
}

TEST_F(CrashRecoveryTests, ReloadBeginsTheRecoveryAnew) {
    countTwoReloads();
    parts_.clock.passUntil(seconds(5));
    end();
    parts_.host.advance(seconds(0));
    EXPECT_EQ(parts_.recovery.pageLoadIssuedAt(), test::TestClock::boot_time_at_start + seconds(5));
    EXPECT_EQ(parts_.recovery.launchRecoveryAttemptCount(), 0);
    EXPECT_EQ(parts_.recovery.lastRecoveryAttemptAt(), std::nullopt);
}

TEST_F(CrashRecoveryTests, PausesGrowUpToAMinute) {
    for (const int pause : {0, 1, 2, 4, 8, 16, 32, 60, 60, 60}) expectReloadAfter(seconds(pause));
}

TEST_F(CrashRecoveryTests, PageThatFinishesBeforeItDiesDoesNotResetThePause) {
    for (const int pause : {0, 1, 2, 4}) {
        expectReloadAfter(seconds(pause));
        loader_->pageFinished();
        parts_.host.advance(milliseconds(59'999));
    }
    expectReloadAfter(seconds(8));
}

TEST_F(CrashRecoveryTests, PageThatStaysUpForAMinuteResetsThePause) {
    for (const int pause : {0, 1, 2, 4}) expectReloadAfter(seconds(pause));
    loader_->pageFinished();
    parts_.host.advance(seconds(60));
    for (const int pause : {0, 1, 2}) expectReloadAfter(seconds(pause));
}

TEST_F(CrashRecoveryTests, MinuteCountsFromTheEndOfTheLoading) {
    expectReloadAfter(seconds(0));
    parts_.host.advance(seconds(600));
    expectReloadAfter(seconds(1));
    loader_->pageFinished();
    parts_.host.advance(seconds(30));
    loader_->pageFinished();
    parts_.host.advance(milliseconds(59'999));
    expectReloadAfter(seconds(2));
}

TEST_F(CrashRecoveryTests, SeveralReportsOfOneEndMakeOneReload) {
    end();
    end();
    end();
    parts_.host.advance(seconds(120));
    EXPECT_EQ(loads(), 1U);
    expectReloadAfter(seconds(1));
}

TEST_F(CrashRecoveryTests, UnreadableSourceIsPublished) {
    setTestHTML(home() + "/missing.html");
    end();
    parts_.host.advance(seconds(0));
    EXPECT_EQ(loads(), 0U);
    EXPECT_THAT(parts_.published(),
                ElementsAre("error: Managed WhatsApp worker navigation failed: The page's process crashed.",
                            "error: Failed to load managed WhatsApp worker test HTML: Cannot read \"" +
                                home() + "/missing.html\": No such file or directory."));
}

TEST_F(CrashRecoveryTests, ReloadChoosesTheSourceAgain) {
    setTestHTML(put("page.html", "x"));
    end();
    parts_.host.advance(seconds(0));
    EXPECT_THAT(parts_.host.calls, ElementsAre("loadText " + home() + " x"));
}

TEST_F(CrashRecoveryTests, LoadByHandReplacesTheReload) {
    end();
    loader_->loadPage();
    parts_.host.advance(seconds(120));
    EXPECT_EQ(loads(), 1U);
}

TEST_F(CrashRecoveryTests, PageThatIsClosedIsNotReloaded) {
    end();
    closePage();
    parts_.host.advance(seconds(120));
    EXPECT_EQ(loads(), 0U);
}

TEST_F(CrashRecoveryTests, WantOfMemoryAtTheReloadIsLogged) {
    end();
    parts_.host.log.clear();
    {
        const test::WantOfMemory want(1);
        parts_.host.advance(milliseconds(0));
    }
    EXPECT_THAT(parts_.host.log, ElementsAre("A load of the page failed: There is not enough memory."));
}

/// A page that could not be loaded, as without a network.
class FailedLoadTests : public PageLoaderTests {
  protected:
    FailedLoadTests() {
        loader_->loadPage();
        parts_.host.calls.clear();
        parts_.files.forget();
    }

    std::size_t loads() const { return parts_.host.count(load_web_client); }
    void fail() { loader_->provisionalNavigationFailed("The server was not found."); }
};

TEST_F(FailedLoadTests, IsPublishedWithoutTheAccount) {
    state_.displayName = "Ann";
    loader_->navigationFailed("The connection was lost.");
    EXPECT_EQ(state_.displayName, std::nullopt);
    fail();
    EXPECT_THAT(
        parts_.published(),
        ElementsAre(
            "error: Managed WhatsApp worker navigation failed: The connection was lost.",
            "error: Managed WhatsApp worker provisional navigation failed: The server was not found."));
}

TEST_F(FailedLoadTests, LossWhileLoadingIsOneToo) {
    loader_->navigationFailed("The connection was lost.");
    parts_.host.advance(seconds(30));
    EXPECT_EQ(loads(), 1U);
}

TEST_F(FailedLoadTests, PageIsLoadedAnewHalfAMinuteLater) {
    fail();
    parts_.host.advance(milliseconds(29'999));
    EXPECT_EQ(loads(), 0U);
    parts_.host.advance(milliseconds(1));
    EXPECT_EQ(loads(), 1U);
    EXPECT_EQ(state_.workerDetail, "Loading WhatsApp Web in the managed runtime worker.");
    EXPECT_EQ(parts_.recovery.pageLoadIssuedAt(), test::TestClock::boot_time_at_start + seconds(30));
}

TEST_F(FailedLoadTests, HalfAMinuteCountsFromTheLastFailure) {
    fail();
    parts_.host.advance(seconds(24));
    fail();
    parts_.host.advance(milliseconds(29'999));
    EXPECT_EQ(loads(), 0U);
    parts_.host.advance(milliseconds(1));
    EXPECT_EQ(loads(), 1U);
}

TEST_F(FailedLoadTests, PageIsLoadedAnewForAsLongAsItFails) {
    for (std::size_t load = 1; load <= 20; ++load) {
        fail();
        parts_.host.advance(seconds(30));
        EXPECT_EQ(loads(), load);
    }
    parts_.host.advance(seconds(600));
    EXPECT_EQ(loads(), 20U);
}

TEST_F(FailedLoadTests, PageThatHasBeenLoadedSinceIsLeftAlone) {
    fail();
    loader_->pageFinished();
    parts_.host.advance(seconds(600));
    EXPECT_EQ(loads(), 0U);
}

TEST_F(FailedLoadTests, LinkedPageIsLeftAlone) {
    state_.isLinked = true;
    fail();
    parts_.host.advance(seconds(600));
    EXPECT_EQ(loads(), 0U);
}

TEST_F(FailedLoadTests, PageWithACodeIsLeftAlone) {
    test::writeFileAtomically(parts_.directory.workerQRCodeFile, "code");
    fail();
    parts_.host.advance(seconds(600));
    EXPECT_EQ(loads(), 0U);
}

TEST_F(FailedLoadTests, EndOfTheProcessGoesFirst) {
    fail();
    loader_->pageLost("The page's process crashed.");
    fail();
    parts_.host.advance(milliseconds(0));
    EXPECT_EQ(loads(), 1U);
    parts_.host.advance(seconds(600));
    EXPECT_EQ(loads(), 1U);
}

TEST_F(FailedLoadTests, PageThatIsClosedIsNotLoadedAnew) {
    fail();
    closePage();
    parts_.host.advance(seconds(600));
    EXPECT_EQ(loads(), 0U);
}

TEST_F(PageLoaderTests, EndBeforeTheFirstLoadLoadsNothing) {
    loader_->pageLost("The page's process crashed.");
    parts_.host.advance(seconds(120));
    EXPECT_THAT(parts_.host.calls, IsEmpty());
    EXPECT_EQ(state_.workerState, "error");
}

}  // namespace
}  // namespace brindle

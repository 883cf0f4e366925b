#include <dlfcn.h>
#include <glib-object.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "support/EnginePage.h"
#include "support/Files.h"
#include "support/LoopbackServer.h"
#include "support/TemporaryDirectory.h"
#include "support/TestDisplay.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

using Response = LoopbackServer::Response;

/// One engine for all cases of a suite.
class EngineTest : public testing::Test {
  protected:
    static void SetUpTestSuite() { page_ = std::make_unique<EnginePage>(); }
    static void TearDownTestSuite() { page_.reset(); }
    static EnginePage& page() { return *page_; }

    /// What the engine still has to say of a load that the test before has denied or left unanswered is over
    /// once another page is there.
    void SetUp() override { page().load("<body></body>"); }

    static void waitForRequest(const LoopbackServer& server, const std::string& path) {
        page().runUntil(
            [&] {
                for (const auto& request : server.requests()) {
                    if (request.path == path) return true;
                }
                return false;
            },
            "a request for " + path);
    }

  private:
    static inline std::unique_ptr<EnginePage> page_;
};

class LivePage : public EngineTest {};

TEST_F(LivePage, HasTheContentSizeOfTheWindow) {
    page().load("<body></body>");
    EXPECT_EQ(page().evaluate("innerWidth + 'x' + innerHeight"), "1200x900");
}

TEST_F(LivePage, IsVisible) {
    page().load("<body></body>");
    EXPECT_EQ(page().evaluate("document.visibilityState"), "visible");
}

TEST_F(LivePage, NamesTheUserAgent) {
    page().load("<body></body>");
    EXPECT_EQ(
        page().evaluate("navigator.userAgent"),
        "Mozilla/5.0 (Macintosh; Intel Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.0 Safari/605.1.15");
}

TEST_F(LivePage, RunsAnimationFramesAndShortTimersWhileNothingIsOnScreen) {
    page().load(
        "<script>let frames = 0, ticks = 0; const frame = () => { ++frames; requestAnimationFrame(frame); };"
        "frame(); setInterval(() => ++ticks, 10);</script>");
    // Throttled pages get no frames and one timer a second, which is not enough in the time that this may
    // take.
    page().waitUntil("frames > 100 && ticks > 100");
}

TEST_F(LivePage, KnowsWhatIsDisplayed) {
    page().load("<div id=shown>a</div><div id=hidden style='display: none'>b</div>");
    EXPECT_EQ(page().evaluate("shown.offsetParent !== null && hidden.offsetParent === null ? 'yes' : 'no'"),
              "yes");
}

TEST_F(LivePage, OrderingTheWindowOutLeavesThePageLive) {
    page().load(
        "<script>let frames = 0; const frame = () => { ++frames; requestAnimationFrame(frame); };"
        "frame();</script>");
    page().page().orderOut();
    page().evaluate("frames = 0");
    page().waitUntil("frames > 30 && document.visibilityState === 'visible' && innerWidth === 1200");
}

/// The windows of this process. The module has brought the toolkit, which no test is linked with.
GList* allWindows() {
    void* toolkit = ::dlopen("libgtk-3.so.0", RTLD_NOW | RTLD_NOLOAD);
    auto* const list = reinterpret_cast<GList* (*)()>(::dlsym(toolkit, "gtk_window_list_toplevels"));
    if (list == nullptr) throw TestFailure("no toolkit is loaded");
    return list();
}

/// Counts how often the windows are drawn for as long as it lives.
class CountedDraws {
  public:
    CountedDraws() {
        GList* const windows = allWindows();
        for (GList* each = windows; each != nullptr; each = each->next) {
            windows_.push_back(each->data);
            g_signal_connect(each->data, "draw", G_CALLBACK(count), this);
        }
        g_list_free(windows);
    }
    ~CountedDraws() {
        for (const gpointer window : windows_) g_signal_handlers_disconnect_by_data(window, this);
    }
    CountedDraws(const CountedDraws&) = delete;
    CountedDraws& operator=(const CountedDraws&) = delete;

    std::size_t windows() const { return windows_.size(); }
    int number() const { return number_; }

  private:
    static gboolean count(gpointer /*window*/, gpointer /*picture*/, gpointer self) {
        ++static_cast<CountedDraws*>(self)->number_;
        return FALSE;
    }

    std::vector<gpointer> windows_;
    int number_ = 0;
};

TEST_F(LivePage, IsNeverDrawnInTheWorkerHoweverOftenItChanges) {
    const CountedDraws draws;
    page().load(
        "<p id=text></p><script>let frames = 0; const frame = () => { text.textContent = ++frames; "
        "requestAnimationFrame(frame); }; frame();</script>");
    page().waitUntil("frames > 100");
    EXPECT_GT(draws.windows(), 0U);
    EXPECT_EQ(draws.number(), 0);
}

class Evaluation : public EngineTest {};

TEST_F(Evaluation, GivesAString) {
    page().load("<body></body>");
    EXPECT_EQ(page().evaluate("'caf\\u00e9 \\ud83d\\ude00'"), "café 😀");
}

TEST_F(Evaluation, GivesNothingForOtherTypes) {
    page().load("<body></body>");
    for (const char* script : {"null", "undefined", "42", "true", "({a: 1})", "[1]"}) {
        EXPECT_EQ(page().evaluate(script), std::nullopt) << script;
    }
}

TEST_F(Evaluation, FailsWithWhatTheScriptThrew) {
    page().load("<body></body>");
    try {
        page().evaluate("throw new Error('out of ink')");
        FAIL() << "no failure";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("out of ink"));
        EXPECT_THAT(error.what(), testing::Not(testing::HasSubstr("\n")));
    }
}

TEST_F(Evaluation, FailsWithOneSentenceOfModestLength) {
    page().load("<body></body>");
    try {
        page().evaluate("throw new Error('first\\nsecond \\ud83d\\ude00'.repeat(100000))");
        FAIL() << "no failure";
    } catch (const std::runtime_error& error) {
        const std::string sentence = error.what();
        EXPECT_LT(sentence.size(), 2100U);
        EXPECT_THAT(sentence, testing::HasSubstr("first?second"));
        EXPECT_THAT(sentence, testing::Not(testing::HasSubstr("\n")));
        EXPECT_THAT(sentence, testing::EndsWith("."));
    }
}

TEST_F(Evaluation, FailsForAnAnswerThatNoHonestPageGives) {
    page().load("<body></body>");
    EXPECT_EQ(page().evaluate("'x'.repeat(16 * 1024 * 1024)"), std::string(std::size_t{16} << 20U, 'x'));
    try {
        page().evaluate("'x'.repeat(16 * 1024 * 1024 + 1)");
        FAIL() << "no failure";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "The page's answer is too long.");
    }
}

TEST_F(Evaluation, FailsForASyntaxError) {
    page().load("<body></body>");
    EXPECT_THROW(page().evaluate("((("), std::runtime_error);
}

class Loading : public EngineTest {};

/// An address of this machine where nobody listens, and nobody else can begin to.
class UnreachableAddress {
  public:
    UnreachableAddress() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        if (::bind(socket_, generic, length) != 0 || ::getsockname(socket_, generic, &length) != 0) {
            throw TestFailure("cannot take a port of the loopback interface");
        }
        url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    }
    ~UnreachableAddress() { ::close(socket_); }
    UnreachableAddress(const UnreachableAddress&) = delete;
    UnreachableAddress& operator=(const UnreachableAddress&) = delete;

    const std::string& url() const { return url_; }

  private:
    int socket_;
    std::string url_;
};

TEST_F(Loading, TextTakesRelativeAddressesFromItsBaseDirectory) {
    const TemporaryDirectory directory;
    writeFileAtomically(directory.path() / "beside it.js", "window.besideIt = 'loaded';");
    page().forgetEvents();
    page().page().loadText("<script src='beside%20it.js'></script>", directory.path());
    page().runUntil([&] { return page().events().finished == 1; }, "the text is loaded");
    EXPECT_EQ(page().evaluate("window.besideIt"), "loaded");
}

TEST_F(Loading, ATextMayBeEmpty) {
    page().load("<body>before</body>");
    page().load("");
    EXPECT_EQ(page().evaluate("document.body.textContent"), "");
}

TEST_F(Loading, ATextGoesOnBehindTheCharacterNUL) {
    using namespace std::string_literals;
    page().load("<body>before\0<p>after</p></body>"s);
    EXPECT_EQ(page().evaluate("document.querySelector('p').textContent"), "after");
}

TEST_F(Loading, ReloadingATextShowsTheTextAgain) {
    page().load("<body>first</body>");
    page().evaluate("document.body.textContent = 'changed'");
    page().forgetEvents();
    page().page().reload();
    page().runUntil([&] { return page().events().finished == 1; }, "the text is loaded again");
    EXPECT_EQ(page().evaluate("document.body.textContent"), "first");
}

TEST_F(Loading, ReloadingAnAddressAsksForItAgain) {
    int visits = 0;
    LoopbackServer server([&](const auto&) { return Response{.body = "visit " + std::to_string(++visits)}; });
    page().loadAddress(server.url("/page"));
    page().forgetEvents();
    page().page().reload();
    page().runUntil([&] { return page().events().finished == 1; }, "the page is loaded again");
    EXPECT_NE(page().evaluate("document.body.textContent"), "visit 1");
}

TEST_F(Loading, ReloadingAfterAFailedLoadTriesTheAddressAgain) {
    const UnreachableAddress address;
    page().forgetEvents();
    page().page().loadAddress(address.url(), must_happen_deadline);
    page().runUntil([&] { return page().events().provisionalFailures.size() == 1; }, "the load fails");
    page().page().reload();
    page().runUntil([&] { return page().events().provisionalFailures.size() == 2; }, "the load fails again");
    EXPECT_EQ(page().events().finished, 0);
}

TEST_F(Loading, AnUnreachableAddressFailsBeforeItsDocumentWithOneSentence) {
    const UnreachableAddress address;
    EXPECT_THROW(page().loadAddress(address.url()), std::runtime_error);
    ASSERT_EQ(page().events().provisionalFailures.size(), 1U);
    EXPECT_THAT(page().events().provisionalFailures[0], testing::EndsWith("."));
    EXPECT_TRUE(page().events().failures.empty());
}

TEST_F(Loading, AServerThatNeverAnswersTimesOut) {
    const LoopbackServer server([](const auto&) { return Response{.hangs = true}; });
    page().forgetEvents();
    page().page().loadAddress(server.url(), std::chrono::seconds(1));
    page().runUntil([&] { return !page().events().provisionalFailures.empty(); }, "the load times out");
    EXPECT_EQ(page().events().provisionalFailures[0], "The request timed out.");
    EXPECT_EQ(page().events().finished, 0);
}

TEST_F(Loading, ATimeoutIsReportedOnce) {
    const LoopbackServer server([](const auto&) { return Response{.hangs = true}; });
    page().forgetEvents();
    page().page().loadAddress(server.url(), std::chrono::seconds(1));
    page().runUntil([&] { return !page().events().provisionalFailures.empty(); }, "the load times out");
    bool isLater = false;
    const auto later = page().host().once(std::chrono::milliseconds(2500), [&] { isLater = true; });
    page().runUntil([&] { return isLater; }, "two more timeouts could have come");
    EXPECT_EQ(page().events().provisionalFailures.size(), 1U);
}

TEST_F(Loading, ALoadThatReplacesAnUnansweredOneTimesOutToo) {
    const LoopbackServer server([](const auto&) { return Response{.hangs = true}; });
    page().forgetEvents();
    page().page().loadAddress(server.url("/first"), must_happen_deadline);
    waitForRequest(server, "/first");
    page().page().loadAddress(server.url("/second"), std::chrono::seconds(1));
    page().runUntil([&] { return !page().events().provisionalFailures.empty(); }, "the load times out");
    EXPECT_EQ(page().events().provisionalFailures, std::vector<std::string>{"The request timed out."});
}

TEST_F(Loading, AReloadThatIsNeverAnsweredTimesOut) {
    std::atomic<bool> hangs = false;
    const LoopbackServer server([&](const auto&) {
        return hangs ? Response{.hangs = true} : Response{.body = "<title>home</title>"};
    });
    const auto isOver = [&] {
        return page().events().finished > 0 || !page().events().provisionalFailures.empty();
    };
    // The limit of the reload is that of the load, for which a busy machine may need another go.
    do {
        page().forgetEvents();
        page().page().loadAddress(server.url(), std::chrono::seconds(2));
        page().runUntil(isOver, "the page is loaded");
    } while (page().events().finished == 0);
    hangs = true;
    page().page().reload();
    page().runUntil([&] { return !page().events().provisionalFailures.empty(); }, "the reload times out");
    EXPECT_EQ(page().events().provisionalFailures[0], "The request timed out.");
    EXPECT_EQ(page().evaluate("document.title"), "home");
}

TEST_F(Loading, AFileIsOutOfReachOfAPageOfTheWeb) {
    const TemporaryDirectory directory;
    const auto secret = directory.path() / "secret.txt";
    writeFileAtomically(secret, "secret");
    const LoopbackServer server([](const auto&) { return Response{.body = "<title>home</title>"}; });
    page().loadAddress(server.url());
    page().evaluate("fetch('file://" + secret.string() +
                    "').then(() => { window.outcome = 'read'; }, () => { window.outcome = 'denied'; }); ''");
    page().waitUntil("window.outcome !== undefined");
    EXPECT_EQ(page().evaluate("window.outcome"), "denied");
    page().evaluate("location.href = 'file://" + secret.string() + "'; ''");
    page().waitUntil("fetch('/marker').then(() => { window.answered = true; }), window.answered === true");
    EXPECT_EQ(page().evaluate("document.title"), "home");
}

TEST_F(Loading, ATextReadsNoFileByScript) {
    const TemporaryDirectory directory;
    const auto secret = directory.path() / "secret.txt";
    writeFileAtomically(secret, "secret");
    page().load("<title>home</title>");
    page().evaluate("fetch('file://" + secret.string() +
                    "').then(() => { window.outcome = 'read'; }, () => { window.outcome = 'denied'; }); ''");
    page().waitUntil("window.outcome !== undefined");
    EXPECT_EQ(page().evaluate("window.outcome"), "denied");
}

TEST_F(Loading, APageThatMovesOnByItselfDoesNotFail) {
    const LoopbackServer server([](const LoopbackServer::Request& request) {
        return Response{.body =
                            request.path == "/start" ? "<script>location.replace('/next')</script>" : "next"};
    });
    page().loadAddress(server.url("/start"));
    page().waitUntil("location.pathname === '/next' && document.body.textContent === 'next'");
    EXPECT_TRUE(page().events().failures.empty());
    EXPECT_TRUE(page().events().provisionalFailures.empty());
}

TEST_F(Loading, OnlyAbsoluteUrlsAreAddresses) {
    for (const char* address :
         {"https://web.example/", "http://127.0.0.1:8080/a?b#c", "file:///tmp/a.html"}) {
        EXPECT_TRUE(page().page().isAddress(address)) << address;
    }
    for (const char* text : {"", "not a url", "example.org/path", "/tmp/a.html", "http://a b/", "://x"}) {
        EXPECT_FALSE(page().page().isAddress(text)) << text;
    }
}

/// Everything below a directory in which the engine makes and removes files at any time.
std::vector<std::filesystem::path> pathsBelow(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> paths;
    waitUntil(
        [&] {
            paths.clear();
            std::error_code error;
            std::filesystem::recursive_directory_iterator entry(directory, error);
            for (; !error && entry != std::filesystem::end(entry); entry.increment(error)) {
                paths.push_back(entry->path());
            }
            return !error;
        },
        "a look at all of " + directory.string());
    return paths;
}

class PageDenials : public EngineTest {
  protected:
    /// Loads `body` from a server that also has a page on another site.
    void visit(const std::string& body) {
        server_ = std::make_unique<LoopbackServer>([this, body](const LoopbackServer::Request& request) {
            if (request.path == "/file.zip") {
                return Response{.body = "PK",
                                .type = "application/zip",
                                .headers = "Content-Disposition: attachment\r\n"};
            }
            if (request.path == "/away") {
                return Response{.status = "302 Found",
                                .headers = "Location: " + server_->otherSiteUrl("/other") + "\r\n"};
            }
            return Response{.body = request.path == "/" ? body : "<body>elsewhere</body>"};
        });
        page().loadAddress(server_->url());
    }
    void expectStillThere() {
        EXPECT_EQ(page().evaluate("document.title + ' ' + location.pathname"), "home /");
        EXPECT_TRUE(page().events().failures.empty());
        EXPECT_TRUE(page().events().provisionalFailures.empty());
        EXPECT_TRUE(page().events().processEnds.empty());
    }
    LoopbackServer& server() { return *server_; }

  private:
    std::unique_ptr<LoopbackServer> server_;
};

TEST_F(PageDenials, DialogsAreAnsweredSilently) {
    visit("<title>home</title>");
    EXPECT_EQ(page().evaluate("alert('a'); confirm('b') + ' ' + prompt('c', 'd')"), "false null");
}

TEST_F(PageDenials, APageThatAsksBeforeItIsLeftIsReloadedAllTheSame) {
    visit(
        "<title>home</title><body><script>onbeforeunload = (event) => { event.preventDefault(); event.returnValue = 'stay'; return 'stay'; };</script>");
    page().evaluate("document.title = 'old'");
    page().forgetEvents();
    page().page().reload();
    page().runUntil([&] { return page().events().finished == 1; }, "the page is loaded again");
    EXPECT_EQ(page().evaluate("document.title"), "home");
}

TEST_F(PageDenials, WindowsAreNotOpened) {
    visit("<title>home</title><a id=link target=_blank href=/other>x</a>");
    EXPECT_EQ(page().evaluate("String(window.open('/other'))"), "null");
    page().evaluate("link.click()");
    page().evaluate("fetch('/marker').then(() => {}); ''");
    waitForRequest(server(), "/marker");
    for (const auto& request : server().requests()) EXPECT_NE(request.path, "/other");
    expectStillThere();
}

TEST_F(PageDenials, AnotherSiteIsNotNavigatedTo) {
    visit("<title>home</title>");
    page().evaluate("location.href = '" + server().otherSiteUrl("/other") + "'; ''");
    waitForRequest(server(), "/other");
    // Whatever the answer brought about has happened once the page answers a later request.
    page().waitUntil("fetch('/marker').then(() => { window.answered = true; }), window.answered === true");
    expectStillThere();
}

TEST_F(PageDenials, ARedirectionToAnotherSiteIsNotFollowed) {
    visit("<title>home</title>");
    page().evaluate("location.href = '/away'; ''");
    waitForRequest(server(), "/other");
    page().waitUntil("fetch('/marker').then(() => { window.answered = true; }), window.answered === true");
    expectStillThere();
}

TEST_F(PageDenials, ThePageMayMoveWithinItsSite) {
    visit("<title>home</title>");
    page().evaluate("location.href = '/inside'; ''");
    page().waitUntil("location.pathname === '/inside' && document.body.textContent === 'elsewhere'");
}

TEST_F(PageDenials, AnEmptyTopLevelIsReportedAsLeavingTheSite) {
    visit("<title>home</title>");
    page().evaluate("location.href = 'about:blank'; ''");
    page().runUntil([&] { return !page().events().processEnds.empty(); }, "the departure is reported");
    EXPECT_EQ(page().events().processEnds[0], "The page left its site for about:blank.");
}

TEST_F(PageDenials, DocumentsThatTheSiteMakesUpAreNotNavigatedTo) {
    visit("<title>home</title>");
    for (const char* address :
         {"'data:text/html,made up'", "URL.createObjectURL(new Blob(['made up'], {type: 'text/html'}))",
          "'unknown://made-up'"}) {
        page().evaluate("window.answered = undefined; location.href = " + std::string(address) + "; ''");
        page().waitUntil(
            "fetch('/marker').then(() => { window.answered = true; }), window.answered === true");
        expectStillThere();
    }
}

TEST_F(PageDenials, FramesOfOtherSitesAreLeftAlone) {
    visit("<title>home</title><body></body>");
    page().evaluate(
        "const frame = document.createElement('iframe'); frame.onload = () => { window.framed = true; };"
        "frame.src = '" +
        server().otherSiteUrl("/other") + "'; document.body.append(frame); ''");
    page().waitUntil("window.framed === true");
    expectStillThere();
}

TEST_F(PageDenials, FilesAreNotDownloaded) {
    visit("<title>home</title><a id=link download href=/file.zip>x</a>");
    page().evaluate("link.click(); location.href = '/file.zip'; ''");
    waitForRequest(server(), "/file.zip");
    page().waitUntil("fetch('/marker').then(() => { window.answered = true; }), window.answered === true");
    expectStillThere();
    for (const auto& path : pathsBelow(page().dataDirectory().parent_path())) {
        EXPECT_EQ(path.filename().string().find("file"), std::string::npos) << path;
    }
}

TEST_F(PageDenials, CameraAndMicrophoneAreOutOfReach) {
    visit("<title>home</title>");
    EXPECT_EQ(
        page().evaluate(
            "String(navigator.mediaDevices === undefined || navigator.mediaDevices.getUserMedia === undefined)"),
        "true");
}

TEST_F(PageDenials, LocationIsDenied) {
    visit("<title>home</title>");
    page().evaluate(
        "navigator.geolocation.getCurrentPosition(() => { window.outcome = 'given'; }, (error) => { window.outcome = 'code ' + error.code; }); ''");
    page().waitUntil("window.outcome !== undefined");
    EXPECT_EQ(page().evaluate("window.outcome"), "code 1");
}

TEST_F(PageDenials, NotificationsAreDenied) {
    visit("<title>home</title>");
    page().evaluate("Notification.requestPermission().then((answer) => { window.answer = answer; }); ''");
    page().waitUntil("window.answer !== undefined");
    EXPECT_EQ(page().evaluate("window.answer"), "denied");
}

TEST_F(PageDenials, TheClipboardIsOutOfReach) {
    visit("<title>home</title><textarea id=box>secret</textarea>");
    EXPECT_EQ(page().evaluate("box.select(); String(document.execCommand('paste'))"), "false");
    page().evaluate(
        "if (!navigator.clipboard || !navigator.clipboard.readText) { window.outcome = 'denied'; } else navigator.clipboard.readText().then(() => { window.outcome = 'given'; }, () => { window.outcome = 'denied'; }); ''");
    page().waitUntil("window.outcome !== undefined");
    EXPECT_EQ(page().evaluate("window.outcome"), "denied");
}

}  // namespace
}  // namespace brindle::test

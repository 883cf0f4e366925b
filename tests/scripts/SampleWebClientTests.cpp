#include <filesystem>
#include <map>

#include "scripts/PageScriptTest.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/LoopbackServer.h"
#include "support/QRPictures.h"
#include "text/Base64.h"

namespace brindle::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::StartsWith;

const std::filesystem::path sample_directory =
    std::filesystem::path(SOURCE_DIRECTORY) / "examples" / "web-client";
/// At once on the login page, and nothing happens there unasked.
const std::string quiet = "loading=0&scan=never&renew=3600&traffic=none";

constexpr int phone_width_pixels = 360;

/// The page in a frame as wide as a phone.
std::string phonePage() {
    return R"(<!DOCTYPE html><meta charset="utf-8"><iframe id="phone" style="border: 0" width=")" +
           std::to_string(phone_width_pixels) + R"(" height="640" src="index.html?)" + quiet +
           R"("></iframe>)";
}

LoopbackServer::Response serveSample(const LoopbackServer::Request& request) {
    if (request.path == "/phone.html") return {.body = phonePage(), .type = "text/html; charset=utf-8"};
    const auto path = request.path.substr(1, request.path.find('?') - 1);
    const std::filesystem::path file = sample_directory / path;
    if (!std::filesystem::is_regular_file(file)) return {.status = "404 Not Found"};
    const std::map<std::string, std::string> types{
        {".html", "text/html; charset=utf-8"}, {".css", "text/css"}, {".js", "text/javascript"}};
    return {.body = readFile(file), .type = types.at(file.extension())};
}

/// The sample web client in the real engine, with the eyes of the page scripts.
class SampleWebClient : public PageScriptTest {
  protected:
    /// A server of its own makes every test another origin; cookies know no ports.
    void SetUp() override {
        bool isDone = false;
        page().page().removeAllWebsiteData([&isDone](bool isGone) { isDone = isGone; });
        page().runUntil([&] { return isDone; }, "the website data has been removed");
    }

    void open(const std::string& parameters) { page().loadAddress(server_.url("/index.html?" + parameters)); }
    void openOnAPhone() { page().loadAddress(server_.url("/phone.html")); }
    void openLogin(const std::string& parameters = quiet) {
        open(parameters);
        waitForPhase("login");
    }
    void openChats(const std::string& parameters = quiet) {
        openLogin(parameters);
        EXPECT_EQ(client("scan()"), true);
        waitForPhase("chats");
    }
    /// Opens the chat by the script and primes it.
    void watch(const std::string& title) {
        constexpr int runs_for_search_row_and_proof = 3;
        std::string state;
        for (int run = 0; run < runs_for_search_row_and_proof; ++run) state = activate(title).at("state");
        ASSERT_EQ(state, "active") << title;
        ASSERT_EQ(capture(title).at("state"), "no-incoming-message");
    }

    static void waitForPhase(const std::string& phase) {
        page().waitUntil("sampleWebClient.state().phase === " + literal(phase));
    }
    /// What the page's interface for scripts answers.
    static Json client(const std::string& call) { return valueOf("sampleWebClient." + call); }
    static Json counters() { return client("state()").at("counters"); }

    static Json linkState() {
        return Json::parse(page().evaluate(std::string(page_script::link_state)).value());
    }
    static std::optional<std::string> qrCode() { return page().evaluate(std::string(page_script::qr_code)); }
    /// What a phone reads from the picture that the worker would write.
    static std::string scannedCode() {
        const std::string url = qrCode().value_or("");
        EXPECT_THAT(url, StartsWith(png_prefix));
        return scannedPng(base64Decoded(url.substr(png_prefix.size())).value_or(""));
    }
    static std::vector<std::string> capturedTexts(const std::string& title) {
        std::vector<std::string> texts;
        for (const Json& message : capture(title).value("messages", Json::array())) {
            texts.push_back(message.at("text"));
        }
        return texts;
    }

  private:
    LoopbackServer server_{serveSample};
};

// --- Before the account is linked

TEST_F(SampleWebClient, LoadingScreenShowsNeitherACodeNorASession) {
    open("loading=3600");
    EXPECT_EQ(client("state()").at("phase"), "loading");
    EXPECT_EQ(linkState().at("linked"), false);
    EXPECT_EQ(qrCode(), std::nullopt);
}

TEST_F(SampleWebClient, LoginPageAsksForAScan) {
    openLogin();
    EXPECT_EQ(valueOf("document.body.innerText.includes('Use WhatsApp on your phone to scan the QR code')"),
              true);
    EXPECT_EQ(linkState().at("linked"), false);
}

TEST_F(SampleWebClient, CodeOnTheCanvasCanBeScanned) {
    openLogin();
    EXPECT_THAT(scannedCode(), StartsWith("brindle-sample:1,"));
}

TEST_F(SampleWebClient, RenewedCodeIsAnotherOne) {
    openLogin();
    const std::string before = scannedCode();
    EXPECT_EQ(client("renewCode()"), true);
    const std::string after = scannedCode();
    EXPECT_THAT(after, StartsWith("brindle-sample:2,"));
    EXPECT_NE(after.substr(after.find(',')), before.substr(before.find(',')));
}

TEST_F(SampleWebClient, CodeIsRenewedByItself) {
    openLogin("loading=0&scan=never&renew=0.1");
    page().waitUntil("sampleWebClient.state().counters.codes >= 3");
    EXPECT_THAT(scannedCode(), StartsWith("brindle-sample:"));
}

TEST_F(SampleWebClient, ScanByScriptLinksTheAccount) {
    openLogin();
    EXPECT_EQ(client("scan()"), true);
    EXPECT_EQ(qrCode(), std::nullopt);
    EXPECT_EQ(client("scan()"), false);
    waitForPhase("chats");
    EXPECT_EQ(linkState().dumpInOrder(), R"({"linked":true,"account":"WhatsApp Web"})");
    EXPECT_EQ(counters().at("scans"), 1);
    EXPECT_EQ(client("renewCode()"), false);
}

TEST_F(SampleWebClient, PhoneScansByItself) {
    open("loading=0&scan=0&traffic=none");
    waitForPhase("chats");
    EXPECT_EQ(linkState().at("linked"), true);
}

TEST_F(SampleWebClient, ButtonStandsForThePhone) {
    openLogin();
    inPage("document.getElementById('scan').click();");
    waitForPhase("chats");
}

// --- The login that stays

TEST_F(SampleWebClient, LoginSurvivesAReload) {
    openChats();
    open(quiet);
    waitForPhase("chats");
    EXPECT_EQ(linkState().at("linked"), true);
    EXPECT_EQ(client("state()").at("storedLogin"),
              Json::parse(R"({"localStorage":true,"cookie":true,"indexedDB":true,"cacheStorage":true})"));
}

TEST_F(SampleWebClient, LoggingOutForgetsTheLoginEverywhere) {
    openChats();
    watch("Family");
    inPage("document.getElementById('log-out').click();");
    waitForPhase("login");
    EXPECT_EQ(linkState().at("linked"), false);
    EXPECT_THAT(scannedCode(), StartsWith("brindle-sample:"));
    EXPECT_EQ(capture("Family").at("state"), "no-active-chat");
    openLogin();
    EXPECT_EQ(client("state()").at("storedLogin"),
              Json::parse(R"({"localStorage":false,"cookie":false,"indexedDB":false,"cacheStorage":false})"));
}

// --- Opening a chat

TEST_F(SampleWebClient, ChatIsOpenedByItsRow) {
    openChats();
    const Json answer = activate("Team Room");
    EXPECT_EQ(answer.at("state"), "activating");
    EXPECT_EQ(answer.at("matchedTitle"), "Team Room");
    EXPECT_EQ(activate("Team Room").at("state"), "active");
    EXPECT_EQ(client("state()").at("openChat"), "Team Room");
    EXPECT_EQ(counters().at("rowClicks"), 2);
    EXPECT_EQ(counters().at("chatsOpened"), 1);
}

TEST_F(SampleWebClient, ChatThatIsNotListedIsFoundBySearch) {
    openChats();
    EXPECT_EQ(activate("Old Choir").at("state"), "searching");
    EXPECT_GE(counters().at("searches"), 1);
    EXPECT_EQ(activate("Old Choir").at("state"), "activating");
    EXPECT_EQ(activate("Old Choir").at("state"), "active");
}

TEST_F(SampleWebClient, ChatThatTheLastSearchHidIsFoundByAnother) {
    openChats();
    watch("Old Choir");
    EXPECT_EQ(activate("Family").at("state"), "searching");
    EXPECT_EQ(valueOf("document.getElementById('search').textContent"), "Family");
    EXPECT_EQ(activate("Family").at("state"), "activating");
    EXPECT_EQ(activate("Family").at("state"), "active");
}

TEST_F(SampleWebClient, EveryListedChatCanBeOpened) {
    openChats();
    const auto titles =
        valueOf("Array.from(document.querySelectorAll('#pane-side .chat-title'), (each) => each.title)")
            .get<std::vector<std::string>>();
    EXPECT_THAT(titles, Contains(R"(Say "hi" \ <b>bye</b>)"));
    EXPECT_THAT(titles, Not(Contains("Old Choir")));
    for (const std::string& title : titles) {
        watch(title);
        EXPECT_EQ(client("state()").at("openChat"), title);
    }
}

TEST_F(SampleWebClient, ChatThatDoesNotExistIsSearchedAndNotOpened) {
    openChats();
    for (int run = 0; run < 3; ++run) EXPECT_EQ(activate("Nobody").at("state"), "searching");
    EXPECT_EQ(client("state()").at("openChat"), nullptr);
    EXPECT_EQ(capture("Nobody").at("state"), "no-active-chat");
}

// --- Messages

TEST_F(SampleWebClient, HistoryIsInViewButNotCaptured) {
    openChats();
    watch("Team Room");
    EXPECT_EQ(capture("Team Room").at("visibleInboundCount"), 4);
}

TEST_F(SampleWebClient, MessageInAGroupIsCapturedWithItsSenderAndText) {
    openChats();
    watch("Team Room");
    client("receive({ chat: 'team-room', sender: 'Bo Nilsson', text: 'Gate 4, please 🚐', id: 'm-1' })");
    EXPECT_EQ(capture("Team Room").at("messages").dumpInOrder(),
              R"([{"activeChatTitle":"Team Room","senderDisplayName":"Bo Nilsson","text":"Gate 4, please 🚐",)"
              R"("fingerprint":"Team Room::m-1::Bo Nilsson::Gate 4, please 🚐","rawReference":"m-1"}])");
    EXPECT_THAT(capturedTexts("Team Room"), ElementsAre());
}

TEST_F(SampleWebClient, DirectChatNamesNoSenderInItsMessages) {
    openChats();
    watch("Ann Lee");
    client("receive({ chat: 'Ann Lee', text: 'At the station', id: 'm-1' })");
    const Json messages = capture("Ann Lee").at("messages");
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages.at(0).at("senderDisplayName"), nullptr);
    EXPECT_EQ(messages.at(0).at("text"), "At the station");
}

TEST_F(SampleWebClient, QuoteIsNoPartOfTheText) {
    openChats();
    watch("Ann Lee");
    client(R"(receive({ chat: 'Ann Lee', text: 'Fine!', quote: { author: 'You', text: 'At six?' } }))");
    EXPECT_THAT(capturedTexts("Ann Lee"), ElementsAre("Fine!"));
}

TEST_F(SampleWebClient, LongTextIsCapturedWholeThoughItIsFolded) {
    openChats();
    watch("Carla Souza");
    client("receive({ chat: 'Carla Souza', text: 'begin ' + 'word '.repeat(20000) + 'end' })");
    EXPECT_EQ(valueOf("document.querySelectorAll('.folded').length"), 2);
    const auto texts = capturedTexts("Carla Souza");
    ASSERT_EQ(texts.size(), 1U);
    EXPECT_EQ(texts[0].size(), std::string("begin end").size() + 1 + 5 * 20000 - 1);
    EXPECT_THAT(texts[0], StartsWith("begin word word "));
    EXPECT_TRUE(texts[0].ends_with("word end"));
}

TEST_F(SampleWebClient, MarkupInATextStaysText) {
    openChats();
    watch("Family");
    const std::string text = R"(<img src=x onerror="window.injected = 1"> & </span>)";
    client("receive({ chat: 'Family', sender: 'Mum', text: " + literal(text) + " })");
    EXPECT_THAT(capturedTexts("Family"), ElementsAre(text));
    EXPECT_EQ(valueOf("window.injected === undefined"), true);
}

TEST_F(SampleWebClient, OwnMessagesAreNotCaptured) {
    openChats();
    watch("Family");
    inPage(R"(
        document.getElementById('compose').value = 'On my way';
        document.getElementById('send').click();)");
    client("send('Family', 'Soon')");
    EXPECT_EQ(counters().at("sent"), 2);
    EXPECT_THAT(capturedTexts("Family"), ElementsAre());
}

TEST_F(SampleWebClient, ContactAnswersWhatAPersonWrites) {
    openChats("loading=0&scan=never&start=3600&reply=0");
    watch("Family");
    client("send('Family', 'Soon')");
    page().waitUntil("sampleWebClient.state().counters.received === 1");
    const Json messages = capture("Family").at("messages");
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages.at(0).at("senderDisplayName"), "Mum");
}

TEST_F(SampleWebClient, ConversationBeginsInTheChatThatIsOpenedFirst) {
    openChats("loading=0&scan=never&start=0&pace=0");
    // Sets up the observer, which notices the opened chat before the conversation begins.
    capture("Team Room");
    activate("Team Room");
    page().waitUntil("sampleWebClient.state().counters.received === 3");
    EXPECT_THAT(capturedTexts("Team Room"),
                ElementsAre("Good morning! The van is loaded 🚐",
                            "I am at the gate already, it is still closed.", "Leaving now. Ten minutes!"));
}

TEST_F(SampleWebClient, MessageForAnotherChatMovesItUpAndIsNotCaptured) {
    openChats();
    watch("Family");
    client("receive({ chat: 'Bo Nilsson', text: 'Call me' })");
    EXPECT_EQ(valueOf("document.querySelector('#pane-side .chat-title').title"), "Bo Nilsson");
    EXPECT_THAT(valueOf("document.title").get<std::string>(), StartsWith("(1) "));
    EXPECT_THAT(capturedTexts("Family"), ElementsAre());
}

TEST_F(SampleWebClient, UnknownSenderBeginsAChat) {
    openChats();
    client("receive({ chat: 'Neighbour', text: 'Your parcel is here' })");
    watch("Neighbour");
    client("receive({ chat: 'Neighbour', text: 'Still here', id: 'm-2' })");
    EXPECT_THAT(capturedTexts("Neighbour"), ElementsAre("Still here"));
}

// --- The list that lets old messages go

TEST_F(SampleWebClient, OnlyAPartOfALongChatIsInTheDocument) {
    openChats();
    watch("Ship Log");
    EXPECT_EQ(client("state()").at("renderedMessages"), 60);
    EXPECT_EQ(valueOf("document.querySelectorAll('[data-id]').length"), 60);
}

TEST_F(SampleWebClient, MessagesThatLeaveTheDocumentBeforeTheNextRunAreCaptured) {
    openChats(quiet + "&rendered=3");
    watch("Family");
    inPage(R"(
        let count = 0;
        const arrive = () => {
            count += 1;
            sampleWebClient.receive({ chat: 'Family', sender: 'Mum', text: 'Photo ' + count, id: 'm-' + count });
            if (count < 20) { setTimeout(arrive, 0); }
        };
        arrive();)");
    page().waitUntil("sampleWebClient.state().counters.received === 20");
    EXPECT_EQ(valueOf("document.querySelectorAll('[data-id]').length"), 3);
    const auto texts = capturedTexts("Family");
    ASSERT_EQ(texts.size(), 20U);
    EXPECT_EQ(texts.front(), "Photo 1");
    EXPECT_EQ(texts.back(), "Photo 20");
}

// --- Without a server

TEST_F(SampleWebClient, IsReadableAtTheWidthOfAPhone) {
    openOnAPhone();
    const std::string phone = "document.getElementById('phone').contentWindow";
    const auto waitForPhaseThere = [&](const std::string& phase) {
        page().waitUntil(phone + ".sampleWebClient !== undefined && " + phone +
                         ".sampleWebClient.state().phase === " + literal(phase));
    };
    const auto widthOf = [&](const std::string& selector) {
        return valueOf("Math.round(" + phone + ".document.querySelector(" + literal(selector) +
                       ").getBoundingClientRect().width)")
            .get<int>();
    };
    const auto contentWidth = [&] {
        return valueOf(phone + ".document.documentElement.scrollWidth").get<int>();
    };
    constexpr int readable_pixels = 280;
    waitForPhaseThere("login");
    EXPECT_EQ(contentWidth(), phone_width_pixels);
    EXPECT_GE(widthOf("canvas"), readable_pixels);
    valueOf(phone + ".sampleWebClient.scan()");
    waitForPhaseThere("chats");
    EXPECT_EQ(valueOf(phone + ".sampleWebClient.openChat('Team Room')"), true);
    EXPECT_EQ(contentWidth(), phone_width_pixels);
    EXPECT_GE(widthOf("#side"), readable_pixels);
    EXPECT_GE(widthOf(".messages"), readable_pixels);
    EXPECT_GE(widthOf("#main textarea"), readable_pixels / 2);
}

TEST_F(SampleWebClient, WorksAsATextWithItsDirectory) {
    std::string html = readFile(sample_directory / "index.html");
    const std::string meta = R"(name="sample-client" content=")";
    html.insert(html.find(meta) + meta.size(), "loading=0&amp;scan=never&amp;traffic=none");
    page().forgetEvents();
    page().page().loadText(html, sample_directory);
    page().runUntil([] { return page().events().finished > 0; }, "the sample has been loaded");
    waitForPhase("login");
    EXPECT_THAT(scannedCode(), StartsWith("brindle-sample:1,"));
    EXPECT_EQ(client("scan()"), true);
    waitForPhase("chats");
    watch("Family");
    client("receive({ chat: 'Family', sender: 'Noah', text: 'Hello' })");
    EXPECT_THAT(capturedTexts("Family"), ElementsAre("Hello"));
}

}  // namespace
}  // namespace brindle::test

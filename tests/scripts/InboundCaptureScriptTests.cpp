#include "scripts/PageScriptTest.h"

#include "support/Json.h"

namespace brindle::test {
namespace {

class InboundCaptureScript : public PageScriptTest {
  protected:
    /// Shows an open chat with these messages, and functions for the tests that change it.
    static void showChat(const std::string& title, const std::string& messages = "") {
        show("<div id=\"main\"><header><span title=\"" + title +
                 "\"></span></header><section id=\"messages\">" + messages + "</section></div>",
             R"(<title>The page</title><script>
                 function openChat(title) {
                     document.querySelector('header span').title = title;
                     document.getElementById('messages').textContent = '';
                 }
                 function add(text, id) {
                     const node = document.createElement('div');
                     node.className = 'message-in';
                     if (id) { node.dataset.id = id; }
                     node.textContent = text;
                     document.getElementById('messages').append(node);
                 }
             </script>)");
    }
    /// Shows an open chat whose messages are all new, because it was empty when it was first seen.
    static void showMessages(const std::string& messages) {
        showChat("Team");
        capture("Team");
        inPage("document.getElementById('messages').innerHTML = " + literal(messages) + ";");
    }
    /// The messages captured from such a chat.
    static Json messagesIn(const std::string& messages) {
        showMessages(messages);
        return capture("Team").at("messages");
    }
    /// Shows an empty chat and captures for the first time, which takes what is there as known.
    static void watch(const std::string& title) {
        showChat(title);
        capture(title);
    }
    /// The only message captured from such a chat; an empty object when there is none.
    static Json messageIn(const std::string& message) {
        const Json messages = messagesIn(message);
        EXPECT_LE(messages.size(), 1U) << message;
        return messages.empty() ? Json::object() : messages.at(0);
    }
    static std::vector<std::string> textsOf(const Json& messages) {
        std::vector<std::string> texts;
        for (const Json& message : messages) texts.push_back(message.at("text"));
        return texts;
    }
    static std::vector<std::string> capturedTexts(const std::string& watchedTitle) {
        return textsOf(capture(watchedTitle).value("messages", Json::array()));
    }
    using Texts = std::vector<std::string>;
};

// --- Answers

TEST_F(InboundCaptureScript, NothingNewIsReportedWithAllKeys) {
    showChat("Team Alpha", "<div class=\"message-in\">Old</div>");
    EXPECT_EQ(capture(" Team ").dumpInOrder(),
              R"({"state":"no-incoming-message","activeChatTitle":"Team Alpha","watchedTitle":" Team ",)"
              R"("pageTitle":"The page","visibleInboundCount":1,"queuedCount":0,"messages":[]})");
}

TEST_F(InboundCaptureScript, NewMessageIsReportedWithAllKeys) {
    showMessages(R"(<div class="message-in" data-id="m1"><span dir="auto">Ann Lee</span>)"
                 R"(<span class="selectable-text">Hello</span></div>)");
    EXPECT_EQ(
        capture("Team").dumpInOrder(),
        R"({"state":"ok","activeChatTitle":"Team","watchedTitle":"Team","pageTitle":"The page",)"
        R"("visibleInboundCount":1,"queuedCount":0,"messages":[{"activeChatTitle":"Team",)"
        R"("senderDisplayName":"Ann Lee","text":"Hello","fingerprint":"Team::m1::Ann Lee::Hello","rawReference":"m1"}]})");
}

TEST_F(InboundCaptureScript, MissingChatIsReportedWithAllKeys) {
    show("<div class=\"message-in\">Hello</div>");
    EXPECT_EQ(capture("Team").dumpInOrder(),
              R"({"state":"no-active-chat","activeChatTitle":null,"watchedTitle":"Team",)"
              R"("pageTitle":"The page","visibleInboundCount":1,"queuedCount":1})");
}

TEST_F(InboundCaptureScript, OtherChatIsReportedWithAllKeys) {
    showChat("Family", "<div class=\"message-in\">Old</div>");
    EXPECT_EQ(capture("Team").dumpInOrder(),
              R"({"state":"wrong-chat","activeChatTitle":"Family","watchedTitle":"Team",)"
              R"("pageTitle":"The page","visibleInboundCount":1,"queuedCount":0})");
}

TEST_F(InboundCaptureScript, PageWithoutTitleHasAnEmptyOne) {
    show("", "");
    EXPECT_EQ(capture("Team").at("pageTitle"), "");
}

TEST_F(InboundCaptureScript, ActiveChatTitleIsNormalized) {
    showChat(" Team \t Alpha ");
    EXPECT_EQ(capture("Team").at("activeChatTitle"), "Team Alpha");
}

TEST_F(InboundCaptureScript, WatchedTitleIsComparedAsText) {
    for (const char* title :
         {R"(a "quote")", R"(back\slash\)", "Home/Work", "</script><b>", "a\xE2\x80\xA8z",
          "${window.injected = 1}", "__WATCHED_TITLE__", R"("+(window.injected = 1)+")"}) {
        showChat("");
        inPage("openChat(" + literal(title) + ");");
        const Json answer = capture(title);
        EXPECT_EQ(answer.at("state"), "no-incoming-message") << title;
        EXPECT_EQ(answer.at("watchedTitle"), title);
        EXPECT_EQ(valueOf("window.injected === undefined"), true) << title;
    }
}

// --- What counts as an inbound message

TEST_F(InboundCaptureScript, CandidatesOfEveryKindAreFound) {
    const std::vector<std::string> candidates = {
        R"(<div class="message-in">Hello</div>)",
        R"(<div class="focusable message-in wide">Hello</div>)",
        R"(<div data-testid="msg-in">Hello</div>)",
        R"(<div data-testid="msg-container">Hello</div>)",
        R"(<p data-id="1" data-testid="a-MSG-IN-b">Hello</p>)",
        R"(<p data-id="1" data-testid="a-Msg-Container-b">Hello</p>)",
        R"(<p data-id="1" class="message-in">Hello</p>)",
        R"(<p data-id="1"><b class="message-in">Hello</b></p>)",
        R"(<p data-id="1"><b data-testid="msg-in">Hello</b></p>)",
        R"(<p data-id="1"><span class="selectable-text">Hello</span></p>)",
        R"(<p data-id="1"><b data-testid="msg-text">Hello</b></p>)",
        R"(<p data-id="1"><b data-pre-plain-text="[10:00] Ann: ">Hello</b></p>)",
    };
    for (const std::string& candidate : candidates) {
        EXPECT_EQ(textsOf(messagesIn(candidate)), Texts{"Hello"}) << candidate;
    }
}

TEST_F(InboundCaptureScript, OtherElementsAreNoMessages) {
    const std::vector<std::string> others = {
        R"(<p class="message-in">Hello</p>)",
        R"(<p data-testid="msg-in">Hello</p>)",
        R"(<p data-testid="msg-container">Hello</p>)",
        R"(<div data-testid="msg-in-row">Hello</div>)",
        R"(<p data-id="1">Hello</p>)",
        R"(<p data-id="1"><b class="selectable-text">Hello</b></p>)",
        R"(<div><span class="selectable-text">Hello</span></div>)",
        R"(<div class="message">Hello</div>)",
    };
    for (const std::string& other : others) EXPECT_EQ(messagesIn(other), Json::array()) << other;
}

TEST_F(InboundCaptureScript, OutboundMessagesAreLeftOut) {
    const std::vector<std::string> outbound = {
        R"(<div class="message-in message-out">Hello</div>)",
        R"(<div class="message-in" data-testid="msg-out">Hello</div>)",
        R"(<div class="message-in" data-testid="row-MSG-OUT-tail">Hello</div>)",
        R"(<div class="message-in"><p class="message-out">Hello</p></div>)",
        R"(<div data-testid="msg-container"><p data-testid="msg-out">Hello</p></div>)",
        R"(<div data-id="1" class="message-out"><span class="selectable-text">Hello</span></div>)",
        R"(<div data-id="1"><p><b class="message-out"><span class="selectable-text">Hello</span></b></p></div>)",
    };
    for (const std::string& message : outbound) EXPECT_EQ(messagesIn(message), Json::array()) << message;
}

TEST_F(InboundCaptureScript, WhatIsNoElementIsNoMessage) {
    watch("Team");
    inPage(R"(
        document.querySelectorAll = () => [null, undefined, document, document.createTextNode('x'),
            ...document.getElementsByClassName('message-in')];
        add('Hello');)");
    const Json messages = capture("Team").at("messages");
    ASSERT_EQ(textsOf(messages), Texts{"Hello"});
    EXPECT_EQ(messages.at(0).at("rawReference"), "visible-index:4");
}

TEST_F(InboundCaptureScript, ElementOfSeveralKindsIsOneMessage) {
    EXPECT_EQ(messagesIn(R"(<div class="message-in" data-testid="msg-in" data-id="1">Hello</div>)").size(),
              1U);
}

TEST_F(InboundCaptureScript, MessagesComeInDocumentOrder) {
    EXPECT_EQ(
        textsOf(messagesIn(R"(<p data-id="1"><span class="selectable-text">One</span></p>)"
                           R"(<div class="message-in">Two</div><div data-testid="msg-container">Three</div>)"
                           R"(<div data-testid="msg-in">Four</div><div class="message-in">Five</div>)")),
        (Texts{"One", "Two", "Three", "Four", "Five"}));
}

TEST_F(InboundCaptureScript, MessageWithoutTextIsLeftOut) {
    EXPECT_EQ(messagesIn("<div class=\"message-in\"> \n &nbsp;<img alt=\"A picture\"></div>"), Json::array());
}

// --- Text

TEST_F(InboundCaptureScript, TextIsReadFromEveryKindOfTextElement) {
    const std::vector<std::string> messages = {
        R"(<div class="message-in">x<span class="selectable-text">Hello</span></div>)",
        R"(<div class="message-in">x<div class="selectable-text">x<span>Hello</span></div></div>)",
        R"(<div class="message-in">x<p data-testid="msg-text"><span>Hello</span></p></div>)",
        R"(<div class="message-in">x<p data-testid="msg-text">Hello</p></div>)",
        R"(<div class="message-in">x<span class="copyable-text"><span class="selectable-text">Hello</span></span></div>)",
        R"(<div class="message-in">x<div class="copyable-text"><span class="selectable-text">Hello</span></div></div>)",
    };
    for (const std::string& message : messages) EXPECT_EQ(messageIn(message).at("text"), "Hello") << message;
}

TEST_F(InboundCaptureScript, TextChunksAreJoinedInTheOrderOfTheirKindsAndThenOfTheDocument) {
    const Json message = messageIn(R"(<div class="message-in"><p data-testid="msg-text">Fourth</p>
        <p data-testid="msg-text"><span>Third</span></p><div class="selectable-text"><span>Second</span></div>
        <span class="selectable-text">First</span><span class="selectable-text">and more</span></div>)");
    EXPECT_EQ(message.at("text"), "First and more Second Third Fourth");
}

TEST_F(InboundCaptureScript, SameTextChunkIsTakenOnce) {
    EXPECT_EQ(messageIn(R"(<div class="message-in"><span class="selectable-text">Yes</span>
        <span class="selectable-text"> Yes </span><span class="selectable-text"></span>
        <p data-testid="msg-text"><span class="selectable-text">Yes</span></p></div>)")
                  .at("text"),
              "Yes");
}

TEST_F(InboundCaptureScript, TextIsNormalized) {
    EXPECT_EQ(
        messageIn("<div class=\"message-in\"><span class=\"selectable-text\" style=\"white-space: pre\">"
                  "  one\n\n two\t&nbsp;three </span></div>")
            .at("text"),
        "one two three");
}

TEST_F(InboundCaptureScript, WithoutTextElementsTheWholeNodeIsRead) {
    EXPECT_EQ(messageIn("<div class=\"message-in\"><b>Hello</b>\n <i>there</i>"
                        "<span class=\"selectable-text\"> </span></div>")
                  .at("text"),
              "Hello there");
}

TEST_F(InboundCaptureScript, TextThatIsNotRenderedIsReadAllTheSame) {
    EXPECT_EQ(
        messageIn("<div class=\"message-in\"><span class=\"selectable-text\" style=\"visibility: hidden\">"
                  "Hello</span></div>")
            .at("text"),
        "Hello");
    EXPECT_EQ(messageIn("<div class=\"message-in\" style=\"visibility: hidden\">Hello</div>").at("text"),
              "Hello");
}

TEST_F(InboundCaptureScript, RenderedTextComesBeforeContent) {
    EXPECT_EQ(messageIn("<div class=\"message-in\"><span class=\"selectable-text\">"
                        "Hello<i style=\"display: none\"> hidden</i></span></div>")
                  .at("text"),
              "Hello");
}

TEST_F(InboundCaptureScript, MarkupInTextStaysText) {
    const std::string text =
        "<img src=x onerror=\"window.injected = 1\"> \\ \" </script> ${1} \xF0\x9F\x8E\x89";
    showMessages("<div class=\"message-in\"></div>");
    inPage("document.querySelector('.message-in').textContent = " + literal(text) + ";");
    EXPECT_EQ(capturedTexts("Team"), Texts{text});
    EXPECT_EQ(valueOf("window.injected === undefined"), true);
}

// --- Sender

struct SenderCase {
    const char* content;
    Json sender;
};

TEST_F(InboundCaptureScript, SenderIsTheFirstNameInTheMessage) {
    const std::string text = R"(<span class="selectable-text">Hello</span>)";
    const std::vector<SenderCase> cases = {
        {R"(<span title="Ann">x</span>)", "Ann"},
        {R"(<span dir="auto" title="Ann">x</span>)", "Ann"},
        {R"(<span dir="auto">Ann</span>)", "Ann"},
        {R"(<span dir="auto">Ann<i style="display: none"> Lee</i></span>)", "Ann"},
        {R"(<p data-pre-plain-text="Ann">x</p>)", "Ann"},
        {R"(<p data-pre-plain-text="x" title="Ann">x</p>)", "Ann"},
        {R"(<span title="" data-pre-plain-text="Ann">x</span>)", "Ann"},
        {R"(<span title="">Ann</span>)", "Ann"},
        {R"(<span title="" style="visibility: hidden">Ann</span>)", "Ann"},
        {R"(<span title="  Ann &#10; Lee ">x</span>)", "Ann Lee"},
        {R"(<span dir="auto">Ann</span><span title="Bob">x</span>)", "Ann"},
        {R"(<span dir="auto"></span><span title="  ">x</span><span title="Bob">x</span>)", "Bob"},
        {R"(<span title="Hello">x</span><span dir="auto">Hello</span><span title="Bob">x</span>)", "Bob"},
        {R"(<p data-pre-plain-text="[10:00, 1/2/2024] Ann: ">x</p><span title="Bob">x</span>)", "Bob"},
        {R"(<p data-pre-plain-text="[10:00, 1/2/2024] Ann: ">x</p>)", nullptr},
        {R"(<span title="[Ann">x</span>)", "[Ann"},
        {R"(<span title="Ann [work]">x</span>)", "Ann [work]"},
        {R"(<span>Ann</span><b title="Bob">x</b><p dir="auto">Eve</p>)", nullptr},
        {"", nullptr},
    };
    for (const SenderCase& test : cases) {
        const Json message = messageIn("<div class=\"message-in\">" + text + test.content + "</div>");
        EXPECT_EQ(message.at("senderDisplayName"), test.sender) << test.content;
    }
}

TEST_F(InboundCaptureScript, SenderIsLookedForInsideTheMessageOnly) {
    EXPECT_EQ(
        messageIn(
            "<span title=\"Bob\">x</span><div class=\"message-in\" data-pre-plain-text=\"Ann\">Hello</div>")
            .at("senderDisplayName"),
        nullptr);
}

// --- Reference and fingerprint

TEST_F(InboundCaptureScript, ReferenceIsTheFirstIdentifierOfTheMessage) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"(<div class="message-in" data-id=" id  1 " data-pre-plain-text="x" aria-label="x">Hello</div>)",
         "id 1"},
        {R"(<div class="message-in" data-id="" data-pre-plain-text="own" aria-label="x">Hello)"
         R"(<i data-pre-plain-text="x"></i></div>)",
         "own"},
        {R"(<div class="message-in" aria-label="x">Hello<i data-pre-plain-text="first"></i>)"
         R"(<i data-pre-plain-text="x"></i></div>)",
         "first"},
        {R"(<div class="message-in" aria-label="label">Hello<i data-pre-plain-text=""></i>)"
         R"(<i data-pre-plain-text="x"></i></div>)",
         "label"},
        {R"(<div class="message-in">Hello</div>)", "visible-index:0"},
    };
    for (const auto& [message, reference] : cases) {
        EXPECT_EQ(messageIn(message).at("rawReference"), reference) << message;
    }
}

TEST_F(InboundCaptureScript, VisibleIndexCountsEveryCandidateOnce) {
    const Json messages = messagesIn(R"(<div class="message-in message-out">Mine</div>
        <div class="message-in" data-id="1" data-testid="msg-in">One</div><p data-id="2">No message</p>
        <div class="message-in"></div><p>Not a candidate</p><div class="message-in">Two</div>)");
    ASSERT_EQ(textsOf(messages), (Texts{"One", "Two"}));
    EXPECT_EQ(messages.at(1).at("rawReference"), "visible-index:4");
}

TEST_F(InboundCaptureScript, FingerprintJoinsChatReferenceSenderAndText) {
    EXPECT_EQ(messageIn("<div class=\"message-in\" data-id=\"m:1\">Hello</div>").at("fingerprint"),
              "Team::m:1::::Hello");
}

// --- The state kept in the page

TEST_F(InboundCaptureScript, FirstRunCreatesTheState) {
    showChat("Team", "<div class=\"message-in\" data-id=\"1\">Old</div>");
    ASSERT_EQ(valueOf(state_name + " === undefined"), true);
    capture("Team");
    EXPECT_EQ(
        valueOf("Object.keys(" + state_name + ")"),
        Json::parse(R"(["queue","seenFingerprints","primedChats","observerInstalled","lastSnapshot"])"));
    EXPECT_EQ(valueOf(state_name + ".queue"), Json::array());
    EXPECT_EQ(valueOf(state_name + ".primedChats"), Json::parse(R"({"team":true})"));
    EXPECT_EQ(valueOf(state_name + ".observerInstalled"), true);
    EXPECT_EQ(valueOf(state_name + ".lastSnapshot").dumpInOrder(),
              R"({"activeChatTitle":"Team","pageTitle":"The page","visibleInboundCount":1,"queuedCount":0})");
    EXPECT_EQ(valueOf("[" + state_name + ".seenFingerprints, " + state_name +
                      ".primedChats].map(Object.getPrototypeOf)"),
              Json::parse("[null, null]"));
}

TEST_F(InboundCaptureScript, FingerprintsAreStampedInMillisecondsSinceTheEpoch) {
    showChat("Team", "<div class=\"message-in\" data-id=\"1\">Old</div>");
    inPage("window.before = Date.now();");
    capture("Team");
    EXPECT_EQ(valueOf("Object.keys(" + state_name + ".seenFingerprints)"),
              Json::parse(R"(["Team::1::::Old"])"));
    EXPECT_EQ(valueOf("Object.values(" + state_name +
                      ".seenFingerprints).every((time) => time >= before && time <= Date.now())"),
              true);
}

TEST_F(InboundCaptureScript, LaterRunsKeepTheState) {
    watch("Team");
    inPage("window.first = " + state_name + ";");
    capture("Team");
    EXPECT_EQ(valueOf(state_name + " === window.first"), true);
}

TEST_F(InboundCaptureScript, StateIsTheOnlyThingLeftBehind) {
    showChat("Team", "<div class=\"message-in\" data-id=\"1\">Old</div>");
    inPage("window.before = Object.getOwnPropertyNames(window).concat('before');");
    capture("Team");
    EXPECT_EQ(valueOf("Object.getOwnPropertyNames(window).filter((name) => !before.includes(name))"),
              Json::parse(R"(["__brindleWhatsAppWorkerCaptureState"])"));
}

TEST_F(InboundCaptureScript, NewDocumentStartsAnew) {
    watch("Team");
    inPage("add('Lost', 'm1');");
    showChat("Team", "<div class=\"message-in\" data-id=\"m1\">Lost</div>");
    EXPECT_EQ(capturedTexts("Team"), Texts{});
    inPage("add('New', 'm2');");
    EXPECT_EQ(capturedTexts("Team"), Texts{"New"});
}

// --- Priming

TEST_F(InboundCaptureScript, HistoryOfAChatIsNotDelivered) {
    showChat("Team",
             "<div class=\"message-in\" data-id=\"1\">Old</div><div class=\"message-in\">Older</div>");
    EXPECT_EQ(capturedTexts("Team"), Texts{});
    EXPECT_EQ(capturedTexts("Team"), Texts{});
}

TEST_F(InboundCaptureScript, MessageThatArrivesLaterIsDeliveredOnce) {
    showChat("Team", "<div class=\"message-in\" data-id=\"1\">Old</div>");
    capture("Team");
    inPage("add('New', 'm2');");
    EXPECT_EQ(capturedTexts("Team"), Texts{"New"});
    EXPECT_EQ(capturedTexts("Team"), Texts{});
}

TEST_F(InboundCaptureScript, EachChatIsPrimedWhenItIsFirstSeen) {
    watch("Team");
    inPage("openChat('Family'); add('History of the family', 'f1');");
    EXPECT_EQ(capture("Family").at("messages"), Json::array());
    inPage("add('New in the family', 'f2');");
    EXPECT_EQ(capturedTexts("Family"), Texts{"New in the family"});
    EXPECT_EQ(valueOf(state_name + ".primedChats"), Json::parse(R"({"team":true,"family":true})"));
}

TEST_F(InboundCaptureScript, ChatIsPrimedOncePerPage) {
    watch("Team");
    inPage("openChat('Family');");
    capture("Family");
    inPage("openChat('Team'); add('While away', 'm1');");
    EXPECT_EQ(capturedTexts("Team"), Texts{"While away"});
}

TEST_F(InboundCaptureScript, CaseOfTheTitleDoesNotMakeAnotherChat) {
    watch("Team");
    inPage("openChat('TEAM'); add('New', 'm1');");
    EXPECT_EQ(capturedTexts("Team"), Texts{"New"});
}

TEST_F(InboundCaptureScript, ChatNamedLikeAnInheritedMemberIsPrimed) {
    for (const char* title : {"constructor", "__proto__", "toString"}) {
        showChat(title, "<div class=\"message-in\">Old</div>");
        EXPECT_EQ(capturedTexts(title), Texts{}) << title;
        inPage("add('New', 'm2');");
        EXPECT_EQ(capturedTexts(title), Texts{"New"}) << title;
    }
}

TEST_F(InboundCaptureScript, WithoutChatTitleMessagesAreQueuedAtOnce) {
    showChat("", "<div class=\"message-in\" data-id=\"1\">Hello</div>");
    EXPECT_EQ(capture("Team").at("queuedCount"), 1);
    EXPECT_EQ(valueOf(state_name + ".primedChats"), Json::object());
    EXPECT_EQ(valueOf(state_name + ".queue[0].fingerprint"), "::1::::Hello");
}

TEST_F(InboundCaptureScript, MessageOfAnUnnamedChatMatchesNoWatchedTitle) {
    showChat("", "<div class=\"message-in\" data-id=\"1\">Hello</div>");
    capture("Team");
    inPage("openChat('Team');");
    const Json answer = capture("Team");
    EXPECT_EQ(answer.at("state"), "no-incoming-message");
    EXPECT_EQ(answer.at("queuedCount"), 1);
}

// --- What happens between two runs

TEST_F(InboundCaptureScript, MessageThatIsRemovedAgainIsDelivered) {
    watch("Team");
    inPage("add('Gone soon', 'm1');");
    page().waitUntil(state_name + ".queue.length === 1");
    inPage("document.getElementById('messages').textContent = '';");
    EXPECT_EQ(capturedTexts("Team"), Texts{"Gone soon"});
}

TEST_F(InboundCaptureScript, MessagesOfAVirtualizedListAreAllDelivered) {
    watch("Team");
    inPage(R"(
        let next = 0;
        window.timer = setInterval(() => {
            add('Message ' + next, 'm' + next);
            const list = document.getElementById('messages');
            if (list.children.length > 3) { list.firstChild.remove(); }
            next += 1;
            if (next === 20) { clearInterval(window.timer); window.done = true; }
        }, 0);)");
    page().waitUntil("window.done === true");
    Texts expected;
    for (int i = 0; i < 20; ++i) expected.push_back("Message " + std::to_string(i));
    EXPECT_EQ(capturedTexts("Team"), expected);
}

TEST_F(InboundCaptureScript, ChangeOfAnAttributeIsNoticed) {
    showChat("Team", "<div id=\"message\" class=\"pending\">Hello</div>");
    capture("Team");
    inPage("document.getElementById('message').className = 'message-in';");
    page().waitUntil(state_name + ".queue.length === 1");
}

TEST_F(InboundCaptureScript, ChangeOfTextIsNoticed) {
    showChat("Team", "<div class=\"message-in\" data-id=\"1\">Typing</div>");
    capture("Team");
    inPage("document.querySelector('.message-in').firstChild.data = 'Typed';");
    page().waitUntil(state_name + ".queue.length === 1");
    EXPECT_EQ(capturedTexts("Team"), Texts{"Typed"});
}

TEST_F(InboundCaptureScript, EveryChangeIsFollowedByOneScan) {
    watch("Team");
    inPage(R"(
        window.scans = 0;
        const query = document.querySelectorAll;
        document.querySelectorAll = function (...values) { scans += 1; return query.apply(document, values); };
        window.changes = 0;
        const change = () => {
            add('Message ' + changes, 'm' + changes);
            changes += 1;
            if (changes < 10) { setTimeout(change, 0); }
        };
        change();)");
    page().waitUntil("changes === 10");
    EXPECT_EQ(valueOf("scans"), 10);
}

TEST_F(InboundCaptureScript, ObserverIsInstalledOnce) {
    showChat("Team");
    inPage(R"(
        window.observed = [];
        const observe = MutationObserver.prototype.observe;
        MutationObserver.prototype.observe = function (target, options) {
            observed.push([target.nodeName, options]);
            return observe.call(this, target, options);
        };)");
    capture("Team");
    capture("Team");
    EXPECT_EQ(valueOf("observed"),
              Json::parse(
                  R"([["BODY",{"subtree":true,"childList":true,"characterData":true,"attributes":true}]])"));
}

TEST_F(InboundCaptureScript, ObserverGoesOnWhenLaterRunsWatchAnotherChat) {
    watch("Team");
    capture("Family");
    inPage("add('For the team', 'm1');");
    page().waitUntil(state_name + ".queue.length === 1");
    EXPECT_EQ(capturedTexts("Team"), Texts{"For the team"});
}

TEST_F(InboundCaptureScript, FailedScanOfTheObserverIsSwallowed) {
    showChat("Team");
    inPage("window.errors = 0; window.onerror = () => { errors += 1; };");
    capture("Team");
    inPage(R"(
        window.attempts = 0;
        document.querySelectorAll = () => { attempts += 1; throw new Error('The page is busy'); };
        add('During the failure', 'm1');)");
    page().waitUntil("attempts === 1");
    inPage("delete document.querySelectorAll; add('After it', 'm2');");
    page().waitUntil(state_name + ".queue.length === 2");
    EXPECT_EQ(valueOf("errors"), 0);
}

TEST_F(InboundCaptureScript, ObserverWaitsForTheBody) {
    const std::string run = scriptWithWatchedTitle(page_script::inbound_capture, "Team");
    show("<header><span title=\"Team\"></span></header><div class=\"message-in\">Old</div>",
         "<script>window.hadBody = document.body !== null; window.early = [" + run + ", " + run +
             "]; window.installedEarly = " + state_name + ".observerInstalled;</script>");
    EXPECT_EQ(valueOf("hadBody"), false);
    EXPECT_EQ(valueOf("installedEarly"), false);
    EXPECT_EQ(Json::parse(valueOf("early[0]").get<std::string>()).at("state"), "no-active-chat");
    EXPECT_EQ(valueOf(state_name + ".observerInstalled"), true);
    EXPECT_EQ(valueOf(state_name + ".lastSnapshot.visibleInboundCount"), 1);
    EXPECT_EQ(valueOf(state_name + ".primedChats"), Json::parse(R"({"team":true})"));
    inPage("document.querySelector('.message-in').textContent = 'New';");
    page().waitUntil(state_name + ".queue.length === 1");
}

TEST_F(InboundCaptureScript, ObserverThatWaitedIsInstalledOnce) {
    const std::string run = scriptWithWatchedTitle(page_script::inbound_capture, "Team");
    show(
        "",
        "<script>window.observed = 0; const observe = MutationObserver.prototype.observe;"
        "MutationObserver.prototype.observe = function (...values) { observed += 1; observe.apply(this, values); };" +
            run + "; " + run + ";</script>");
    capture("Team");
    EXPECT_EQ(valueOf("observed"), 1);
}

// --- De-duplication

TEST_F(InboundCaptureScript, SameTextWithDifferentIdentifiersIsDeliveredTwice) {
    watch("Team");
    inPage("add('Yes', 'm1'); add('Yes', 'm2');");
    EXPECT_EQ(capturedTexts("Team"), (Texts{"Yes", "Yes"}));
}

TEST_F(InboundCaptureScript, SameTextWithoutIdentifierInTheSamePlaceIsDeliveredOnce) {
    watch("Team");
    inPage("add('Yes');");
    EXPECT_EQ(capturedTexts("Team"), Texts{"Yes"});
    inPage("document.getElementById('messages').textContent = ''; add('Yes');");
    EXPECT_EQ(capturedTexts("Team"), Texts{});
}

TEST_F(InboundCaptureScript, SameTextWithoutIdentifierInAnotherPlaceIsDeliveredAgain) {
    watch("Team");
    inPage("add('Yes'); add('Yes');");
    EXPECT_EQ(capturedTexts("Team"), (Texts{"Yes", "Yes"}));
}

TEST_F(InboundCaptureScript, SameMessageInAnotherChatIsAnotherMessage) {
    watch("Team");
    inPage("add('Yes', 'm1');");
    capture("Team");
    inPage("openChat('Family');");
    capture("Family");
    inPage("add('Yes', 'm1');");
    EXPECT_EQ(capturedTexts("Family"), Texts{"Yes"});
}

// --- The queue

TEST_F(InboundCaptureScript, WrongChatKeepsTheQueue) {
    watch("Team");
    inPage("add('For the team', 'm1');");
    page().waitUntil(state_name + ".queue.length === 1");
    inPage("openChat('Family');");
    const Json answer = capture("Team");
    EXPECT_EQ(answer.at("state"), "wrong-chat");
    EXPECT_EQ(answer.at("queuedCount"), 1);
    inPage("openChat('Team');");
    EXPECT_EQ(capturedTexts("Team"), Texts{"For the team"});
}

TEST_F(InboundCaptureScript, ClosedChatKeepsTheQueue) {
    watch("Team");
    inPage("add('For the team', 'm1');");
    page().waitUntil(state_name + ".queue.length === 1");
    inPage("openChat('');");
    const Json answer = capture("Team");
    EXPECT_EQ(answer.at("state"), "no-active-chat");
    EXPECT_EQ(answer.at("queuedCount"), 1);
}

TEST_F(InboundCaptureScript, DrainTakesTheMessagesOfTheWatchedChatOnly) {
    watch("Family");
    inPage("add('For the family', 'f1');");
    page().waitUntil(state_name + ".queue.length === 1");
    inPage("openChat('Team');");
    capture("Nobody");
    inPage("add('For the team', 'm1');");
    const Json answer = capture("Team");
    EXPECT_EQ(textsOf(answer.at("messages")), Texts{"For the team"});
    EXPECT_EQ(answer.at("queuedCount"), 1);
    inPage("openChat('Family');");
    EXPECT_EQ(capturedTexts("Family"), Texts{"For the family"});
}

TEST_F(InboundCaptureScript, DrainTakesMessagesOfEveryChatThatMatchesLoosely) {
    showChat("Team Alpha");
    capture("Team");
    inPage("add('First', 'a1');");
    page().waitUntil(state_name + ".queue.length === 1");
    inPage("openChat('Team Beta');");
    page().waitUntil(state_name + ".primedChats['team beta'] === true");
    inPage("add('Second', 'b1');");
    const Json answer = capture("Team");
    EXPECT_EQ(textsOf(answer.at("messages")), (Texts{"First", "Second"}));
    EXPECT_EQ(answer.at("activeChatTitle"), "Team Beta");
    EXPECT_EQ(answer.at("messages").at(0).at("activeChatTitle"), "Team Alpha");
}

TEST_F(InboundCaptureScript, CountsAreThoseOfTheLastScanAndOfTheQueueAfterTheDrain) {
    showChat("Team", "<div class=\"message-in\" data-id=\"1\">Old</div>");
    capture("Team");
    inPage("add('New', 'm2'); add('Newer', 'm3');");
    const Json answer = capture("Team");
    EXPECT_EQ(answer.at("visibleInboundCount"), 3);
    EXPECT_EQ(answer.at("queuedCount"), 0);
    EXPECT_EQ(valueOf(state_name + ".lastSnapshot.queuedCount"), 2);
}

TEST_F(InboundCaptureScript, ScanStandsInForALostSnapshot) {
    showChat("Team", "<div class=\"message-in\" data-id=\"1\">Old</div>");
    capture("Team");
    inPage("Object.defineProperty(" + state_name + ", 'lastSnapshot', { get: () => null, set() {} });");
    EXPECT_EQ(capture("Team").dumpInOrder(),
              R"({"state":"no-incoming-message","activeChatTitle":"Team","watchedTitle":"Team",)"
              R"("pageTitle":"The page","visibleInboundCount":1,"queuedCount":0,"messages":[]})");
}

TEST_F(InboundCaptureScript, TwoHundredMessagesStayQueued) {
    watch("Team");
    inPage("for (let i = 0; i < 200; ++i) { add('Message ' + i, 'm' + i); }");
    const Texts texts = capturedTexts("Team");
    ASSERT_EQ(texts.size(), 200U);
    EXPECT_EQ(texts.front(), "Message 0");
}

TEST_F(InboundCaptureScript, LongerQueueShrinksToItsNewestHundred) {
    watch("Team");
    inPage("for (let i = 0; i < 201; ++i) { add('Message ' + i, 'm' + i); }");
    const Texts texts = capturedTexts("Team");
    ASSERT_EQ(texts.size(), 100U);
    EXPECT_EQ(texts.front(), "Message 101");
    EXPECT_EQ(texts.back(), "Message 200");
    EXPECT_EQ(capturedTexts("Team"), Texts{});
}

// --- The bound on fingerprints

TEST_F(InboundCaptureScript, TwoThousandFingerprintsAreKept) {
    watch("Team");
    inPage("for (let i = 0; i < 1999; ++i) { " + state_name +
           ".seenFingerprints['known ' + i] = i; } add('New', 'm1');");
    EXPECT_EQ(capturedTexts("Team"), Texts{"New"});
    EXPECT_EQ(valueOf("Object.keys(" + state_name + ".seenFingerprints).length"), 2000);
}

TEST_F(InboundCaptureScript, MoreFingerprintsAreTrimmedToTheLatest) {
    watch("Team");
    // The later a fingerprint was added here, the older it is.
    inPage("for (let i = 0; i < 2000; ++i) { " + state_name +
           ".seenFingerprints['known ' + i] = 2000 - i; } add('New', 'm1');");
    EXPECT_EQ(capturedTexts("Team"), Texts{"New"});
    EXPECT_EQ(valueOf("Object.keys(" + state_name + ".seenFingerprints).length"), 1500);
    EXPECT_EQ(
        valueOf(
            "['known 0', 'known 1498', 'known 1499', 'known 1999', 'Team::m1::::New'].map((key) => key in " +
            state_name + ".seenFingerprints)"),
        Json::parse("[true, true, false, false, true]"));
}

TEST_F(InboundCaptureScript, PrimingDoesNotTrim) {
    showChat("Team");
    inPage("for (let i = 0; i < 2100; ++i) { add('Message ' + i, 'm' + i); }");
    capture("Team");
    EXPECT_EQ(valueOf("Object.keys(" + state_name + ".seenFingerprints).length"), 2100);
}

// --- Work per run

TEST_F(InboundCaptureScript, QueriesOfTheDocumentDoNotDependOnTheNumberOfNodes) {
    const auto queriesWith = [](int nodes) {
        showChat("Team");
        inPage("for (let i = 0; i < " + std::to_string(nodes) + "; ++i) { add('Message ' + i, 'm' + i); }");
        capture("Team");
        inPage(R"(
            window.queries = 0;
            const names = ['querySelector', 'querySelectorAll', 'getElementById', 'getElementsByTagName',
                'getElementsByClassName', 'evaluate', 'createTreeWalker', 'createNodeIterator'];
            for (const name of names) {
                const original = Document.prototype[name];
                Document.prototype[name] = function (...values) {
                    queries += 1;
                    return original.apply(this, values);
                };
            })");
        EXPECT_EQ(capture("Team").at("visibleInboundCount"), nodes);
        return valueOf("queries").get<int>();
    };
    const int few = queriesWith(10);
    EXPECT_EQ(queriesWith(1000), few);
    // The open chat's title, found at once here, and the candidates.
    EXPECT_EQ(few, 2);
}

TEST_F(InboundCaptureScript, ScanChangesNothingInThePage) {
    showChat("Team", "<div class=\"message-in\" data-id=\"1\">Old</div>");
    capture("Team");
    inPage(R"(
        window.changes = 0;
        new MutationObserver((records) => { changes += records.length; }).observe(document,
            { subtree: true, childList: true, characterData: true, attributes: true });)");
    capture("Team");
    capture("Family");
    EXPECT_EQ(valueOf("changes"), 0);
}

}  // namespace
}  // namespace brindle::test

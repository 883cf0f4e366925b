#include "scripts/PageScriptTest.h"
#include "support/Json.h"
#include "text/Text.h"

namespace brindle::test {
namespace {

using testing::SizeIs;

/// Pages that are broken, wicked or just very large. A script may fail on them, or answer nonsense that the
/// worker rejects; the page must live on, and no text of the page may run.
class HostilePage : public PageScriptTest {
  protected:
    /// Everything that any script looks for, with texts that try to run.
    static void showEverything() {
        show(R"(<canvas></canvas><div id="side"><div contenteditable="true" role="textbox"></div>
                <section id="pane-side"><div title="Family">Family</div></section></div>
            <div id="main"><header><span title="Team"></span></header><section id="messages">
                <div class="message-in" data-id="m1"><span class="selectable-text">Hello</span></div>
                <div class="message-in" data-id="m2"></div></section></div>)");
        inPage(R"(
            const text = '<img src=x onerror="window.injected=1">";window.injected=1;\u2028${window.injected=1}';
            const node = document.querySelector('[data-id=m2]');
            node.textContent = text;
            node.title = text;)");
    }

    /// Runs all scripts, whatever comes of it; what they answered.
    static std::vector<std::string> runEverything() {
        std::vector<std::string> answers;
        for (const std::string& script :
             {std::string(page_script::link_state), std::string(page_script::qr_code),
              scriptWithWatchedTitle(page_script::chat_activation, "Family"),
              scriptWithWatchedTitle(page_script::chat_activation, "Nobody"),
              scriptWithWatchedTitle(page_script::inbound_capture, "Team"),
              scriptWithWatchedTitle(page_script::inbound_capture, "Team"),
              scriptWithWatchedTitle(page_script::inbound_capture, "Family")}) {
            try {
                if (const std::optional<std::string> answer = page().evaluate(script))
                    answers.push_back(*answer);
            } catch (const std::runtime_error&) {
                // A failed evaluation is one of the outcomes that the worker knows how to report.
            }
        }
        return answers;
    }

    static void expectUnharmed(const std::string& what) {
        EXPECT_EQ(page().evaluate("typeof window.injected"), "undefined") << what;
        EXPECT_THAT(page().events().processEnds, SizeIs(0)) << what;
    }

    static void expectToSurvive(const std::vector<std::string>& tamperings) {
        for (const std::string& tampering : tamperings) {
            showEverything();
            inPage(tampering);
            for (const std::string& answer : runEverything()) EXPECT_TRUE(isValidUtf8(answer)) << tampering;
            page().evaluate("try { document.body.append('A change for the observer'); } catch {}");
            runEverything();
            expectUnharmed(tampering);
        }
    }
};

TEST_F(HostilePage, TamperedJson) {
    expectToSurvive({
        "JSON = undefined",
        "JSON.stringify = undefined",
        "JSON.stringify = () => 42",
        "JSON.stringify = () => '}{'",
        "JSON.stringify = () => { throw new Error('No') }",
        "JSON.stringify = () => '\\ud800'",
        "Object.prototype.toJSON = () => 'x'",
        "Object.prototype.toJSON = function () { throw this }",
        "Array.prototype.toJSON = () => ({ length: -1 })",
        "String.prototype.toJSON = () => '\\\"; window.injected = 1; \\\"'",
    });
}

TEST_F(HostilePage, TamperedArrays) {
    expectToSurvive({
        "for (const name of Object.getOwnPropertyNames(Array.prototype)) { if (name !== 'length') { Array.prototype[name] = () => { throw new Error('No') } } }",
        "Array.prototype.filter = () => 'x'",
        "Array.prototype.forEach = undefined",
        "Array.prototype.push = function () { return this.length }",
        "Array.prototype.slice = () => ({ length: 1e9 })",
        "Array.prototype.sort = () => null",
        "Array.prototype.includes = () => true",
        "delete Array.prototype[Symbol.iterator]",
        "Array.prototype[Symbol.iterator] = function* () { yield null; yield 1; yield document; }",
        "NodeList.prototype[Symbol.iterator] = function* () { yield null; yield 1; yield document; }",
        "Object.defineProperty(Array.prototype, '0', { set() { throw new Error('No') }, get: () => 'x' })",
    });
}

TEST_F(HostilePage, TamperedObjects) {
    expectToSurvive({
        "Object.create = () => ({})",
        "Object.create = () => null",
        "Object.keys = () => null",
        "Object.keys = () => ({ length: 1e6, slice: () => [1, 2, 3], sort() {} })",
        "Object.prototype.get = 1",
        "Object.prototype.once = true; Object.prototype.view = 'x'; Object.prototype.attributeFilter = 'x'",
        "Object.defineProperty(Object.prototype, 'fingerprint', { get: () => '', set() {} })",
        "Object.defineProperty(Object.prototype, 'queue', { get: () => 7, set() {} })",
        "Object.prototype.valueOf = Object.prototype.toString = () => { throw new Error('No') }",
    });
}

TEST_F(HostilePage, TamperedTextsSetsAndDates) {
    expectToSurvive({
        "String = () => ({})",
        "String = undefined",
        "String.prototype.replace = () => ({})",
        "String.prototype.trim = () => 5",
        "String.prototype.toLowerCase = () => null",
        "String.prototype.includes = () => { throw new Error('No') }",
        "RegExp.prototype[Symbol.replace] = () => '__WATCHED_TITLE__'",
        "RegExp.prototype.exec = () => { throw new Error('No') }",
        "Set = undefined",
        "Set.prototype.has = () => true",
        "Date.now = () => ({})",
        "Date = undefined",
        "Boolean = undefined",
    });
}

TEST_F(HostilePage, TamperedMutationObserver) {
    expectToSurvive({
        "MutationObserver = undefined",
        "MutationObserver = () => {}",
        "MutationObserver = class { constructor() { throw new Error('No') } }",
        "MutationObserver = class { constructor(scan) { this.scan = scan } observe() { this.scan([]) } }",
        "MutationObserver = class { constructor(scan) { setInterval(scan, 0) } observe() {} }",
        "MutationObserver.prototype.observe = () => { throw new Error('No') }",
    });
}

TEST_F(HostilePage, TamperedDocument) {
    expectToSurvive({
        "document.querySelector = null",
        "document.querySelector = () => 5",
        "document.querySelector = () => ({})",
        "document.querySelector = () => { throw new Error('No') }",
        "document.querySelectorAll = () => null",
        "document.querySelectorAll = () => [null, undefined, 1, 'x', document, document.createTextNode('x'), {}]",
        "document.querySelectorAll = () => ({ length: 1e9 })",
        "Object.defineProperty(document, 'body', { value: 5 })",
        "Object.defineProperty(document, 'body', { get() { throw new Error('No') } })",
        "Object.defineProperty(document, 'title', { value: { toJSON: () => 'x' } })",
        "document.execCommand = () => { throw new Error('No') }",
        "document.createRange = () => null",
        "document.addEventListener = null",
        "document.body.remove()",
        "document.documentElement.remove()",
        "document.body = document.createElement('frameset')",
    });
}

TEST_F(HostilePage, TamperedElements) {
    expectToSurvive({
        "Element.prototype.getAttribute = () => ({ toLowerCase: () => null })",
        "Element.prototype.getAttribute = () => { throw new Error('No') }",
        "Element.prototype.matches = () => 1",
        "Element.prototype.closest = () => ({})",
        "Element.prototype.querySelector = () => document",
        "Element.prototype.querySelectorAll = () => [1, null]",
        "Element.prototype.scrollIntoView = () => { throw new Error('No') }",
        "Object.defineProperty(HTMLElement.prototype, 'innerText', { get() { throw new Error('No') } })",
        "Object.defineProperty(HTMLElement.prototype, 'innerText', { get: () => Symbol('x') })",
        "Object.defineProperty(HTMLElement.prototype, 'offsetParent', { get: () => undefined })",
        "HTMLCanvasElement.prototype.toDataURL = () => Symbol('x')",
        "HTMLElement.prototype.click = () => { document.open(); document.write('gone'); document.close(); }",
        "Node = undefined",
        "Event = MouseEvent = InputEvent = undefined",
        "window.getSelection = () => null",
    });
}

TEST_F(HostilePage, TamperedCaptureState) {
    expectToSurvive({
        state_name + " = 5",
        state_name + " = 'x'",
        state_name + " = Object.freeze({ queue: Object.freeze([]), seenFingerprints: {}, primedChats: {} })",
        state_name + " = { queue: 'x', seenFingerprints: null, primedChats: null }",
        state_name + " = new Proxy({}, { get() { throw new Error('No') } })",
        "Object.defineProperty(window, '__brindleWhatsAppWorkerCaptureState', { get() { throw new Error('No') } })",
        "Object.defineProperty(window, '__brindleWhatsAppWorkerCaptureState', { get: () => null, set() {} })",
        state_name +
            " = { queue: [null, 1, {}, { activeChatTitle: {} }, { activeChatTitle: 'Team', text: 7 }],"
            " seenFingerprints: {}, primedChats: { team: true }, observerInstalled: true }",
        state_name +
            " = { queue: new Array(1e6).fill({ activeChatTitle: 'Team', text: 'x', fingerprint: 'x' }),"
            " seenFingerprints: {}, primedChats: { team: true }, observerInstalled: true }",
        "const loop = { activeChatTitle: 'Team' }; loop.self = loop;" + state_name +
            " = { queue: [loop], seenFingerprints: {}, primedChats: { team: true }, observerInstalled: true }",
    });
}

TEST_F(HostilePage, ElementsNamedLikeMembersOfTheDocument) {
    for (const char* name : {"body", "title", "querySelector", "querySelectorAll", "execCommand",
                             "addEventListener", "createRange"}) {
        showEverything();
        inPage("document.documentElement.insertAdjacentHTML('beforeend', '<img name=" + std::string(name) +
               "><form name=" + name + "></form>');");
        runEverything();
        expectUnharmed(name);
    }
}

TEST_F(HostilePage, ElementsNamedLikeMembersOfTheMessage) {
    for (const char* name : {"getAttribute", "matches", "querySelector", "querySelectorAll", "innerText",
                             "textContent", "dataset", "nodeType", "hasAttribute"}) {
        showEverything();
        inPage(
            "document.getElementById('messages').insertAdjacentHTML('beforeend', '<form class=message-in data-id=m3>Hello<input name=" +
            std::string(name) + "></form>');");
        runEverything();
        expectUnharmed(name);
    }
}

TEST_F(HostilePage, MessageOfFiveMegabytesArrivesWhole) {
    constexpr std::size_t length = 5'000'000;
    showEverything();
    capture("Team");
    inPage("document.querySelector('[data-id=m1] span').textContent = 'x'.repeat(" + std::to_string(length) +
           ");");
    const Json messages = capture("Team").at("messages");
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages.at(0).at("text"), std::string(length, 'x'));
}

TEST_F(HostilePage, TenThousandPartsOfOneMessageArriveInOrderAndEachOnce) {
    showEverything();
    capture("Team");
    inPage(R"(
        const parts = Array.from({ length: 10000 }, (_, i) => '<span>Part ' + i % 5000 + '</span> ').join('');
        document.querySelector('[data-id=m1]').innerHTML = '<div class="selectable-text">' + parts + '</div>';)");
    std::string expected = "Part 0";
    for (int i = 1; i < 5000; ++i) expected += " Part " + std::to_string(i);
    const Json messages = capture("Team").at("messages");
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages.at(0).at("text"), expected);
}

/// What a page throws becomes the sentence of a failure, whatever it is.
TEST_F(HostilePage, WhateverThePageThrowsIsAFailureInText) {
    for (const char* thrown :
         {"null", "undefined", "5", "''", "Symbol('x')", "{ toString() { throw 1 } }", "Object.create(null)",
          "new Proxy({}, { get() { throw 2 } })", "new Error('half a pair: \\ud800')",
          "new Error('line\\nbreak\\0and more')", "document", "new Error('x'.repeat(1000000))"}) {
        showEverything();
        inPage("document.querySelector = () => { throw " + std::string(thrown) + "; };");
        try {
            page().evaluate(std::string(page_script::qr_code));
            FAIL() << thrown;
        } catch (const std::runtime_error& error) {
            EXPECT_TRUE(isValidUtf8(error.what())) << thrown;
            EXPECT_STRNE(error.what(), "") << thrown;
        }
        expectUnharmed(thrown);
    }
}

TEST_F(HostilePage, HalvesOfSurrogatePairsDoNotSpoilTheAnswer) {
    showEverything();
    capture("Team");
    inPage(R"(document.querySelector('[data-id=m1] span').textContent = 'cut \ud83c';)");
    const std::string answer =
        page().evaluate(scriptWithWatchedTitle(page_script::inbound_capture, "Team")).value();
    JsonParser parser;
    std::vector<std::string> texts;
    parser.parse(withoutLoneSurrogates(answer))
        .member("messages")
        .value()
        .forEachElement(
            [&](const JsonValue& message) { texts.emplace_back(message.member("text").value().string()); });
    EXPECT_THAT(texts, testing::ElementsAre("cut \xEF\xBF\xBD"));
}

TEST_F(HostilePage, TenThousandMessagesOfHistoryAreNotDelivered) {
    showEverything();
    inPage(R"(
        const list = document.getElementById('messages');
        for (let i = 0; i < 10000; ++i) {
            list.insertAdjacentHTML('beforeend', '<div class="message-in" data-id="n' + i + '">Hello ' + i + '</div>');
        })");
    const Json answer = capture("Team");
    EXPECT_EQ(answer.at("visibleInboundCount"), 10'002);
    EXPECT_EQ(answer.at("state"), "no-incoming-message");
    EXPECT_EQ(capture("Team").at("queuedCount"), 0);
}

TEST_F(HostilePage, TenThousandNewMessagesKeepTheStateWithinItsBounds) {
    showEverything();
    capture("Team");
    inPage(R"(
        const list = document.getElementById('messages');
        for (let i = 0; i < 10000; ++i) {
            list.insertAdjacentHTML('beforeend', '<div class="message-in" data-id="n' + i + '">Hello ' + i + '</div>');
        })");
    page().waitUntil(state_name + ".lastSnapshot.visibleInboundCount === 10002");
    EXPECT_LE(valueOf(state_name + ".queue.length"), 200);
    EXPECT_LE(valueOf("Object.keys(" + state_name + ".seenFingerprints).length"), 2000);
    EXPECT_EQ(capture("Team").at("state"), "ok");
}

TEST_F(HostilePage, BusyPageOfAThousandMessagesGoesOnAndIsCapturedWhole) {
    showEverything();
    inPage(R"(
        const list = document.getElementById('messages');
        const add = (name) => list.insertAdjacentHTML('beforeend', '<div class="message-in" data-id="' + name +
            '"><span dir="auto">Ann</span><span class="selectable-text">Hello ' + name + '</span></div>');
        for (let i = 0; i < 1000; ++i) { add('old' + i); }
        window.added = 0;
        window.begin = () => {
            add('new' + added);
            added += 1;
            if (added < 100) { setTimeout(begin, 20); }
        };)");
    capture("Team");
    inPage("begin();");
    std::vector<std::string> captured;
    bool isOver = false;
    while (!isOver) {
        isOver = valueOf("added === 100").get<bool>();
        const Json messages = capture("Team").at("messages");
        for (const Json& message : messages) captured.push_back(message.at("rawReference"));
    }
    std::vector<std::string> expected;
    for (int i = 0; i < 100; ++i) expected.push_back("new" + std::to_string(i));
    EXPECT_EQ(captured, expected);
}

TEST_F(HostilePage, TenThousandRowsAreSearched) {
    showEverything();
    inPage(R"(
        const list = document.getElementById('pane-side');
        for (let i = 0; i < 10000; ++i) {
            list.insertAdjacentHTML('beforeend', '<div title="Row ' + i + '."><b>Text</b></div>');
        })");
    EXPECT_EQ(activate("Row 9999.").at("matchedTitle"), "Row 9999.");
}

TEST_F(HostilePage, DeeplyNestedRowsAreSearched) {
    showEverything();
    inPage(R"(
        let inner = document.getElementById('pane-side');
        for (let i = 0; i < 400; ++i) { inner = inner.appendChild(document.createElement('div')); }
        inner.textContent = 'Deep down';
        document.querySelector('#pane-side [title]').remove();)");
    EXPECT_EQ(activate("Deep down").at("state"), "activating");
}

}  // namespace
}  // namespace brindle::test

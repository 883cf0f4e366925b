#include <string>

#include "scripts/PageScriptTest.h"
#include "support/Json.h"

namespace brindle::test {
namespace {

/// Scans after a change read only what may read differently since. Rendering a message's text is what costs,
/// so reading it is what counts here.
class RememberingScan : public PageScriptTest {
  protected:
    /// An open chat with three messages, all read once, and a list of what is read from now on: the
    /// identifiers of the messages.
    static void watchThreeMessages() {
        std::string messages;
        for (const char* id : {"m1", "m2", "m3"}) {
            messages += "<div class=\"message-in\" data-id=\"" + std::string(id) +
                        "\"><span class=\"selectable-text\">Hello</span><i>10:00</i></div>";
        }
        show(
            "<aside><p>Typing</p></aside><input><main><header><span title=\"Team\"></span></header>"
            "<section id=\"messages\">" +
                messages + "</section></main>",
            "<style>.upper { text-transform: uppercase }</style>");
        capture("Team");
        inPage(R"(
            window.readings = [];
            const { get } = Object.getOwnPropertyDescriptor(HTMLElement.prototype, 'innerText');
            Object.defineProperty(HTMLElement.prototype, 'innerText', { configurable: true, get() {
                readings.push(this.closest('.message-in').dataset.id);
                return get.call(this);
            } });)");
    }
    /// The messages that the scan after this change reads.
    static Json readAfter(const std::string& change) {
        watchThreeMessages();
        inPage(change);
        // The observers of a change run before what comes next.
        return valueOf("readings");
    }

    inline static const Json none = Json::array();
    inline static const Json all = Json::parse(R"(["m1", "m2", "m3"])");
    /// What no record of a change in the body tells of is noticed with the next one.
    inline static const std::string small_change = "document.querySelector('p').firstChild.data = 'Still';";
};

TEST_F(RememberingScan, ChangeInAMessageReadsThatMessage) {
    for (const char* change : {
             "document.querySelector('[data-id=m2] span').firstChild.data = 'Hello!';",
             "document.querySelector('[data-id=m2] i').firstChild.data = '';",
             "document.querySelector('[data-id=m2] i').className = 'seen';",
             "document.querySelector('[data-id=m2] span').append(' there');",
             "document.querySelector('[data-id=m2] i').remove();",
         }) {
        EXPECT_EQ(readAfter(change), Json::parse(R"(["m2"])")) << change;
    }
}

TEST_F(RememberingScan, ChangeBesideTheMessagesReadsNone) {
    for (const char* change : {
             "document.querySelector('p').firstChild.data = 'Still typing';",
             "document.querySelector('p').textContent = 'Still typing';",
             "document.querySelector('p').append(document.createElement('b'));",
         }) {
        EXPECT_EQ(readAfter(change), none) << change;
    }
}

TEST_F(RememberingScan, ChangesBesideTheTextOfAMessageReadItOnce) {
    watchThreeMessages();
    const std::string change = "document.querySelector('[data-id=m2] i').firstChild.data += '!';";
    inPage(change);
    EXPECT_EQ(valueOf("readings"), Json::parse(R"(["m2"])"));
    inPage(change);
    capture("Team");
    inPage("readings.length = 0;" + change);
    EXPECT_EQ(valueOf("readings"), none);
}

TEST_F(RememberingScan, TextThatBeginsOrCeasesToBeEmptyReadsItsMessage) {
    watchThreeMessages();
    for (const char* text : {"'10:01'", "''", "'10:02'"}) {
        inPage("readings.length = 0; document.querySelector('[data-id=m2] i').firstChild.data = " +
               std::string(text) + ";");
        EXPECT_EQ(valueOf("readings"), Json::parse(R"(["m2"])")) << text;
    }
}

TEST_F(RememberingScan, ChangeThatMayTellOnAllMessagesReadsAll) {
    for (const std::string& change : {
             std::string("document.body.className = 'upper';"),
             std::string("document.querySelector('main').className = 'upper';"),
             std::string("document.querySelector('p').setAttribute('aria-busy', 'true');"),
             std::string("document.querySelector('[data-id=m1]').classList.add('upper');"),
             std::string("document.querySelector('section').prepend('Today');"),
             std::string("document.querySelector('header span').title = 'Family';"),
             std::string("document.body.append(document.createElement('style'));"),
             "document.head.append(document.createElement('style'));" + small_change,
             "document.querySelector('style').textContent += 'i { display: none }';" + small_change,
             "document.styleSheets[0].insertRule('i { display: none }');" + small_change,
             "document.styleSheets[0].disabled = true;" + small_change,
             "document.adoptedStyleSheets = [new CSSStyleSheet()];" + small_change,
             "document.documentElement.className = 'upper';" + small_change,
             "document.querySelector('input').focus();" + small_change,
         }) {
        EXPECT_EQ(readAfter(change), all) << change;
    }
}

TEST_F(RememberingScan, ManyChangesAtOnceReadAll) {
    EXPECT_EQ(readAfter(R"(
                  for (let i = 0; i < 20; ++i) {
                      const inner = document.createElement('i');
                      const outer = document.createElement('b');
                      outer.append(inner);
                      document.querySelector('p').append(outer);
                      inner.append('x');
                  })"),
              all);
}

TEST_F(RememberingScan, EveryRunReadsAll) {
    watchThreeMessages();
    capture("Team");
    EXPECT_EQ(valueOf("readings"), all);
}

TEST_F(RememberingScan, ChangesAfterARunReadWhatTheyTouched) {
    watchThreeMessages();
    capture("Team");
    inPage("readings.length = 0;" + small_change);
    EXPECT_EQ(valueOf("readings"), none);
}

TEST_F(RememberingScan, RunNoticesWhatNothingToldOf) {
    watchThreeMessages();
    inPage("document.styleSheets[0].cssRules[0].selectorText = 'span';" + small_change);
    EXPECT_EQ(valueOf("readings"), none);
    EXPECT_EQ(capture("Team").at("messages").size(), 3U);
}

TEST_F(RememberingScan, WhatChangedOutsideTheBodyIsReadAgain) {
    // The last one keeps its place among the messages, so that only its leaving tells.
    for (const char* id : {"m2", "m3"}) {
        watchThreeMessages();
        inPage("window.message = document.querySelector('[data-id=" + std::string(id) +
               "]'); document.documentElement.append(message);");
        inPage("message.querySelector('span').firstChild.data = 'Changed';");
        EXPECT_EQ(valueOf(state_name + ".queue"), none);
        inPage(small_change);
        EXPECT_EQ(valueOf(state_name + ".queue.map((message) => message.text)"),
                  Json::parse(R"(["Changed"])"))
            << id;
    }
}

/// A list shows again what has scrolled out of sight, and nobody told of what happened to it meanwhile.
TEST_F(RememberingScan, MessageThatChangedWhileItWasAwayIsReadAgainWhenItIsBack) {
    watchThreeMessages();
    inPage("window.message = document.querySelector('[data-id=m2]'); message.remove();");
    inPage("message.querySelector('span').firstChild.data = 'Changed';");
    inPage("document.querySelector('[data-id=m1]').after(message);");
    EXPECT_EQ(valueOf(state_name + ".queue.map((message) => message.text)"), Json::parse(R"(["Changed"])"));
}

TEST_F(RememberingScan, TimeThatWasEmptiedWhileItWasAwayReadsItsMessageWhenItIsFilledAgain) {
    watchThreeMessages();
    inPage("window.time = document.querySelector('[data-id=m2] i'); time.firstChild.data = '10:01';");
    inPage("window.holder = time.parentNode; time.remove();");
    inPage("time.firstChild.data = '';");
    inPage("holder.append(time);");
    inPage("readings.length = 0; time.firstChild.data = '10:02';");
    EXPECT_EQ(valueOf("readings"), Json::parse(R"(["m2"])"));
}

TEST_F(RememberingScan, MessageWhoseTextIsFilledInBitByBitIsCapturedEachTime) {
    watchThreeMessages();
    inPage(R"(document.querySelector('section').insertAdjacentHTML('beforeend',
        '<div class="message-in" data-id="m4"><span class="selectable-text"></span></div>');
        document.querySelector('[data-id=m4] span').append(document.createTextNode(''));)");
    EXPECT_EQ(valueOf(state_name + ".queue"), none);
    for (const char* text : {"So", "So it", "So it goes"}) {
        inPage("document.querySelector('[data-id=m4] span').firstChild.data = '" + std::string(text) + "';");
    }
    EXPECT_EQ(valueOf(state_name + ".queue.map((message) => message.text)"),
              Json::parse(R"(["So", "So it", "So it goes"])"));
}

TEST_F(RememberingScan, SheetFromAnotherSiteHoldsNothingUp) {
    watchThreeMessages();
    inPage(
        "Object.defineProperty(document.styleSheets[0], 'cssRules', { get() { throw new Error('No'); } });" +
        small_change);
    inPage("readings.length = 0;" + small_change);
    EXPECT_EQ(valueOf("readings"), none);
}

TEST_F(RememberingScan, ElementsNamedLikeMembersOfTheDocumentHoldNothingUp) {
    watchThreeMessages();
    inPage(
        "document.body.insertAdjacentHTML('beforeend', '<img name=styleSheets><form><input name=parentNode></form>');"
        "document.querySelector('form').append('x');"
        "document.querySelector('[data-id=m2] span').firstChild.data = 'Changed';");
    EXPECT_EQ(valueOf(state_name + ".queue.map((message) => message.text)"), Json::parse(R"(["Changed"])"));
}

/// What the engine has translated is not translated again.
TEST_F(RememberingScan, LaterRunsUseTheFunctionsOfTheFirstWithTheirOwnTitle) {
    watchThreeMessages();
    const std::string first = state_name + std::string(".memory.capture");
    inPage("window.first = " + first + "; window.titles = []; " + first +
           " = (title) => { titles.push(title); return first(title); };");
    EXPECT_EQ(capture("Team")["watchedTitle"], "Team");
    EXPECT_EQ(capture("Others")["watchedTitle"], "Others");
    EXPECT_EQ(valueOf("titles"), Json::parse(R"(["Team", "Others"])"));
}

TEST_F(RememberingScan, StateShowsNothingOfTheMemory) {
    watchThreeMessages();
    EXPECT_EQ(
        valueOf("Object.keys(" + state_name + ")"),
        Json::parse(R"(["queue", "seenFingerprints", "primedChats", "observerInstalled", "lastSnapshot"])"));
}

}  // namespace
}  // namespace brindle::test

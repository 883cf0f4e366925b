#include "scripts/PageScriptTest.h"

#include "support/Json.h"

namespace brindle::test {
namespace {

/// A chat list without a search box.
std::string chatList(const std::string& rows) {
    return "<div id=\"side\"><section id=\"pane-side\">" + rows + "</section></div>";
}

class ChatActivationScript : public PageScriptTest {
  protected:
    /// Keeps every event of these types that reaches the document, as objects in `window.events`.
    static void recordEvents() {
        inPage(R"(
            window.events = [];
            for (const type of ['mouseover', 'mousedown', 'mouseup', 'click', 'focusin', 'input', 'change']) {
                document.addEventListener(type, (event) => events.push({
                    type, target: event.target.id, kind: event.constructor.name, bubbles: event.bubbles,
                    cancelable: event.cancelable, view: event.view === window, trusted: event.isTrusted,
                    data: event.data, inputType: event.inputType }));
            })");
    }
    /// The types and targets of the recorded events.
    static Json recorded() { return valueOf("events.map((event) => event.type + ' ' + event.target)"); }
    static std::string clickTarget() {
        const Json clicks =
            valueOf("events.filter((event) => event.type === 'click').map((event) => event.target)");
        return clicks.empty() ? "" : clicks.at(0).get<std::string>();
    }
};

// --- The open chat

TEST_F(ChatActivationScript, OpenChatIsNamedBySpanTitleInHeaderFirst) {
    show(
        "<header><div dir=\"auto\" title=\"Second\"></div><span title=\"First\">Shown</span></header>"
        "<div id=\"main\"><header><b dir=\"auto\">Third</b> and more</header></div>");
    EXPECT_EQ(activate("First").at("activeChatTitle"), "First");
}

TEST_F(ChatActivationScript, OpenChatIsNamedByTitleOfTextOfEitherDirectionNext) {
    show(
        "<header><div dir=\"auto\" title=\"Second\"></div><span title=\"\">Shown</span></header>"
        "<div id=\"main\"><header><b dir=\"auto\">Third</b> and more</header></div>");
    EXPECT_EQ(activate("First").at("activeChatTitle"), "Second");
}

TEST_F(ChatActivationScript, OpenChatIsNamedByTextInMainHeaderNext) {
    show(
        "<header>Elsewhere</header><div id=\"main\"><header>Before <b dir=\"auto\">Third</b></header></div>");
    EXPECT_EQ(activate("First").at("activeChatTitle"), "Third");
}

TEST_F(ChatActivationScript, OpenChatIsNamedByMainHeaderLast) {
    show("<header>Elsewhere</header><div id=\"main\"><header>Fourth <b dir=\"auto\"></b></header></div>");
    EXPECT_EQ(activate("First").at("activeChatTitle"), "Fourth");
}

TEST_F(ChatActivationScript, WithoutAnyOfThemNoChatIsOpen) {
    show(
        "<header>Elsewhere</header><div id=\"main\"><p dir=\"auto\" title=\"Not in a header\">Text</p></div>");
    EXPECT_EQ(activate("First").at("activeChatTitle"), "");
}

TEST_F(ChatActivationScript, OpenChatTitleIsNormalized) {
    show("<header><span title=\"&#10;  Team\t&nbsp; Alpha \"></span></header>");
    EXPECT_EQ(activate("Other").at("activeChatTitle"), "Team Alpha");
}

TEST_F(ChatActivationScript, TitleOfSpacesIsTakenAndMeansNoOpenChat) {
    show("<header><span title=\"  \"></span></header><div id=\"main\"><header>Team</header></div>");
    EXPECT_EQ(activate("Team").at("activeChatTitle"), "");
}

TEST_F(ChatActivationScript, OpenWatchedChatIsActiveAndThePageIsLeftAlone) {
    show(chatList("<div id=\"row\" title=\"Team\">Team</div>") +
         "<div id=\"main\"><header><span title=\" Team  Alpha \"></span></header></div>");
    recordEvents();
    EXPECT_EQ(activate("Team").dumpInOrder(), R"({"state":"active","activeChatTitle":"Team Alpha",)"
                                              R"("matchedTitle":"Team Alpha","pageTitle":"The page"})");
    EXPECT_EQ(recorded(), Json::array());
}

struct TitlePair {
    const char* open;
    const char* watched;
    bool matches;
};

TEST_F(ChatActivationScript, TitlesMatchLooselyInBothDirections) {
    const std::vector<TitlePair> pairs = {
        {"Team", "Team", true},
        {"team", "TEAM", true},
        {"Team Alpha", "Team", true},
        {"Team", "Team Alpha", true},
        {"Alpha", "Team Alpha", true},
        {"A team here", "TEAM", true},
        {"Team", "Other", false},
        {"Team", " \t Team\n ", true},
        {"Team Alpha", "Team  Alpha", true},
        {"Team", " ", false},
        {"Teamalpha", "Team Alpha", false},
        {"ÄRZTE", "ärzte", true},
        {"T.am", "Team", false},
    };
    for (const TitlePair& pair : pairs) {
        show("<header><span></span></header>");
        inPage("document.querySelector('span').title = " + literal(pair.open) + ";");
        const bool isActive = activate(pair.watched).at("state") == "active";
        EXPECT_EQ(isActive, pair.matches) << pair.open << " / " << pair.watched;
    }
}

TEST_F(ChatActivationScript, WithoutOpenChatNoWatchedTitleMatches) {
    show("");
    EXPECT_EQ(activate("Team").at("state"), "no-active-chat");
}

// --- The row of the watched chat

TEST_F(ChatActivationScript, RowsOfEveryKindAreFound) {
    const std::vector<std::string> rows = {
        "<ul><li id=\"row\" role=\"listitem\" title=\"Team\"></li></ul>",
        "<p id=\"row\" data-testid=\"cell-frame-container\" title=\"Team\"></p>",
        "<p id=\"row\" tabindex=\"-1\" title=\"Team\"></p>",
        "<div id=\"row\" title=\"Team\"></div>",
    };
    for (const std::string& row : rows) {
        show(chatList(row));
        recordEvents();
        EXPECT_EQ(activate("Team").at("state"), "activating") << row;
        EXPECT_EQ(clickTarget(), "row") << row;
    }
}

TEST_F(ChatActivationScript, OtherElementsAndOtherPlacesHoldNoRows) {
    show(chatList("<p title=\"Team\">Team</p>") + "<div title=\"Team\" role=\"listitem\">Team</div>");
    recordEvents();
    EXPECT_EQ(activate("Team").at("state"), "no-active-chat");
    EXPECT_EQ(recorded(), Json::array());
}

TEST_F(ChatActivationScript, FirstMatchingRowInDocumentOrderIsTaken) {
    show(
        chatList("<div id=\"one\" title=\"Other\"></div><p id=\"two\" tabindex=\"0\" title=\"Team Beta\"></p>"
                 "<ul><li id=\"three\" role=\"listitem\" title=\"Team\"></li></ul>"));
    recordEvents();
    EXPECT_EQ(activate("Team").at("matchedTitle"), "Team Beta");
    EXPECT_EQ(clickTarget(), "two");
}

struct TitledRow {
    const char* row;
    const char* title;
};

TEST_F(ChatActivationScript, RowIsNamedByItsFirstTitledDescendantThenLabelThenItself) {
    const std::vector<TitledRow> rows = {
        {R"(<div title="x" aria-label="x"><p aria-label="x"></p><p title=" Team  A "></p><p title="x"></p></div>)",
         "Team A"},
        {R"(<div title="x"><p aria-label="Team B"></p><p aria-label="x"></p></div>)", "Team B"},
        {R"(<div title="Team C" aria-label="x">x</div>)", "Team C"},
        {R"(<div title="" aria-label="Team D">x</div>)", "Team D"},
        {R"(<div><p title="" aria-label="Team E"></p><p aria-label="x"></p></div>)", "Team E"},
        {R"(<div>Team <p title="">F</p><script type="x">G</script></div>)", "Team FG"},
        {R"(<div> Team <b>H</b> </div>)", "Team H"},
    };
    for (const TitledRow& row : rows) {
        show(chatList(row.row));
        const Json answer = activate("Team");
        EXPECT_EQ(answer.at("state"), "activating") << row.row;
        EXPECT_EQ(answer.at("matchedTitle"), row.title) << row.row;
    }
}

TEST_F(ChatActivationScript, RowWithoutTitleMatchesNothing) {
    show(chatList("<div></div><div title=\" \">Team</div>"));
    EXPECT_EQ(activate("Team").at("state"), "no-active-chat");
}

TEST_F(ChatActivationScript, ShorterRowTitleMatchesLongerWatchedTitle) {
    show(chatList("<div title=\"Team\"></div>"));
    EXPECT_EQ(activate("Team Alpha").dumpInOrder(), R"({"state":"activating","activeChatTitle":"",)"
                                                    R"("matchedTitle":"Team","pageTitle":"The page"})");
}

TEST_F(ChatActivationScript, RowIsOpenedThoughAnotherChatIsOpen) {
    show(chatList("<div title=\"Team\"></div>") + "<header><span title=\"Family\"></span></header>");
    EXPECT_EQ(activate("Team").dumpInOrder(), R"({"state":"activating","activeChatTitle":"Family",)"
                                              R"("matchedTitle":"Team","pageTitle":"The page"})");
}

// --- The click

TEST_F(ChatActivationScript, NearestClickableAncestorIsClicked) {
    // Around the list, because an ancestor inside it would be a row itself.
    const std::vector<std::string> targets = {
        R"(<section id="target" role="listitem">LIST</section>)",
        R"(<section id="target" role="gridcell">LIST</section>)",
        R"(<section id="target" data-testid="cell-frame-container">LIST</section>)",
        R"(<button id="target">LIST</button>)",
        R"(<a id="target">LIST</a>)",
        R"(<div id="target" tabindex="0">LIST</div>)",
        R"(<a><section id="target" role="gridcell"><section tabindex="0">LIST</section></section></a>)",
    };
    const std::string list = R"(<section id="pane-side"><p tabindex="0" title="Team"></p></section>)";
    for (std::string target : targets) {
        show(target.replace(target.find("LIST"), 4, list));
        recordEvents();
        EXPECT_EQ(activate("Team").at("state"), "activating") << target;
        EXPECT_EQ(clickTarget(), "target") << target;
    }
}

TEST_F(ChatActivationScript, ClickableRowIsClickedItself) {
    show("<a>" + chatList(R"(<div id="row" tabindex="0" title="Team"></div>)") + "</a>");
    recordEvents();
    activate("Team");
    EXPECT_EQ(clickTarget(), "row");
}

TEST_F(ChatActivationScript, RowWithoutClickableAncestorIsClickedItself) {
    show(chatList("<p><span tabindex=\"0\" id=\"row\" title=\"Team\"></span></p>"));
    recordEvents();
    activate("Team");
    EXPECT_EQ(clickTarget(), "row");
}

TEST_F(ChatActivationScript, RowGetsItsEventsInOrderAndTwoClicks) {
    show(chatList("<div id=\"row\" title=\"Team\"></div>"));
    recordEvents();
    activate("Team");
    EXPECT_EQ(recorded(),
              Json::parse(R"(["mouseover row", "mousedown row", "mouseup row", "click row", "click row"])"));
}

TEST_F(ChatActivationScript, MouseEventsBubbleCanBeCancelledAndNameTheWindow) {
    show(chatList("<div id=\"row\" title=\"Team\"></div>"));
    recordEvents();
    activate("Team");
    const Json events = valueOf("events");
    ASSERT_EQ(events.size(), 5U);
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(events[i].at("kind"), "MouseEvent");
        EXPECT_EQ(events[i].at("bubbles"), true);
        EXPECT_EQ(events[i].at("cancelable"), true);
        EXPECT_EQ(events[i].at("view"), true);
    }
}

TEST_F(ChatActivationScript, RowIsScrolledIntoViewBeforeItsEvents) {
    show(chatList("<div id=\"row\" title=\"Team\"></div>"));
    inPage(R"(
        window.steps = [];
        Element.prototype.scrollIntoView = function (options) { steps.push([this.id, options]); };
        document.addEventListener('mouseover', () => steps.push('mouseover'));)");
    activate("Team");
    EXPECT_EQ(valueOf("steps"),
              Json::parse(R"([["row", {"block": "center", "inline": "nearest"}], "mouseover"])"));
}

TEST_F(ChatActivationScript, RowFarDownTheListComesIntoView) {
    show(
        "<div id=\"side\"><section id=\"pane-side\" style=\"height: 300px; overflow: auto\"></section></div>");
    inPage(R"(
        for (let i = 0; i < 200; ++i) {
            const row = document.createElement('div');
            row.style.height = '60px';
            row.title = 'Chat number ' + i + '.';
            document.getElementById('pane-side').append(row);
        })");
    ASSERT_EQ(valueOf("document.getElementById('pane-side').scrollTop"), 0);
    EXPECT_EQ(activate("Chat number 150.").at("state"), "activating");
    EXPECT_EQ(valueOf("(() => { const box = document.querySelector('[title=\"Chat number 150.\"]')"
                      ".getBoundingClientRect(); return box.top >= 0 && box.bottom <= 320; })()"),
              true);
}

TEST_F(ChatActivationScript, RowThatCannotScrollIsClickedAllTheSame) {
    show(chatList("<div id=\"row\" title=\"Team\"></div>"));
    recordEvents();
    inPage("document.getElementById('row').scrollIntoView = undefined;");
    EXPECT_EQ(activate("Team").at("state"), "activating");
    EXPECT_EQ(recorded().size(), 5U);
}

TEST_F(ChatActivationScript, RowWithoutClickMethodGetsTheDispatchedClickOnly) {
    show(chatList("<svg id=\"row\" tabindex=\"0\" aria-label=\"Team\"></svg>"));
    recordEvents();
    EXPECT_EQ(activate("Team").at("state"), "activating");
    EXPECT_EQ(recorded(), Json::parse(R"(["mouseover row", "mousedown row", "mouseup row", "click row"])"));
}

TEST_F(ChatActivationScript, ClickShowsOnALaterRun) {
    show(chatList("<div id=\"row\" title=\"Team\"></div>") + "<div id=\"main\"><header></header></div>");
    inPage(
        "document.getElementById('row').onclick = () => setTimeout("
        "() => { document.querySelector('#main header').textContent = 'Team'; }, 0);");
    EXPECT_EQ(activate("Team").at("state"), "activating");
    page().waitUntil("document.querySelector('#main header').textContent === 'Team'");
    EXPECT_EQ(activate("Team").at("state"), "active");
}

// --- The search box

TEST_F(ChatActivationScript, SearchBoxesOfEveryKindAreFound) {
    const std::vector<std::string> boxes = {
        R"(<p id="box" contenteditable="true" role="textbox"></p>)",
        R"(<p id="box" contenteditable="true" data-lexical-editor="true"></p>)",
        R"(<div id="box" contenteditable="true"></div>)",
        R"(<input id="box" type="text">)",
        R"(<input id="box" type="search" role="textbox">)",
        R"(<input id="box">)",
    };
    for (const std::string& box : boxes) {
        show("<div id=\"side\">" + box + "</div>");
        EXPECT_EQ(activate("Team").dumpInOrder(), R"({"state":"searching","activeChatTitle":"",)"
                                                  R"("matchedTitle":"Team","pageTitle":"The page"})")
            << box;
        EXPECT_EQ(valueOf("document.activeElement.id"), "box") << box;
        EXPECT_EQ(valueOf("box.value === undefined ? box.textContent : box.value"), "Team") << box;
    }
}

TEST_F(ChatActivationScript, OtherEditableElementsAndOtherPlacesHoldNoSearchBox) {
    show(
        "<div id=\"side\"><p contenteditable=\"true\"></p><div contenteditable=\"false\"></div><textarea></textarea>"
        "</div><input type=\"text\"><div contenteditable=\"true\" role=\"textbox\"></div>");
    EXPECT_EQ(activate("Team").at("state"), "no-active-chat");
}

TEST_F(ChatActivationScript, FirstDisplayedBoxInDocumentOrderIsTaken) {
    show(
        "<div id=\"side\"><input id=\"hidden\" style=\"display: none\"><input type=\"hidden\" id=\"never\">"
        "<p style=\"display: none\"><input id=\"inside\"></p>"
        "<input id=\"box\"><div id=\"later\" contenteditable=\"true\" role=\"textbox\"></div></div>");
    EXPECT_EQ(activate("Team").at("state"), "searching");
    EXPECT_EQ(valueOf("['hidden', 'never', 'inside', 'box'].map((id) => document.getElementById(id).value)"),
              Json::parse(R"(["", "", "", "Team"])"));
    EXPECT_EQ(valueOf("document.getElementById('later').textContent"), "");
}

TEST_F(ChatActivationScript, BoxThatIsNotDisplayedIsNotUsed) {
    show("<div id=\"side\" style=\"display: none\"><input id=\"box\"></div>");
    EXPECT_EQ(activate("Team").at("state"), "no-active-chat");
    EXPECT_EQ(valueOf("document.getElementById('box').value"), "");
}

TEST_F(ChatActivationScript, RowComesBeforeSearch) {
    show(
        "<div id=\"side\"><input id=\"box\"><section id=\"pane-side\"><div title=\"Team\"></div></section></div>");
    EXPECT_EQ(activate("Team").at("state"), "activating");
    EXPECT_EQ(valueOf("document.getElementById('box').value"), "");
}

TEST_F(ChatActivationScript, TextInputGetsTheTitleAndThenInputAndChange) {
    show("<div id=\"side\"><input id=\"box\" value=\"before\"></div>");
    recordEvents();
    inPage("document.addEventListener('input', () => { window.valueAtInput = box.value; });");
    EXPECT_EQ(activate("Team").at("state"), "searching");
    EXPECT_EQ(recorded(), Json::parse(R"(["focusin box", "input box", "change box"])"));
    EXPECT_EQ(valueOf("valueAtInput"), "Team");
    EXPECT_EQ(valueOf("events.slice(1).map((event) => event.bubbles)"), Json::parse("[true, true]"));
}

TEST_F(ChatActivationScript, TextAreaIsFilledAsATextInputIs) {
    show(
        "<div id=\"side\"><textarea id=\"box\" contenteditable=\"true\" role=\"textbox\">before</textarea></div>");
    recordEvents();
    EXPECT_EQ(activate("Team").at("state"), "searching");
    EXPECT_EQ(valueOf("box.value"), "Team");
    EXPECT_EQ(valueOf("box.textContent"), "before");
    EXPECT_EQ(recorded(), Json::parse(R"(["focusin box", "input box", "change box"])"));
}

TEST_F(ChatActivationScript, EditableBoxIsEmptiedByEditingCommandsOnAllOfItsContents) {
    show(
        "<div id=\"side\"><div id=\"box\" contenteditable=\"true\">old <b>search</b></div></div>"
        "<div id=\"other\" contenteditable=\"true\">draft of a message</div>");
    inPage(R"(
        window.getSelection().selectAllChildren(document.getElementById('other'));
        window.commands = [];
        const execCommand = document.execCommand;
        document.execCommand = function (command) {
            commands.push([command, getSelection().rangeCount, getSelection().toString()]);
            return execCommand.apply(document, arguments);
        };)");
    EXPECT_EQ(activate("Team").at("state"), "searching");
    EXPECT_EQ(valueOf("commands"),
              Json::parse(R"([["selectAll", 1, "old search"], ["delete", 1, "old search"]])"));
    EXPECT_EQ(valueOf("box.innerHTML"), "Team");
    EXPECT_EQ(valueOf("document.getElementById('other').textContent"), "draft of a message");
}

TEST_F(ChatActivationScript, EditableBoxGetsInsertionAndChange) {
    show("<div id=\"side\"><div id=\"box\" contenteditable=\"true\">old</div></div>");
    recordEvents();
    activate("Team");
    // The engine announces the deletion by itself.
    const Json dispatched = valueOf("events.filter((event) => !event.trusted)");
    ASSERT_EQ(dispatched.size(), 2U);
    EXPECT_EQ(dispatched[0].at("type"), "input");
    EXPECT_EQ(dispatched[0].at("kind"), "InputEvent");
    EXPECT_EQ(dispatched[0].at("bubbles"), true);
    EXPECT_EQ(dispatched[0].at("cancelable"), true);
    EXPECT_EQ(dispatched[0].at("data"), "Team");
    EXPECT_EQ(dispatched[0].at("inputType"), "insertText");
    EXPECT_EQ(dispatched[1].at("type"), "change");
    EXPECT_EQ(dispatched[1].at("bubbles"), true);
}

TEST_F(ChatActivationScript, EditableBoxIsEmptiedDirectlyWithoutEditingCommands) {
    show("<div id=\"side\"><div id=\"box\" contenteditable=\"true\">old <b>search</b></div></div>");
    inPage(R"(
        document.execCommand = undefined;
        window.texts = [];
        const property = Object.getOwnPropertyDescriptor(Node.prototype, 'textContent');
        Object.defineProperty(box, 'textContent', {
            get: property.get, set(text) { texts.push(text); property.set.call(this, text); } });)");
    EXPECT_EQ(activate("Team").at("state"), "searching");
    EXPECT_EQ(valueOf("texts"), Json::parse(R"(["", "Team"])"));
    EXPECT_EQ(valueOf("box.innerHTML"), "Team");
}

TEST_F(ChatActivationScript, SearchAgainDoesNotRepeatTheTitle) {
    show("<div id=\"side\"><div id=\"box\" contenteditable=\"true\"></div></div>");
    activate("Team");
    activate("Team");
    EXPECT_EQ(valueOf("box.textContent"), "Team");
}

// --- Nothing to click or to fill

TEST_F(ChatActivationScript, OtherOpenChatIsReportedAsWrong) {
    show("<header><span title=\"Family\"></span></header>");
    EXPECT_EQ(activate(" Team  Alpha ").dumpInOrder(),
              R"({"state":"wrong-active-chat","activeChatTitle":"Family",)"
              R"("matchedTitle":" Team  Alpha ","pageTitle":"The page"})");
}

TEST_F(ChatActivationScript, NoOpenChatIsReportedAsNone) {
    show("", "");
    EXPECT_EQ(activate("Team").dumpInOrder(),
              R"({"state":"no-active-chat","activeChatTitle":"","matchedTitle":"Team","pageTitle":""})");
}

TEST_F(ChatActivationScript, PageTitleIsPassedOnAsItIs) {
    show("", "<title>(3) \"News\" \xF0\x9F\x8E\x89</title>");
    EXPECT_EQ(activate("Team").at("pageTitle"), "(3) \"News\" \xF0\x9F\x8E\x89");
}

TEST_F(ChatActivationScript, ElementThatPosesAsThePageTitleCountsAsNone) {
    show("<img name=\"title\" alt=\"\">");
    EXPECT_EQ(activate("Team").at("pageTitle"), "");
}

TEST_F(ChatActivationScript, PageWhoseBodyHasNotArrivedHasNoChat) {
    show("", "<script>window.early = " + scriptWithWatchedTitle(page_script::chat_activation, "Team") +
                 ";</script>");
    EXPECT_EQ(Json::parse(valueOf("window.early").get<std::string>()).at("state"), "no-active-chat");
}

TEST_F(ChatActivationScript, LeavesNothingBehind) {
    show(chatList("<div title=\"Team\"></div>"));
    inPage("window.before = Object.getOwnPropertyNames(window).concat('before');");
    activate("Team");
    EXPECT_EQ(valueOf("Object.getOwnPropertyNames(window).filter((name) => !before.includes(name))"),
              Json::array());
}

// --- Watched titles that look like something else

struct HostileTitle {
    const char* title;
    const char* normalized;
};

const std::vector<HostileTitle> hostile_titles = {
    {R"(He said "hello")", R"(He said "hello")"},
    {R"(")", R"(")"},
    {R"(back\slash)", R"(back\slash)"},
    {R"(ends in \)", R"(ends in \)"},
    {R"(\u0041\x41\n)", R"(\u0041\x41\n)"},
    {"Home/Work", "Home/Work"},
    {"</script><script>window.injected = 1</script>", "</script><script>window.injected = 1</script>"},
    {"<img src=x onerror=\"window.injected = 1\">", "<img src=x onerror=\"window.injected = 1\">"},
    {R"("; window.injected = 1; ")", R"("; window.injected = 1; ")"},
    {R"('; window.injected = 1; ')", R"('; window.injected = 1; ')"},
    {"${window.injected = 1}", "${window.injected = 1}"},
    {"`${window.injected = 1}`", "`${window.injected = 1}`"},
    {"*/ window.injected = 1 /*", "*/ window.injected = 1 /*"},
    {"// window.injected = 1", "// window.injected = 1"},
    {"line\nbreak\r\nand\ttab", "line break and tab"},
    {"a\xE2\x80\xA8window.injected = 1\xE2\x80\xA9z", "a window.injected = 1 z"},
    {"bell\x07 and escape\x1B", "bell\x07 and escape\x1B"},
    {"__WATCHED_TITLE__", "__WATCHED_TITLE__"},
    {"__WATCHED_TITLE__\" + (window.injected = 1) + \"", "__WATCHED_TITLE__\" + (window.injected = 1) + \""},
    {"__proto__", "__proto__"},
    {"$& $1 $`", "$& $1 $`"},
    {"Familie \xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7 \xD7\x90\xD7\x91",
     "Familie \xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7 \xD7\x90\xD7\x91"},
};

TEST_F(ChatActivationScript, WatchedTitleIsComparedAsText) {
    for (const HostileTitle& hostile : hostile_titles) {
        show(chatList("<div id=\"row\"></div>"));
        inPage("document.getElementById('row').title = " + literal(hostile.title) + ";");
        const Json answer = activate(hostile.title);
        EXPECT_EQ(answer.at("state"), "activating") << hostile.title;
        EXPECT_EQ(answer.at("matchedTitle"), hostile.normalized);
        EXPECT_EQ(valueOf("window.injected === undefined"), true) << hostile.title;
    }
}

TEST_F(ChatActivationScript, WatchedTitleIsTypedAsText) {
    for (const HostileTitle& hostile : hostile_titles) {
        show("<div id=\"side\"><div id=\"box\" contenteditable=\"true\"></div></div>");
        const Json answer = activate(hostile.title);
        EXPECT_EQ(answer.at("state"), "searching") << hostile.title;
        EXPECT_EQ(answer.at("matchedTitle"), hostile.title);
        EXPECT_EQ(valueOf("box.textContent"), hostile.title);
        EXPECT_EQ(valueOf("box.children.length"), 0) << hostile.title;
        EXPECT_EQ(valueOf("window.injected === undefined"), true) << hostile.title;
    }
}

TEST_F(ChatActivationScript, WatchedTitleOfAMegabyteIsComparedAsText) {
    const std::string title(1'000'000, 'x');
    show(chatList("<div title=\"Other\"></div>"));
    EXPECT_EQ(activate(title).at("matchedTitle"), title);
}

}  // namespace
}  // namespace brindle::test

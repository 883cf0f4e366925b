#include <array>
#include <cstdint>
#include <string>

#include "scripts/PageScriptTest.h"
#include "support/Json.h"

namespace brindle::test {
namespace {

std::string withEvery(std::string text, std::string_view what, std::string_view instead) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + instead.size()))
        text.replace(at, what.size(), instead);
    return text;
}

/// A page whose rules let nearly every change tell on the text of some message.
constexpr const char* style_rules = R"(
    .hidden, [hidden] { display: none }
    .invisible { visibility: hidden }
    .upper { text-transform: uppercase }
    .block span, .block i { display: block }
    .message-in:first-child .mark, .message-in:last-child i { display: none }
    .message-in:nth-child(3n) .mark { text-transform: uppercase }
    .flag + div span, .flag ~ p .mark { text-transform: uppercase }
    .flag .mark { display: none }
    i:empty + .mark, div:empty ~ div .mark, p:empty ~ div span { display: none }
    [title=Bo] span, [aria-label] ~ [data-id] .mark { text-transform: lowercase }
    section:only-child span { text-transform: lowercase }
    aside p:first-child + p span { display: none }
    :focus ~ main .mark { display: none }
    .dark .mark { text-transform: uppercase }
)";

/// Changes a page at random, the same way for the same seed, and compares after every few changes what two
/// capture scripts have made of it.
constexpr const char* driver = R"js(
let seed = 0;
let step = 0;
let lastIdentifier = 0;
const pool = [];
const log = [];
// Time stands still within a step, so that both scripts see the same.
Date.now = () => step;

function random() {
    seed = (seed + 0x6d2b79f5) | 0;
    let mixed = Math.imul(seed ^ (seed >>> 15), 1 | seed);
    mixed = (mixed + Math.imul(mixed ^ (mixed >>> 7), 61 | mixed)) ^ mixed;
    return ((mixed ^ (mixed >>> 14)) >>> 0) / 4294967296;
}
const below = (end) => Math.floor(random() * end);
const pick = (list) => list[below(list.length)];

const text = () => pick(['Hello', 'yes', 'No way', ' ', '', 'see you', 'Text ' + below(60), 'a\nb']);
const identifier = () => 'data-id="' + (below(3) ? 'm' + (lastIdentifier += 1) : 'm' + below(20)) + '"';
const mark = () => '<i class="mark">' + text() + '</i>';
const messageKinds = [
    () => '<div class="message-in" ' + identifier() + '><span dir="auto">' + pick(['Ann', 'Bo']) +
        '</span><span class="selectable-text">' + text() + mark() + '</span><i>10:00</i></div>',
    () => '<div class="message-in">' + text() + mark() + '</div>',
    () => '<div data-testid="msg-container"><div class="copyable-text"><span class="selectable-text">' + text() +
        mark() + '</span></div></div>',
    () => '<p ' + identifier() + '><b data-pre-plain-text="[10:00] Ann: ">' + text() + '</b>' + mark() + '</p>',
    () => '<div data-testid="msg-in"><div class="selectable-text"><span>' + text() + '</span>' + mark() +
        '</div></div>',
    () => '<div class="message-out" ' + identifier() + '><span class="selectable-text">' + text() + '</span></div>',
    () => '<div ' + identifier() + '><div class="message-in"><span class="selectable-text">' + text() + mark() +
        '</span></div><div class="message-in">' + text() + '</div></div>',
    () => '<div></div>',
];
function makeMessage() {
    const holder = document.createElement('div');
    holder.innerHTML = pick(messageKinds)();
    return holder.firstChild;
}

function restoreStructure() {
    if (!document.getElementById('messages')) {
        document.querySelectorAll('header, aside, main, #focus').forEach((each) => each.remove());
        document.body.insertAdjacentHTML('afterbegin', '<header><span title="Team"></span></header><input id="focus">' +
            '<aside><p><span>Typing</span></p><p><span>Row</span></p></aside><main id="main">' +
            '<section id="messages"></section><section id="others"></section></main>');
    }
}
const containers = () => [...document.querySelectorAll('#messages, #others, #messages > *, main, aside')];
const movable = () => [...document.querySelectorAll('section *, aside *'), ...pool];
const anything = () => [document.body, ...document.querySelectorAll('body *'), ...pool.flatMap((each) =>
    [each, ...each.querySelectorAll('*')])].filter((each) => !each.matches('style'));
function texts() {
    const found = [];
    for (const root of [document.body, ...pool]) {
        const walker = document.createTreeWalker(root, NodeFilter.SHOW_TEXT);
        while (walker.nextNode()) {
            if (!walker.currentNode.parentNode.matches('style')) { found.push(walker.currentNode); }
        }
    }
    return found;
}
function insertAnywhere(node) {
    const parent = pick(containers().filter((each) => !node.contains(each)));
    if (parent) { parent.insertBefore(node, pick([null, null, ...parent.childNodes])); }
}
const values = {
    class: ['message-in', 'message-in flag', 'message-out', 'hidden', 'invisible', 'upper', 'block', 'flag', 'mark',
        'selectable-text', 'copyable-text', ''],
    'data-id': ['m1', 'm2', ' ', ''],
    'data-testid': ['msg-in', 'msg-container', 'msg-out', 'msg-text', 'other'],
    'data-pre-plain-text': ['[10:00] Ann: ', 'Ann', ''],
    title: ['Ann', 'Bo', ''],
    'aria-label': ['Message', ''],
    dir: ['auto', 'rtl'],
    style: ['display: none', 'display: block', 'text-transform: uppercase', 'visibility: hidden', ''],
    hidden: [''],
};

const changes = {
    insert() { insertAnywhere(makeMessage()); },
    append() { document.getElementById('messages').append(makeMessage()); },
    remove() { const node = pick(movable()); if (node) { node.remove(); } },
    removeOldest() { document.querySelectorAll('section, aside, section > *').forEach(({ children }) => {
        while (children.length > 8) { children[0].remove(); } }); },
    keep() { const node = pick([...document.querySelectorAll('#messages > *')]);
        if (node && pool.length < 5) { node.remove(); pool.push(node); } },
    bringBack() { const node = pool.shift(); if (node) { insertAnywhere(node); } },
    move() { const node = pick(movable()); if (node && node.isConnected) { insertAnywhere(node); } },
    leaveBody() { const node = pick([...document.querySelectorAll('#messages > *')]);
        if (node) { document.documentElement.append(node); } },
    comeBack() { const node = document.querySelector('body ~ *'); if (node) { insertAnywhere(node); } },
    changeOutside() { const node = document.querySelector('body ~ *'); if (node) { node.append(text()); } },
    replace() { const node = pick([...document.querySelectorAll('#messages > *')]);
        if (node) { node.replaceWith(makeMessage(), text()); } },
    recycle() { const node = pick([...document.querySelectorAll('#messages > *')]);
        if (node) { node.innerHTML = makeMessage().innerHTML; } },
    copy() { const node = pick([...document.querySelectorAll('#messages > *')]);
        if (node) { insertAnywhere(node.cloneNode(true)); } },
    type() { const node = pick(texts()); if (node) { node.data = text(); } },
    typeOnAndOn() { const found = texts(); const node = found[found.length - 1 - below(6)];
        if (node) { node.data = text(); } },
    splitText() { const node = pick(texts()); if (node && node.length > 1) { node.splitText(1); } },
    normalize() { document.getElementById('messages').normalize(); },
    setAttribute() { const name = pick(Object.keys(values));
        pick(anything()).setAttribute(name, pick(values[name])); },
    setClass() { const node = pick(movable()); if (node) { node.className = pick(values.class); } },
    removeAttribute() { pick(anything()).removeAttribute(pick(Object.keys(values))); },
    highUp() { const node = pick([document.body, document.documentElement, ...document.querySelectorAll('main, section')]);
        node.className = pick(['', '', 'upper', 'dark', 'flag', 'block', 'hidden']); },
    changeStyle() { document.querySelector('style').textContent += pick(['.mark { display: none }', 'i { display: block }',
        '.mark { display: inline }', 'span { text-transform: uppercase }', 'span { text-transform: none }']); },
    resetStyle() { document.querySelector('style').textContent = styleRules; },
    addStyle() { const style = document.createElement('style');
        style.textContent = pick(['.mark { display: none }', 'span { text-transform: uppercase }']);
        pick([document.head, document.body]).append(style); },
    removeStyle() { const all = document.querySelectorAll('style'); if (all.length > 1) { all[all.length - 1].remove(); } },
    insertRule() { pick([...document.styleSheets]).insertRule(pick(['.mark { display: none }', 'i { display: inline }'])); },
    switchSheet() { const sheet = pick([...document.styleSheets]); sheet.disabled = !sheet.disabled; },
    adopt() { const sheet = new CSSStyleSheet(); sheet.replaceSync('.mark { text-transform: lowercase }');
        document.adoptedStyleSheets = pick([[], [sheet]]); },
    title() { const span = document.querySelector('header span');
        if (span) { span.title = pick(['Team', 'Team', 'Team', 'Team Alpha', 'Family', '']); } },
    pageTitle() { document.title = pick(['The page', 'Another']); },
    focus() { const box = document.getElementById('focus');
        if (box && document.activeElement === box) { box.blur(); } else if (box) { box.focus(); } },
    nothing() {},
};
const names = Object.keys(changes);
// What shows much too little of everything for long is put right soon.
const remedies = ['resetStyle', 'removeStyle', 'switchSheet', 'append', 'append', 'removeOldest'];

function summary(state) {
    const { queue, lastSnapshot, seenFingerprints, primedChats, observerInstalled } = state;
    const seen = step % 50 === 0 ? Object.entries(seenFingerprints) : Object.keys(seenFingerprints).length;
    return JSON.stringify({ queue, lastSnapshot, seen, primedChats, observerInstalled });
}
function report(what, remembering, full) {
    window.outcome = JSON.stringify({ step, what, lastChanges: log.slice(-12), remembering, full });
}
let quietUntil = 0;
// Some texts change again and again while nothing comes or goes.
function pickName() {
    if (random() < 0.02) { quietUntil = step + 15; }
    if (step < quietUntil) { return pick(['typeOnAndOn', 'typeOnAndOn', 'setClass']); }
    return random() < 0.15 ? pick(remedies) : pick(names);
}
function changeOnce() {
    const name = pickName();
    restoreStructure();
    // More elements take longer and show nothing else.
    if (document.body.getElementsByTagName('*').length > 150) { changes.removeOldest(); }
    changes[name]();
    log.push(step + ' ' + name);
}
function isSameAfterStep() {
    const remembering = summary(stateOfRemembering());
    const full = summary(stateOfFull());
    if (remembering !== full) { report('state', remembering, full); }
    return remembering === full;
}
function isSameAnswer() {
    const remembering = runRemembering();
    const full = runFull();
    captured += (JSON.parse(full).messages || []).length;
    if (remembering !== full) { report('answer', remembering, full); }
    return remembering === full;
}
let captured = 0;
async function drive(steps) {
    window.outcome = null;
    for (const end = step + steps; step < end; step += 1) {
        for (let count = 1 + below(3); count > 0; count -= 1) { changeOnce(); }
        // The observers of a change run before what awaits something settled goes on.
        await null;
        if (!isSameAfterStep() || (random() < 0.04 && !isSameAnswer())) { return; }
    }
    window.outcome = 'same';
}
)js";

class ScanAgreement : public PageScriptTest {
  protected:
    /// The capture script, and one that does the same with a memory that keeps nothing and a state of its
    /// own.
    static void showBothScripts(std::uint32_t seed) {
        const auto remembering = scriptWithWatchedTitle(page_script::inbound_capture, "Team");
        const auto forgetful =
            withEvery(remembering, "new WeakMap()", "({ get() {}, set() {}, delete() {} })");
        const auto full = withEvery(forgetful, state_name, "window.stateOfOther");
        ASSERT_NE(forgetful, remembering);
        ASSERT_NE(full, forgetful);
        show("", "<title>The page</title><style></style>");
        page().evaluate("const styleRules = " + literal(style_rules) +
                        ";\nconst stateOfRemembering = () => " + state_name +
                        ";\nconst stateOfFull = () => window.stateOfOther;\n" +
                        "const runRemembering = () => " + remembering + ";\nconst runFull = () => " + full +
                        ";\n" + driver + "\nseed = " + std::to_string(seed) +
                        ";\nchanges.resetStyle();\nrestoreStructure();\nrunRemembering(); runFull(); null");
    }
};

/// Whatever a page does, the scan that remembers queues and counts what the scan that reads everything does.
TEST_F(ScanAgreement, RememberingAndFullScanCaptureTheSame) {
    constexpr std::array<std::uint32_t, 4> seeds{1, 20261122, 777, 4294967295};
    constexpr int rounds = 4;
    for (const auto seed : seeds) {
        showBothScripts(seed);
        for (int round = 0; round < rounds; ++round) {
            inPage("drive(200);");
            page().waitUntil("window.outcome !== null");
            const auto outcome = inPage("return window.outcome;");
            ASSERT_EQ(outcome, "same") << "seed " << seed;
        }
        // The changes are no use if nothing is captured.
        EXPECT_GT(valueOf("captured"), 100) << "seed " << seed;
    }
}

}  // namespace
}  // namespace brindle::test

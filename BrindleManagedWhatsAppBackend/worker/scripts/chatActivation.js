// Opens the watched chat when it is not the open one: by its row in the chat list, else by searching for it.
// What a click or a search brings about shows on a later run.
const watchedTitle = __WATCHED_TITLE__;

const rowSelector = '#pane-side [role="listitem"], #pane-side [data-testid="cell-frame-container"], ' +
    "#pane-side [tabindex], #pane-side div";
const clickTargetSelector = '[role="listitem"], [role="gridcell"], [data-testid="cell-frame-container"], ' +
    "button, a, div[tabindex]";
const searchBoxSelector = '#side [contenteditable="true"][role="textbox"], ' +
    '#side [contenteditable="true"][data-lexical-editor="true"], #side div[contenteditable="true"], ' +
    '#side input[type="text"], #side input[role="textbox"], #side input';

function resolveCandidateTitle(node) {
    const titled = node.querySelector("[title]") || node.querySelector("[aria-label]") || node;
    return normalize(
        titled.getAttribute("title") || titled.getAttribute("aria-label") || node.textContent);
}

function findRow() {
    for (const node of document.querySelectorAll(rowSelector)) {
        const title = resolveCandidateTitle(node);
        if (matchesWatchedTitle(title, watchedTitle)) {
            return { node, title };
        }
    }
    return null;
}

// Some pages open a chat on the press, some on the click, some only on a click the element makes itself.
function clickRow(node) {
    const target = node.closest(clickTargetSelector) || node;
    if (typeof target.scrollIntoView === "function") {
        target.scrollIntoView({ block: "center", inline: "nearest" });
    }
    for (const type of ["mouseover", "mousedown", "mouseup", "click"]) {
        target.dispatchEvent(new MouseEvent(type, { bubbles: true, cancelable: true, view: window }));
    }
    if (typeof target.click === "function") {
        target.click();
    }
}

function findSearchBox() {
    for (const box of document.querySelectorAll(searchBoxSelector)) {
        // A box that is not displayed has no offset parent.
        if (box.offsetParent !== null) {
            return box;
        }
    }
    return null;
}

function clearEditableBox(box) {
    const range = document.createRange();
    range.selectNodeContents(box);
    const selection = window.getSelection();
    selection.removeAllRanges();
    selection.addRange(range);
    if (typeof document.execCommand === "function") {
        document.execCommand("selectAll");
        document.execCommand("delete");
    } else {
        box.textContent = "";
    }
}

function searchFor(box, title) {
    box.focus();
    if (box.matches("input, textarea")) {
        box.value = title;
        box.dispatchEvent(new Event("input", { bubbles: true }));
    } else {
        clearEditableBox(box);
        box.textContent = title;
        box.dispatchEvent(new InputEvent("input",
            { bubbles: true, cancelable: true, data: title, inputType: "insertText" }));
    }
    box.dispatchEvent(new Event("change", { bubbles: true }));
}

const activeChatTitle = resolveActiveChatTitle();

function outcome(state, matchedTitle) {
    return JSON.stringify({ state, activeChatTitle, matchedTitle, pageTitle: readPageTitle() });
}

if (matchesWatchedTitle(activeChatTitle, watchedTitle)) {
    return outcome("active", activeChatTitle);
}
const row = findRow();
if (row) {
    clickRow(row.node);
    return outcome("activating", row.title);
}
const searchBox = findSearchBox();
if (searchBox) {
    searchFor(searchBox, watchedTitle);
    return outcome("searching", watchedTitle);
}
return outcome(activeChatTitle ? "wrong-active-chat" : "no-active-chat", watchedTitle);

// Helpers that stand at the head of every script that deals with chats. Each composed script carries its own
// copy, so nothing of ours but the capture state is visible to the page.

function normalize(value) {
    return String(value || "").replace(/\s+/g, " ").trim();
}

// Loose in both directions, because the page shortens some titles and decorates others.
function matchesWatchedTitle(candidate, watched) {
    const candidateTitle = normalize(candidate).toLowerCase();
    const wantedTitle = normalize(watched).toLowerCase();
    if (!candidateTitle || !wantedTitle) {
        return false;
    }
    return candidateTitle === wantedTitle || candidateTitle.includes(wantedTitle) ||
        wantedTitle.includes(candidateTitle);
}

function readAttribute(element, name) {
    return element ? element.getAttribute(name) : "";
}

function readInnerText(element) {
    return element ? element.innerText : "";
}

function resolveActiveChatTitle() {
    return normalize(
        readAttribute(document.querySelector("header span[title]"), "title") ||
        readAttribute(document.querySelector('header [dir="auto"][title]'), "title") ||
        readInnerText(document.querySelector('#main header [dir="auto"]')) ||
        readInnerText(document.querySelector("#main header")));
}

// An element named "title" can stand in for the document's title; the worker expects text.
function readPageTitle() {
    return typeof document.title === "string" ? document.title : "";
}

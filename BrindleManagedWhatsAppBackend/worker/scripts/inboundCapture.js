// Captures the inbound messages of whatever chat is open, and hands over those of the watched chat. What it
// knows lives in the page: a queue of captured messages and the fingerprints of all that were seen. The
// observer set up by the first run captures between runs too, with the first run's copy of these functions.
const watchedTitle = __WATCHED_TITLE__;

const queueLimit = 200;
const queueKept = 100;
const fingerprintLimit = 2000;
const fingerprintsKept = 1500;

const candidateSelector =
    'div.message-in, div[data-testid="msg-in"], div[data-testid="msg-container"], [data-id]';
const outboundSelector = '.message-out, [data-testid="msg-out"]';
const inboundSelector = '.message-in, [data-testid="msg-in"]';
const messageBodySelector = 'span.selectable-text, [data-testid="msg-text"], [data-pre-plain-text]';
const textSelectors = [
    "span.selectable-text",
    "div.selectable-text span",
    '[data-testid="msg-text"] span',
    '[data-testid="msg-text"]',
    "span.copyable-text span.selectable-text",
    "div.copyable-text span.selectable-text",
];
const senderSelector = '[data-pre-plain-text], span[dir="auto"][title], span[title], span[dir="auto"]';

function openCaptureState() {
    if (!window.__brindleWhatsAppWorkerCaptureState) {
        window.__brindleWhatsAppWorkerCaptureState = {
            queue: [],
            // Without a prototype, so that no title or text is mistaken for an inherited member.
            seenFingerprints: Object.create(null),
            primedChats: Object.create(null),
            observerInstalled: false,
            lastSnapshot: null,
        };
    }
    return window.__brindleWhatsAppWorkerCaptureState;
}

const captureState = openCaptureState();

function isElement(node) {
    return Boolean(node) && node.nodeType === Node.ELEMENT_NODE;
}

function readTestId(node) {
    return (node.getAttribute("data-testid") || "").toLowerCase();
}

function looksOutbound(node) {
    if (!isElement(node)) {
        return false;
    }
    return readTestId(node).includes("msg-out") || node.matches(outboundSelector) ||
        node.querySelector(outboundSelector) !== null;
}

function looksInbound(node) {
    if (!isElement(node)) {
        return false;
    }
    const testId = readTestId(node);
    return testId.includes("msg-in") || testId.includes("msg-container") || node.matches(inboundSelector) ||
        node.querySelector(inboundSelector) !== null ||
        (node.hasAttribute("data-id") && node.querySelector(messageBodySelector) !== null);
}

function readText(element) {
    return normalize(element.innerText || element.textContent);
}

function readMessageText(node) {
    const chunks = new Set();
    const readElements = new Set();
    for (const selector of textSelectors) {
        for (const element of node.querySelectorAll(selector)) {
            // Most elements match several selectors; rendering their text once is enough.
            if (readElements.has(element)) {
                continue;
            }
            readElements.add(element);
            const chunk = readText(element);
            if (chunk) {
                chunks.add(chunk);
            }
        }
    }
    return chunks.size > 0 ? normalize(Array.from(chunks).join(" ")) : readText(node);
}

function readSenderDisplayName(node, text) {
    for (const element of node.querySelectorAll(senderSelector)) {
        const name = normalize(
            element.getAttribute("title") || element.getAttribute("data-pre-plain-text") ||
            element.innerText || element.textContent);
        const isTimeStampPrefix = name.startsWith("[") && name.includes("]");
        if (name && name !== text && !isTimeStampPrefix) {
            return name;
        }
    }
    return null;
}

function readRawReference(node, index) {
    return normalize(
        node.getAttribute("data-id") ||
        (node.dataset && node.dataset.id) ||
        node.getAttribute("data-pre-plain-text") ||
        readAttribute(node.querySelector("[data-pre-plain-text]"), "data-pre-plain-text") ||
        node.getAttribute("aria-label") ||
        "visible-index:" + index);
}

function readInboundMessage(node, index, activeChatTitle) {
    if (looksOutbound(node) || !looksInbound(node)) {
        return null;
    }
    const text = readMessageText(node);
    if (!text) {
        return null;
    }
    const senderDisplayName = readSenderDisplayName(node, text);
    const rawReference = readRawReference(node, index);
    const fingerprint = [activeChatTitle, rawReference, senderDisplayName || "", text].join("::");
    return { activeChatTitle, senderDisplayName, text, fingerprint, rawReference };
}

function collectVisibleInboundMessages() {
    const activeChatTitle = resolveActiveChatTitle();
    const messages = [];
    let index = 0;
    // One query for all kinds of candidates: an element that matches several of them comes once.
    for (const node of document.querySelectorAll(candidateSelector)) {
        const message = readInboundMessage(node, index, activeChatTitle);
        if (message) {
            messages.push(message);
        }
        index += 1;
    }
    return { activeChatTitle, messages, pageTitle: readPageTitle() };
}

function rememberSeen(message) {
    if (message.fingerprint) {
        captureState.seenFingerprints[message.fingerprint] = Date.now();
    }
}

function trimSeenFingerprints() {
    const seen = captureState.seenFingerprints;
    const fingerprints = Object.keys(seen);
    if (fingerprints.length <= fingerprintLimit) {
        return;
    }
    fingerprints.sort((left, right) => seen[left] - seen[right]);
    for (const fingerprint of fingerprints.slice(0, fingerprints.length - fingerprintsKept)) {
        delete seen[fingerprint];
    }
}

function enqueueIfNew(message) {
    if (!message.fingerprint || message.fingerprint in captureState.seenFingerprints) {
        return;
    }
    rememberSeen(message);
    captureState.queue.push(message);
    if (captureState.queue.length > queueLimit) {
        captureState.queue = captureState.queue.slice(-queueKept);
    }
    trimSeenFingerprints();
}

function snapshotOf(collection) {
    return {
        activeChatTitle: collection.activeChatTitle,
        pageTitle: collection.pageTitle,
        visibleInboundCount: collection.messages.length,
        queuedCount: captureState.queue.length,
    };
}

// The history that a chat shows when it is first opened was there before the worker watched: it is
// remembered, not delivered.
function scanVisibleInboundMessages() {
    const collection = collectVisibleInboundMessages();
    const chatKey = collection.activeChatTitle.toLowerCase();
    if (chatKey && !captureState.primedChats[chatKey]) {
        collection.messages.forEach(rememberSeen);
        captureState.primedChats[chatKey] = true;
    } else {
        collection.messages.forEach(enqueueIfNew);
    }
    captureState.lastSnapshot = snapshotOf(collection);
    return collection;
}

function scanAfterMutation() {
    try {
        scanVisibleInboundMessages();
    } catch (error) {
        // The page was caught halfway through a change; its next change or the next run scans again.
    }
}

function installObserver() {
    if (captureState.observerInstalled) {
        return;
    }
    new MutationObserver(scanAfterMutation).observe(document.body,
        { subtree: true, childList: true, characterData: true, attributes: true });
    captureState.observerInstalled = true;
    scanVisibleInboundMessages();
}

function installObserverIfNeeded() {
    if (captureState.observerInstalled) {
        return;
    }
    if (document.body) {
        installObserver();
    } else {
        document.addEventListener("DOMContentLoaded", installObserver, { once: true });
    }
}

// Messages of other chats stay queued until their chat is watched.
function drainQueue() {
    const isWatched = (message) => matchesWatchedTitle(message.activeChatTitle, watchedTitle);
    const drained = captureState.queue.filter(isWatched);
    captureState.queue = captureState.queue.filter((message) => !isWatched(message));
    return drained;
}

installObserverIfNeeded();
const collection = scanVisibleInboundMessages();
const snapshot = captureState.lastSnapshot || snapshotOf(collection);

function outcome(state, changes) {
    return JSON.stringify({
        state,
        activeChatTitle: snapshot.activeChatTitle,
        watchedTitle,
        pageTitle: snapshot.pageTitle,
        visibleInboundCount: snapshot.visibleInboundCount,
        queuedCount: snapshot.queuedCount,
        ...changes,
    });
}

if (!snapshot.activeChatTitle) {
    return outcome("no-active-chat", { activeChatTitle: null });
}
if (!matchesWatchedTitle(snapshot.activeChatTitle, watchedTitle)) {
    return outcome("wrong-chat", {});
}
const messages = drainQueue();
return outcome(messages.length > 0 ? "ok" : "no-incoming-message",
    { queuedCount: captureState.queue.length, messages });

// What is read of each element that may be a message: direction, text, sender and reference, and from these
// its fingerprint.
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

// Notes in `rendered` whose text it was.
function renderText(element, rendered) {
    rendered.add(element);
    return element.innerText || element.textContent;
}

function readMessageText(node, rendered) {
    const chunks = new Set();
    const readElements = new Set();
    for (const selector of textSelectors) {
        for (const element of node.querySelectorAll(selector)) {
            // Most elements match several selectors; rendering their text once is enough.
            if (readElements.has(element)) {
                continue;
            }
            readElements.add(element);
            const chunk = normalize(renderText(element, rendered));
            if (chunk) {
                chunks.add(chunk);
            }
        }
    }
    return normalize(chunks.size > 0 ? Array.from(chunks).join(" ") : renderText(node, rendered));
}

function readSenderDisplayName(node, text, rendered) {
    for (const element of node.querySelectorAll(senderSelector)) {
        const name = normalize(
            element.getAttribute("title") || element.getAttribute("data-pre-plain-text") ||
            renderText(element, rendered));
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

function readInboundMessage(node, index, activeChatTitle, rendered) {
    if (looksOutbound(node) || !looksInbound(node)) {
        return null;
    }
    const text = readMessageText(node, rendered);
    if (!text) {
        return null;
    }
    const senderDisplayName = readSenderDisplayName(node, text, rendered);
    const rawReference = readRawReference(node, index);
    const fingerprint = [activeChatTitle, rawReference, senderDisplayName || "", text].join("::");
    return { activeChatTitle, senderDisplayName, text, fingerprint, rawReference };
}

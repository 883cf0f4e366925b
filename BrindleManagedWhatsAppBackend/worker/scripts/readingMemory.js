// What the scans before have read of each message, so that a scan after a change reads only what may read
// differently since. How a text is rendered decides what it is, so a change may also tell on messages that it
// does not touch; docs/decisions/remembering-scan.md tells what is forgotten when, and why that is enough.

// So many changed places at once are not worth looking at one by one.
const mostScopes = 16;

// Remembers what lies in `root`, of which the records tell; nothing without one.
function makeMemory(root) {
    return {
        root,
        // By node, what it yielded, and at which place.
        readings: new WeakMap(),
        // Every element whose text was read.
        rendered: new WeakSet(),
        // Texts that were not empty when they last changed.
        filledTexts: new WeakSet(),
        circumstances: [],
    };
}

function forgetEverything(memory) {
    memory.readings = new WeakMap();
}

// Of a form, "node.parentNode" may be a field that the page has given this name.
const { get: readParent } = Object.getOwnPropertyDescriptor(Node.prototype, "parentNode");

function parentOf(node) {
    return node && readParent.call(node);
}

// How far the rules of a style sheet look from what has changed: at the element itself, for its attributes
// and whether it is empty, from there at its siblings, and at all that these hold. What has an element beside
// the change was not empty before and is not now.
function scopeOf(record) {
    const { target, type } = record;
    if (type === "attributes") {
        return parentOf(target);
    }
    const element = type === "childList" ? target : parentOf(target);
    const { previousSibling, nextSibling } = type === "childList" ? record : target;
    return isElement(previousSibling) || isElement(nextSibling) ? element : parentOf(element);
}

// A message above the scope holds what has changed.
function forgetScope(readings, scope) {
    for (let node = scope; node; node = parentOf(node)) {
        readings.delete(node);
    }
    for (const node of scope.querySelectorAll(candidateSelector)) {
        readings.delete(node);
    }
}

// What has left may change unseen before it is back, so it counts as changed. What has come is in the scope.
function scopesOf(record) {
    return [scopeOf(record), ...record.removedNodes].filter((node) => node && node.querySelectorAll);
}

// Pages say with an attribute high up, or far away, how they show everything.
function tellsOnEverything(record) {
    return record.type === "attributes" && !record.target.closest(candidateSelector);
}

function isPartOfWhatWasRead(memory, text) {
    for (let node = parentOf(text); node; node = parentOf(node)) {
        if (memory.rendered.has(node)) {
            return true;
        }
    }
    return false;
}

// The time below a message, say: rules see a difference in a text only when it begins or ceases to be empty.
function noteChangeOfNothingRead(memory, { target, type }) {
    if (type !== "characterData") {
        return false;
    }
    const wasFilled = memory.filledTexts.has(target);
    if (target.length === 0) {
        memory.filledTexts.delete(target);
        return false;
    }
    memory.filledTexts.add(target);
    return wasFilled && !isPartOfWhatWasRead(memory, target);
}

function forgetChanged(memory, records) {
    // What comes may have changed while it was away.
    if (records.some((record) => record.type === "childList")) {
        memory.filledTexts = new WeakSet();
    }
    const scopes = new Set();
    for (const record of records.filter((each) => !noteChangeOfNothingRead(memory, each))) {
        scopesOf(record).forEach((scope) => scopes.add(scope));
        if (tellsOnEverything(record) || scopes.size > mostScopes) {
            forgetEverything(memory);
            return;
        }
    }
    scopes.forEach((scope) => forgetScope(memory.readings, scope));
}

// A page can put elements of its own in the place of what is asked for here; a scan is none the worse for it.
function forgetTouched(memory, records) {
    try {
        forgetChanged(memory, records);
    } catch (error) {
        forgetEverything(memory);
    }
}

function countRules(sheet) {
    try {
        return sheet.cssRules.length;
    } catch (error) {
        // A sheet from another site is not for reading.
        return 0;
    }
}

// What no record tells of: all that stands outside the body, and style sheets that have arrived or were
// changed by script.
function readCircumstances(activeChatTitle) {
    const sheets = [...document.styleSheets, ...document.adoptedStyleSheets];
    return [
        activeChatTitle,
        document.activeElement,
        document.documentElement.cloneNode(false).outerHTML,
        ...sheets.flatMap((sheet) => [sheet, sheet.disabled, countRules(sheet)]),
    ];
}

function areSame(left, right) {
    return left.length === right.length && left.every((value, at) => value === right[at]);
}

function forgetIfCircumstancesChanged(memory, activeChatTitle) {
    try {
        const earlier = memory.circumstances;
        memory.circumstances = readCircumstances(activeChatTitle);
        if (areSame(earlier, memory.circumstances)) {
            return;
        }
    } catch (error) {
        // As in forgetTouched.
    }
    forgetEverything(memory);
}

// A message without an identifier has its place for one. Only what lies in the observed part of the page is
// remembered: of anything else no record tells.
function recallOrRead(memory, node, index, activeChatTitle) {
    const known = memory.readings.get(node);
    if (known && known.index === index) {
        return known.message;
    }
    const message = readInboundMessage(node, index, activeChatTitle, memory.rendered);
    if (isElement(node) && memory.root && memory.root.contains(node)) {
        memory.readings.set(node, { index, message });
    }
    return message;
}

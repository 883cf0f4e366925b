// Captures the inbound messages of whatever chat is open, and hands over those of the watched chat. What it
// knows lives in the page: a queue of captured messages and the fingerprints of all that were seen. The
// observer set up by the first run captures between runs too, and reads only what may have changed; each run
// reads everything. All of them use the first run's copy of these functions, which the engine has translated
// into the machine's code by and by; a copy of each run's own would be interpreted.
const queueLimit = 200;
const queueKept = 100;
const fingerprintLimit = 2000;
const fingerprintsKept = 1500;

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

function collectVisibleInboundMessages() {
    const activeChatTitle = resolveActiveChatTitle();
    const memory = captureState.memory || makeMemory(null);
    forgetIfCircumstancesChanged(memory, activeChatTitle);
    const messages = [];
    let index = 0;
    // One query for all kinds of candidates: an element that matches several of them comes once.
    for (const node of document.querySelectorAll(candidateSelector)) {
        const message = recallOrRead(memory, node, index, activeChatTitle);
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

function scanAfterMutation(records) {
    try {
        forgetTouched(captureState.memory, records);
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
    // Between this observer and the runs alone.
    Object.defineProperty(captureState, "memory", { value: { ...makeMemory(document.body), capture } });
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
function drainQueue(watchedTitle) {
    const isWatched = (message) => matchesWatchedTitle(message.activeChatTitle, watchedTitle);
    const drained = captureState.queue.filter(isWatched);
    captureState.queue = captureState.queue.filter((message) => !isWatched(message));
    return drained;
}

function outcome(state, watchedTitle, snapshot, changes) {
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

function capture(watchedTitle) {
    installObserverIfNeeded();
    // What no record tells of is noticed by each run at the latest.
    if (captureState.memory) {
        forgetEverything(captureState.memory);
    }
    const collection = scanVisibleInboundMessages();
    const snapshot = captureState.lastSnapshot || snapshotOf(collection);
    if (!snapshot.activeChatTitle) {
        return outcome("no-active-chat", watchedTitle, snapshot, { activeChatTitle: null });
    }
    if (!matchesWatchedTitle(snapshot.activeChatTitle, watchedTitle)) {
        return outcome("wrong-chat", watchedTitle, snapshot, {});
    }
    const messages = drainQueue(watchedTitle);
    return outcome(messages.length > 0 ? "ok" : "no-incoming-message", watchedTitle, snapshot,
        { queuedCount: captureState.queue.length, messages });
}

const earlierRun = captureState.memory;
return (earlierRun ? earlierRun.capture : capture)(__WATCHED_TITLE__);

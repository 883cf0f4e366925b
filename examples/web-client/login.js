// The login that survives a restart. Like other web clients the page keeps it in every place that a browser
// offers, and believes any of them: only one that forgets all of them is logged out.
(function () {
    "use strict";

    const NAME = "sample-client-login";
    const COOKIE_SECONDS = 365 * 24 * 3600;
    // A store that does not answer must not keep the page from starting; one of a busy machine answers late.
    const LONGEST_WAIT = 20000;

    const localStore = {
        read: async () => window.localStorage.getItem(NAME),
        write: async (token) => window.localStorage.setItem(NAME, token),
        clear: async () => window.localStorage.removeItem(NAME),
    };

    const cookie = {
        read: async () => {
            const found = document.cookie.split("; ").find((each) => each.startsWith(NAME + "="));
            return found ? found.slice(NAME.length + 1) : null;
        },
        write: async (token) => setCookie(token, COOKIE_SECONDS),
        clear: async () => setCookie("", 0),
    };

    const database = {
        read: () => withRecords("readonly", (records) => records.get("token")),
        write: (token) => withRecords("readwrite", (records) => records.put(token, "token")),
        clear: () => withRecords("readwrite", (records) => records.delete("token")),
    };

    const cache = {
        read: async () => {
            const found = await window.caches.match(cacheAddress());
            return found ? found.text() : null;
        },
        write: async (token) => {
            const opened = await window.caches.open(NAME);
            await opened.put(cacheAddress(), new Response(token));
        },
        clear: () => window.caches.delete(NAME),
    };

    const STORES = { localStorage: localStore, cookie, indexedDB: database, cacheStorage: cache };

    function setCookie(token, seconds) {
        document.cookie = NAME + "=" + token + "; max-age=" + seconds + "; path=/; SameSite=Strict";
    }

    function cacheAddress() {
        return new URL(NAME, document.baseURI).href;
    }

    function openDatabase() {
        return new Promise((resolve, reject) => {
            const request = window.indexedDB.open(NAME, 1);
            request.onupgradeneeded = () => request.result.createObjectStore("records");
            request.onsuccess = () => resolve(request.result);
            request.onerror = () => reject(request.error);
            request.onblocked = () => reject(new Error("The database is in use."));
        });
    }

    async function withRecords(mode, use) {
        const opened = await openDatabase();
        try {
            return await new Promise((resolve, reject) => {
                const transaction = opened.transaction("records", mode);
                const request = use(transaction.objectStore("records"));
                transaction.oncomplete = () => resolve(request.result || null);
                transaction.onabort = () => reject(transaction.error);
            });
        } finally {
            opened.close();
        }
    }

    /** What `operation` gives for every store, by name; null where one refuses or does not answer. */
    async function forEveryStore(operation) {
        const entries = await Promise.all(Object.keys(STORES).map(async (name) => {
            const givingUp = new Promise((resolve) => {
                window.setTimeout(resolve, LONGEST_WAIT, null);
            });
            const attempt = Promise.resolve().then(() => operation(STORES[name])).catch(() => null);
            return [name, await Promise.race([attempt, givingUp])];
        }));
        return Object.fromEntries(entries);
    }

    window.SampleLogin = {
        /** Which stores hold a login: { localStorage: true, cookie: false ... }. */
        async stored() {
            const tokens = await forEveryStore((store) => store.read());
            return Object.fromEntries(Object.keys(tokens).map((name) => [name, Boolean(tokens[name])]));
        },
        save: (token) => forEveryStore((store) => store.write(token)),
        forget: () => forEveryStore((store) => store.clear()),
    };
}());

// What is on screen before the account is linked: a loading screen, then a QR code that is renewed.
(function () {
    "use strict";

    const { element } = window.SampleSettings;
    const PIXELS_PER_MODULE = 6;
    const TOKEN_BYTES = 24;

    function showLoading(root, text) {
        root.replaceChildren(element("div", { class: "loading" },
            element("div", { class: "mark", "aria-hidden": "true" }, "B"), element("p", {}, text)));
    }

    function freshToken() {
        const bytes = window.crypto.getRandomValues(new Uint8Array(TOKEN_BYTES));
        return window.btoa(String.fromCharCode(...bytes)).replace(/\+/g, "-").replace(/\//g, "_");
    }

    /** The login page; it lives until stop(). */
    class LoginPage {
        constructor(root, settings, counters, onScan) {
            this.root = root;
            this.settings = settings;
            this.counters = counters;
            this.onScan = onScan;
            this.timers = [];
        }

        show() {
            this.canvas = element("canvas", { "aria-label": "QR code", role: "img" });
            const scan = element("button", { type: "button", id: "scan" }, "Pretend that a phone scans");
            scan.addEventListener("click", () => this.onScan());
            this.root.replaceChildren(element("main", { class: "login" },
                element("section", {},
                    element("h1", {}, "Use WhatsApp on your phone to scan the QR code"),
                    element("p", {}, "This is a sample page for trying and testing. No service is behind it, "
                        + "and no phone is needed: it goes on by itself, or when you press the button."),
                    scan),
                this.canvas));
            this.renewCode();
            if (this.settings.scanDelay !== null) {
                this.timers.push(window.setTimeout(this.onScan, this.settings.scanDelay));
            }
        }

        renewCode() {
            window.clearTimeout(this.renewal);
            this.token = freshToken();
            this.counters.codes += 1;
            const text = "brindle-sample:" + this.counters.codes + "," + this.token;
            window.SampleQR.draw(this.canvas, window.SampleQR.encode(text), PIXELS_PER_MODULE);
            this.renewal = window.setTimeout(() => this.renewCode(), this.settings.codeLifetime);
        }

        stop() {
            this.timers.concat(this.renewal).forEach((timer) => window.clearTimeout(timer));
        }
    }

    window.SampleLoginPage = { LoginPage, showLoading };
}());

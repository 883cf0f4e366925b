// The page's parameters, and how elements are made.
(function () {
    "use strict";

    const DEFAULTS = {
        scan: "6",
        traffic: "demo",
        renew: "20",
        loading: "0.4",
        start: "4",
        pace: "2.5",
        reply: "1.5",
        rendered: "60",
    };

    /** Of the meta tag and of the address; the address wins. */
    function givenParameters() {
        const meta = document.querySelector('meta[name="sample-client"]');
        const given = {};
        for (const source of [meta ? meta.content : "", window.location.search]) {
            new URLSearchParams(source).forEach((value, name) => {
                given[name] = value;
            });
        }
        return given;
    }

    function milliseconds(parameters, name) {
        const seconds = Number(parameters[name]);
        return (parameters[name] !== "" && seconds >= 0 ? seconds : Number(DEFAULTS[name])) * 1000;
    }

    function atLeastOne(parameters, name) {
        return Math.max(Math.floor(Number(parameters[name])) || Number(DEFAULTS[name]), 1);
    }

    function read() {
        const parameters = Object.assign({}, DEFAULTS, givenParameters());
        return {
            /** Until the phone scans the code by itself; null for never. */
            scanDelay: parameters.scan === "never" ? null : milliseconds(parameters, "scan"),
            /** Whether contacts write and answer by themselves. */
            hasTraffic: parameters.traffic !== "none",
            codeLifetime: Math.max(milliseconds(parameters, "renew"), 100),
            loadingTime: milliseconds(parameters, "loading"),
            conversationDelay: milliseconds(parameters, "start"),
            conversationPace: milliseconds(parameters, "pace"),
            replyDelay: milliseconds(parameters, "reply"),
            /** How many messages of a chat are in the document at most. */
            renderedMessages: atLeastOne(parameters, "rendered"),
        };
    }

    /**
     * element('span', { class: 'name', title: 'Ann Lee' }, 'Ann Lee'): attributes that are null are left out,
     * children are nodes or texts. Texts never become markup.
     */
    function element(name, attributes, ...children) {
        const made = document.createElement(name);
        Object.keys(attributes || {}).forEach((key) => {
            if (attributes[key] !== null) {
                made.setAttribute(key, attributes[key]);
            }
        });
        made.append(...children.filter((child) => child !== null));
        return made;
    }

    window.SampleSettings = { read, element };
}());

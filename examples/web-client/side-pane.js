// The list of chats and its search box.
(function () {
    "use strict";

    const { element } = window.SampleSettings;
    const AVATAR_COLOURS = 6;

    function initials(title) {
        return title.split(/\s+/).slice(0, 2).map((word) => Array.from(word)[0] || "").join("");
    }

    function colourOf(chat) {
        const sum = Array.from(chat.title).reduce((total, each) => total + each.codePointAt(0), 0);
        return "colour-" + sum % AVATAR_COLOURS;
    }

    function timeText(time) {
        return new Date(time).toLocaleTimeString([], { hour: "2-digit", minute: "2-digit" });
    }

    function previewText(chat) {
        const last = chat.messages[chat.messages.length - 1];
        if (!last) {
            return "";
        }
        const author = last.isOwn ? "You: " : (chat.isGroup ? last.sender + ": " : "");
        return (author + last.text).slice(0, 120);
    }

    class SidePane {
        constructor(chats, counters, { onOpen, onLogOut }) {
            this.chats = chats;
            this.counters = counters;
            this.onOpen = onOpen;
            this.openChat = null;
            this.box = element("div", {
                id: "search", contenteditable: "true", role: "textbox", "aria-label": "Search",
                "data-placeholder": "Search", spellcheck: "false",
            });
            this.list = element("ul", { id: "pane-side", role: "list", "aria-label": "Chats" });
            this.node = element("div", { id: "side" }, this.head(onLogOut),
                element("div", { class: "search" }, this.box), this.list);
            this.listen();
            this.render();
        }

        head(onLogOut) {
            const button = element("button", { type: "button", id: "log-out" }, "Log out");
            button.addEventListener("click", () => onLogOut());
            return element("div", { class: "side-head" }, element("strong", {}, "Chats"), button);
        }

        listen() {
            this.box.addEventListener("input", () => this.search());
            this.box.addEventListener("keydown", (event) => this.searchKey(event));
            this.list.addEventListener("click", (event) => this.choose(event.target));
            this.list.addEventListener("keydown", (event) => {
                if (event.key === "Enter") {
                    this.choose(event.target);
                }
            });
        }

        search() {
            this.counters.searches += 1;
            if (this.searchText() === "") {
                // A line break that an editor leaves behind would hide the placeholder.
                this.box.replaceChildren();
            }
            this.render();
        }

        searchText() {
            return this.box.textContent.trim();
        }

        searchKey(event) {
            if (event.key === "Escape") {
                this.box.replaceChildren();
                this.search();
            } else if (event.key === "Enter") {
                event.preventDefault();
                this.choose(this.list.firstElementChild);
            }
        }

        choose(target) {
            const row = target ? target.closest('[role="listitem"]') : null;
            if (row) {
                this.counters.rowClicks += 1;
                this.onOpen(this.chats.find(row.dataset.chat));
            }
        }

        render() {
            this.list.replaceChildren(...this.chats.listed(this.searchText()).map((chat) => this.row(chat)));
        }

        /** Only spans inside: whoever looks a chat up by its title should find the row, not a part. */
        row(chat) {
            const last = chat.messages[chat.messages.length - 1];
            return element("li", {
                role: "listitem", tabindex: "0", "data-chat": chat.id,
                "aria-current": chat === this.openChat ? "true" : null,
            },
            element("span", { class: "avatar " + colourOf(chat), "aria-hidden": "true" },
                initials(chat.title)),
            element("span", { class: "chat-title", title: chat.title, dir: "auto" }, chat.title),
            element("span", { class: "chat-time" }, last ? timeText(last.time) : ""),
            element("span", { class: "chat-preview" }, previewText(chat)),
            chat.unread ? element("span", { class: "chat-unread" }, String(chat.unread)) : null);
        }

        rowOf(chat) {
            return Array.from(this.list.children).find((row) => row.dataset.chat === chat.id) || null;
        }

        /** Marks the open chat. The rows stay where they are: whoever clicks one may click it twice. */
        markOpen(chat) {
            const before = this.openChat;
            this.openChat = chat;
            [before, chat].forEach((each) => each && this.refresh(each));
        }

        refresh(chat) {
            const row = this.rowOf(chat);
            if (!row) {
                return;
            }
            const fresh = this.row(chat);
            row.replaceChildren(...fresh.childNodes);
            row.toggleAttribute("aria-current", chat === this.openChat);
        }

        /** A message came: its chat moves to the top, or appears when the list should show it. */
        messageAdded(chat) {
            const row = this.rowOf(chat);
            if (!row) {
                this.render();
                return;
            }
            this.refresh(chat);
            if (this.list.firstElementChild !== row) {
                this.list.prepend(row);
            }
        }
    }

    window.SampleSidePane = { SidePane, timeText };
}());

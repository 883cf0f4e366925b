// The open chat: header, messages, composer. Only a part of the messages is in the document at any time.
(function () {
    "use strict";

    const { element } = window.SampleSettings;
    const { timeText } = window.SampleSidePane;
    const LONG_TEXT_CHARACTERS = 700;
    const EARLIER_MESSAGES = 20;
    const NEAR_EDGE_PIXELS = 80;

    /** The stamp before a message when it is copied: "[09:30, 21/11/2026] Ann Lee: ". */
    function copyStamp(message) {
        const date = new Date(message.time).toLocaleDateString("en-GB");
        const author = message.isOwn ? "You" : message.sender;
        return "[" + timeText(message.time) + ", " + date + "] " + author + ": ";
    }

    function quoteNode(quote) {
        return element("blockquote", { class: "quote" },
            element("cite", {}, quote.author), element("span", { class: "quoted-text" }, quote.text));
    }

    function textNode(message) {
        const text = element("span", { class: "selectable-text copyable-text", dir: "ltr" }, message.text);
        const body = element("div", { class: "copyable-text", "data-pre-plain-text": copyStamp(message) },
            message.quote ? quoteNode(message.quote) : null, text);
        if (message.text.length > LONG_TEXT_CHARACTERS) {
            text.classList.add("folded");
            const more = element("button", { type: "button", class: "read-more" }, "Read more");
            more.addEventListener("click", () => {
                text.classList.remove("folded");
                more.remove();
            });
            body.append(more);
        }
        return body;
    }

    function messageNode(chat, message) {
        const sender = chat.isGroup && !message.isOwn
            ? element("span", { class: "sender", dir: "auto" }, message.sender) : null;
        return element("div", {
            class: "message " + (message.isOwn ? "message-out" : "message-in"), "data-id": message.id,
        }, sender, textNode(message), element("span", { class: "meta" },
            timeText(message.time) + (message.isOwn ? " ✓✓" : "")));
    }

    class Conversation {
        constructor(chat, settings, onSend) {
            this.chat = chat;
            this.limit = settings.renderedMessages;
            this.onSend = onSend;
            this.list = element("div", { class: "messages", role: "log", tabindex: "-1" });
            this.node = element("div", { id: "main" }, this.header(), this.list, this.composer());
            this.end = chat.messages.length;
            this.begin = Math.max(this.end - this.limit, 0);
            this.list.append(...chat.messages.slice(this.begin).map((each) => messageNode(chat, each)));
            this.list.addEventListener("scroll", () => this.scrolled(), { passive: true });
        }

        header() {
            const { title } = this.chat;
            return element("header", {},
                element("span", { class: "chat-title", title, dir: "auto" }, title),
                element("span", { class: "members" }, this.chat.members.concat("you").join(", ")));
        }

        composer() {
            const box = element("textarea", { id: "compose", rows: "1", placeholder: "Type a message" });
            const send = () => {
                if (box.value.trim() !== "") {
                    this.onSend(box.value);
                    box.value = "";
                }
            };
            box.addEventListener("keydown", (event) => {
                if (event.key === "Enter" && !event.shiftKey) {
                    event.preventDefault();
                    send();
                }
            });
            const button = element("button", { type: "button", id: "send" }, "Send");
            button.addEventListener("click", send);
            return element("footer", {}, box, button);
        }

        isAtBottom() {
            return this.list.scrollHeight - this.list.scrollTop - this.list.clientHeight < NEAR_EDGE_PIXELS;
        }

        scrollToBottom() {
            this.list.scrollTop = this.list.scrollHeight;
        }

        /** A message was added to the chat. Someone who reads further up is not disturbed by others. */
        messageAdded(message) {
            const showedLatest = this.end === this.chat.messages.length - 1 && this.isAtBottom();
            if (message.isOwn || showedLatest) {
                this.showLatest();
            }
        }

        showLatest() {
            const all = this.chat.messages;
            if (this.end < all.length - this.limit) {
                this.list.replaceChildren();
                this.begin = this.end = all.length - this.limit;
            }
            this.append(all.length - this.end);
            this.scrollToBottom();
        }

        /** `count` later messages at the end; the earliest leave. */
        append(count) {
            const later = this.chat.messages.slice(this.end, this.end + count);
            this.list.append(...later.map((each) => messageNode(this.chat, each)));
            this.end += later.length;
            while (this.end - this.begin > this.limit) {
                this.list.firstElementChild.remove();
                this.begin += 1;
            }
        }

        /** `count` earlier messages at the beginning; the latest leave. */
        prepend(count) {
            const from = Math.max(this.begin - count, 0);
            const height = this.list.scrollHeight;
            const earlier = this.chat.messages.slice(from, this.begin);
            this.list.prepend(...earlier.map((each) => messageNode(this.chat, each)));
            this.begin = from;
            this.list.scrollTop += this.list.scrollHeight - height;
            while (this.end - this.begin > this.limit) {
                this.list.lastElementChild.remove();
                this.end -= 1;
            }
        }

        scrolled() {
            if (this.list.scrollTop < NEAR_EDGE_PIXELS && this.begin > 0) {
                this.prepend(Math.min(EARLIER_MESSAGES, this.limit));
            } else if (this.isAtBottom() && this.end < this.chat.messages.length) {
                this.append(Math.min(EARLIER_MESSAGES, this.limit));
            }
        }
    }

    window.SampleConversation = { Conversation };
}());

// Puts the page together and offers it to scripts as window.sampleWebClient.
(function () {
    "use strict";

    const { element } = window.SampleSettings;
    const { LoginPage, showLoading } = window.SampleLoginPage;
    const TITLE = "Brindle sample client";

    class App {
        constructor() {
            this.settings = window.SampleSettings.read();
            this.counters = {
                codes: 0, scans: 0, rowClicks: 0, searches: 0, chatsOpened: 0, received: 0, sent: 0,
            };
            this.root = document.getElementById("app");
            this.chats = new window.SampleChats.Chats();
            this.chats.onChange = (chat, message) => this.messageAdded(chat, message);
            this.phase = "loading";
            this.storedLogin = null;
        }

        async start() {
            showLoading(this.root, "Starting…");
            const shown = new Promise((resolve) => {
                window.setTimeout(resolve, this.settings.loadingTime);
            });
            this.storedLogin = await window.SampleLogin.stored();
            await shown;
            if (Object.values(this.storedLogin).some(Boolean)) {
                this.showChats();
            } else {
                this.showLogin();
            }
        }

        showLogin() {
            this.phase = "login";
            this.loginPage = new LoginPage(this.root, this.settings, this.counters, () => this.scan());
            this.loginPage.show();
        }

        /** The phone scans the code: what follows takes a moment, as everywhere. */
        scan() {
            if (this.phase !== "login") {
                return false;
            }
            this.phase = "linking";
            this.counters.scans += 1;
            this.loginPage.stop();
            showLoading(this.root, "Fetching your chats…");
            window.SampleLogin.save(this.loginPage.token).then(() => this.showChats());
            return true;
        }

        showChats() {
            this.phase = "chats";
            this.sidePane = new window.SampleSidePane.SidePane(this.chats, this.counters, {
                onOpen: (chat) => this.open(chat), onLogOut: () => this.logOut(),
            });
            this.root.replaceChildren(element("div", { class: "client" }, this.sidePane.node,
                element("div", { id: "main", class: "empty" }, element("p", {}, "Choose a chat to begin."))));
            this.showUnread();
        }

        /** Nothing of the chats stays on screen. */
        async logOut() {
            if (this.phase !== "chats") {
                return false;
            }
            this.phase = "leaving";
            this.conversation = null;
            this.sidePane = null;
            document.title = TITLE;
            showLoading(this.root, "Logging out…");
            await window.SampleLogin.forget();
            this.showLogin();
            return true;
        }

        open(chat) {
            if (!chat || this.phase !== "chats") {
                return false;
            }
            if (this.conversation && this.conversation.chat === chat) {
                return true;
            }
            chat.unread = 0;
            this.counters.chatsOpened += 1;
            this.conversation = new window.SampleConversation.Conversation(chat, this.settings,
                (text) => this.chats.send(chat.id, text));
            document.getElementById("main").replaceWith(this.conversation.node);
            this.conversation.scrollToBottom();
            this.sidePane.markOpen(chat);
            this.showUnread();
            this.beginConversation(chat);
            return true;
        }

        beginConversation(chat) {
            if (!this.settings.hasTraffic || this.hasConversed) {
                return;
            }
            this.hasConversed = true;
            const goOn = (step) => {
                if (this.chats.converse(chat, step)) {
                    window.setTimeout(goOn, this.settings.conversationPace, step + 1);
                }
            };
            window.setTimeout(goOn, this.settings.conversationDelay, 0);
        }

        messageAdded(chat, message) {
            this.counters[message.isOwn ? "sent" : "received"] += 1;
            const isOpen = Boolean(this.conversation) && this.conversation.chat === chat;
            if (!message.isOwn && !isOpen) {
                chat.unread += 1;
            }
            if (message.isOwn && this.settings.hasTraffic) {
                window.setTimeout(() => this.chats.answer(chat, message), this.settings.replyDelay);
            }
            if (this.phase === "chats") {
                this.sidePane.messageAdded(chat);
                this.showUnread();
            }
            if (isOpen) {
                this.conversation.messageAdded(message);
            }
        }

        showUnread() {
            const count = this.chats.all.filter((chat) => chat.unread > 0).length;
            document.title = (count > 0 ? "(" + count + ") " : "") + TITLE;
        }

        state() {
            const open = this.conversation;
            return {
                phase: this.phase,
                storedLogin: this.storedLogin,
                openChat: open ? open.chat.title : null,
                renderedMessages: open ? open.end - open.begin : 0,
                counters: Object.assign({}, this.counters),
            };
        }
    }

    const app = new App();

    /** For tests and for people at the developer console; README.md describes it. */
    window.sampleWebClient = Object.freeze({
        receive: (message) => app.chats.receive(message).id,
        send: (chat, text) => {
            const message = app.chats.send(chat, text);
            return message ? message.id : null;
        },
        scan: () => app.scan(),
        logOut: () => {
            app.logOut();
        },
        renewCode: () => {
            if (app.phase !== "login") {
                return false;
            }
            app.loginPage.renewCode();
            return true;
        },
        openChat: (title) => app.open(app.chats.find(title)),
        state: () => app.state(),
    });

    app.start();
}());

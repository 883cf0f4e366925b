// The chats and what is written in them; nothing here knows how they look.
(function () {
    "use strict";

    const MINUTE = 60 * 1000;
    const LONG_TEXT_PARAGRAPHS = 60;
    const LOG_ENTRIES = 400;

    const BO_LIST = "Bread, oat milk, the good tomatoes 🍅, and whatever looks nice for the picnic.";

    /** A message of a chat's past: [sender or null for our own, text, what it quotes]. */
    const HISTORY = {
        "Team Room": [
            ["Cleo Park", "The new banners came today 🎉"],
            ["Bo Nilsson", "All of them? Even the long one?"],
            ["Cleo Park", "Even the long one.", { author: "Bo Nilsson", text: "Even the long one?" }],
            [null, "Great. I can be at the gate at nine."],
            ["Ann Lee", "See you there 👋🏽"],
        ],
        Family: [
            ["Mum", "Dinner on Sunday?"],
            ["Noah", "Yes! 🥧"],
            [null, "I bring the salad."],
        ],
        "Ann Lee": [
            ["Ann Lee", "Did you get the tickets?"],
            [null, "Two, row 7."],
            ["Ann Lee", "Perfect ❤️", { author: "You", text: "Two, row 7." }],
        ],
        "Bo Nilsson": [
            ["Bo Nilsson", BO_LIST],
            [null, "On it.", { author: "Bo Nilsson", text: BO_LIST }],
        ],
        "Carla Souza": [
            ["Carla Souza", "Here is the whole chapter, tell me what you think:"],
            ["Carla Souza", longText()],
            [null, "I will need a coffee for this ☕️"],
        ],
        "Zoë & Jürgen": [
            ["Zoë & Jürgen", "Grüße aus Ærø 🇩🇰 – שלום, 今日は"],
        ],
        'Say "hi" \\ <b>bye</b>': [
            ["Dee", "Who renamed the group?\nNot me."],
        ],
        "Ship Log": Array.from({ length: LOG_ENTRIES }, (_, i) => [
            i % 3 === 2 ? null : "Harbour Office", "Entry " + (i + 1) + ": wind " + i * 7 % 12,
        ]),
        "Old Choir": [
            ["Ida", "Does anybody still have the scores?"],
        ],
    };

    /** Chats that are found by search only. */
    const ARCHIVED = ["Old Choir"];
    const MEMBERS = {
        "Team Room": ["Ann Lee", "Bo Nilsson", "Cleo Park"],
        Family: ["Mum", "Noah"],
        'Say "hi" \\ <b>bye</b>': ["Dee", "Eli"],
        "Old Choir": ["Ida", "Joan"],
    };

    /** What arrives by itself in the chat that is opened first: [member, text, quotes the one before]. */
    const CONVERSATION = [
        [1, "Good morning! The van is loaded 🚐", false],
        [0, "I am at the gate already, it is still closed.", true],
        [2, "Leaving now. Ten minutes!", false],
    ];

    const REPLIES = ["Sounds good 👍", "Thanks, noted.", "I was about to write the same!", "Let us do that."];

    function longText() {
        const paragraph = "The ferry left a little after six, and for a while nobody said a word; "
            + "the water was flat and grey, and the town behind shrank until it was only a line of lamps. ";
        const paragraphs = Array.from({ length: LONG_TEXT_PARAGRAPHS },
            (_, i) => (i + 1) + ". " + paragraph.repeat(2));
        return paragraphs.join("\n");
    }

    function identifierOf(title) {
        return title.toLowerCase().replace(/[^a-z0-9]+/g, "-").replace(/^-|-$/g, "") || "chat";
    }

    /** All chats of the account. Calls onChange(chat, message) for every message that is added. */
    class Chats {
        constructor() {
            this.onChange = () => {};
            this.lastNumber = 0;
            this.nextReply = 0;
            this.all = Object.keys(HISTORY).map((title) => this.make(title, MEMBERS[title] || []));
            this.all.forEach((chat) => this.fill(chat, HISTORY[chat.title]));
        }

        make(title, members) {
            const id = identifierOf(title);
            const sameCount = (this.all || []).filter((chat) => chat.id.startsWith(id)).length;
            return {
                id: sameCount > 0 ? id + "--" + sameCount : id,
                title,
                members,
                isGroup: members.length > 0,
                isArchived: ARCHIVED.includes(title),
                messages: [],
                unread: 0,
            };
        }

        fill(chat, history) {
            const begin = Date.now() - (history.length + 30) * MINUTE;
            history.forEach(([sender, text, quote], i) => {
                chat.messages.push(this.message(sender, text, { quote, time: begin + i * MINUTE }));
            });
        }

        message(sender, text, { id, quote, time }) {
            this.lastNumber += 1;
            return {
                id: id || "message-" + this.lastNumber,
                sender,
                isOwn: sender === null,
                text,
                quote: quote || null,
                time: time || Date.now(),
            };
        }

        /** By identifier or title. */
        find(name) {
            return this.all.find((chat) => chat.id === name || chat.title === name) || null;
        }

        /** The chats that the list shows, the latest first; only a search finds the archived ones. */
        listed(text) {
            const wanted = text.trim().toLowerCase();
            return this.all
                .filter((chat) => (wanted ? chat.title.toLowerCase().includes(wanted) : !chat.isArchived))
                .sort((a, b) => lastTime(b) - lastTime(a));
        }

        /** An inbound message; a chat that does not exist yet begins with it. */
        receive({ chat: name, sender, text, id, quote }) {
            let chat = this.find(name);
            if (!chat) {
                chat = this.make(String(name), sender && sender !== name ? [sender] : []);
                this.all.push(chat);
            }
            const author = sender || chat.members[0] || chat.title;
            return this.add(chat, this.message(author, String(text), { id, quote }));
        }

        /** A message of the account's own; null when there is no such chat. */
        send(name, text, quote) {
            const chat = this.find(name);
            return chat ? this.add(chat, this.message(null, String(text), { quote })) : null;
        }

        add(chat, message) {
            chat.messages.push(message);
            this.onChange(chat, message);
            return message;
        }

        /** A contact's answer to a message of the account's own. */
        answer(chat, message) {
            const text = REPLIES[this.nextReply % REPLIES.length];
            this.nextReply += 1;
            return this.receive({ chat: chat.id, text, quote: { author: "You", text: message.text } });
        }

        /** The next message of the small conversation in a chat; false when it is over. */
        converse(chat, step) {
            if (step >= CONVERSATION.length) {
                return false;
            }
            const [member, text, quotes] = CONVERSATION[step];
            const before = chat.messages[chat.messages.length - 1];
            const quote = quotes && before ? { author: before.sender || "You", text: before.text } : null;
            this.receive({ chat: chat.id, sender: chat.members[member % chat.members.length], text, quote });
            return true;
        }
    }

    function lastTime(chat) {
        return chat.messages.length ? chat.messages[chat.messages.length - 1].time : 0;
    }

    window.SampleChats = { Chats };
}());

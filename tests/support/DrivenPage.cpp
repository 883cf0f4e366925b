#include "support/DrivenPage.h"

#include <algorithm>
#include <utility>

#include "support/Json.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

// It keeps what it needs of the page's globals, because tests tamper with those. An order is the number of a
// script and its text. The same number again means that the result has been lost on its way; a document that
// replaces the one that was given the order has yet to run it.
constexpr const char* driver = R"html(<!doctype html><meta charset="utf-8"><title>Client</title><body>
<script>
(() => {
    const load = window.fetch.bind(window);
    const evaluate = window.eval;
    const later = window.setTimeout.bind(window);
    const encode = window.encodeURIComponent;
    const text = String;
    let last = 0;
    let result = "";
    const run = (script) => {
        try {
            return "ok " + text(evaluate(script));
        } catch (error) {
            return "failed " + text(error);
        }
    };
    const obey = async () => {
        try {
            const order = evaluate(await (await load("/next", { cache: "no-store" })).text());
            if (order) {
                if (order[0] !== last) {
                    last = order[0];
                    result = run(order[1]);
                }
                await load("/result?" + last + "&" + encode(result));
            }
        } catch { /* The server is busy or the page is being left. */ }
        later(obey, 20);
    };
    obey();
})();
</script>
<script>
const client = { clicks: [], searches: [], histories: {}, hidden: [], current: null };
client.element = (parent, tag, attributes, text) => {
    const element = document.createElement(tag);
    for (const name of Object.keys(attributes)) { element.setAttribute(name, attributes[name]); }
    if (text !== undefined) { element.textContent = text; }
    parent.append(element);
    return element;
};
client.clear = () => { document.body.replaceChildren(); };
client.login = (seed = 1) => {
    client.clear();
    client.element(document.body, "p", {}, "Use WhatsApp on your phone to scan the QR code");
    client.element(document.body, "canvas", { id: "qr", width: 64, height: 64 });
    client.draw(seed);
};
client.draw = (seed) => {
    const context = document.querySelector("canvas").getContext("2d");
    for (let cell = 0; cell < 64; ++cell) {
        context.fillStyle = (cell * 7 + seed * 13) % 5 < 2 ? "black" : "white";
        context.fillRect((cell % 8) * 8, Math.floor(cell / 8) * 8, 8, 8);
    }
};
client.chats = (titles) => {
    client.clear();
    const side = client.element(document.body, "div", { id: "side" });
    const search = client.element(side, "input", { type: "text" });
    search.addEventListener("input", () => {
        client.searches.push(search.value);
        client.hidden.filter((title) => title.includes(search.value)).forEach(client.row);
    });
    client.element(side, "div", { id: "pane-side" });
    client.element(document.body, "div", { id: "main" });
    titles.forEach(client.row);
};
client.row = (title) => {
    const row = client.element(document.getElementById("pane-side"), "div", { role: "listitem" });
    client.element(row, "span", { title }, title);
    row.addEventListener("click", () => { client.clicks.push(title); client.open(title); });
};
client.hide = (title) => { client.hidden.push(title); };
client.open = (title) => {
    client.current = title;
    const main = document.getElementById("main");
    main.replaceChildren();
    client.element(client.element(main, "header", {}), "span", { title }, title);
    client.element(main, "div", { id: "messages" });
    (client.histories[title] || []).forEach(client.show);
};
client.show = ({ id, sender, text }) => {
    const attributes = { class: "message-in" };
    if (id !== undefined) { attributes["data-id"] = id; }
    const message = client.element(document.getElementById("messages"), "div", attributes);
    if (sender !== undefined) { client.element(message, "span", { dir: "auto", title: sender }, sender); }
    client.element(message, "span", { class: "selectable-text" }, text);
};
client.receive = (title, message) => {
    (client.histories[title] ||= []).push(message);
    if (client.current === title) { client.show(message); }
};
</script>
)html";

std::string percentDecoded(const std::string& text) {
    std::string decoded;
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (text[index] != '%') {
            decoded += text[index];
            continue;
        }
        decoded += static_cast<char>(std::stoi(text.substr(index + 1, 2), nullptr, 16));
        index += 2;
    }
    return decoded;
}

}  // namespace

DrivenPage::DrivenPage(std::string atLoad, Handler other)
    : atLoad_(std::move(atLoad)), other_(std::move(other)) {
    server_ = std::make_unique<LoopbackServer>(
        [this](const LoopbackServer::Request& request) { return answer(request); });
}

LoopbackServer::Response DrivenPage::answer(const LoopbackServer::Request& request) {
    constexpr std::string_view result_path = "/result?";
    const std::lock_guard lock(mutex_);
    if (request.path == "/") return {.body = driver + ("<script>" + atLoad_ + "</script>")};
    if (request.path == "/next") return {.body = nextOrder(), .type = "text/plain"};
    if (request.path.starts_with(result_path)) {
        takeResult(request.path.substr(result_path.size()));
        return {};
    }
    if (other_) return other_(request);
    return {.status = "404 Not Found"};
}

std::string DrivenPage::nextOrder() {
    if (!order_) return {};
    const auto text = "[" + std::to_string(order_->number) + ", " + scriptString(order_->script) + "]";
    if (!order_->wantsResult) order_.reset();
    return text;
}

void DrivenPage::takeResult(const std::string& answer) {
    const auto end = answer.find('&');
    // Others are those of posted scripts, or have been sent twice.
    if (!order_ || end == std::string::npos || answer.substr(0, end) != std::to_string(order_->number))
        return;
    result_ = percentDecoded(answer.substr(end + 1));
    order_.reset();
}

void DrivenPage::give(const std::string& script, bool wantsResult) {
    const std::lock_guard lock(mutex_);
    order_ = {.number = ++lastNumber_, .script = script, .wantsResult = wantsResult};
    result_.reset();
}

std::size_t DrivenPage::loads() const {
    const auto requests = server_->requests();
    return static_cast<std::size_t>(std::count_if(requests.begin(), requests.end(),
                                                  [](const auto& request) { return request.path == "/"; }));
}

void DrivenPage::post(const std::string& script) {
    give(script, false);
    waitUntil(
        [&] {
            const std::lock_guard lock(mutex_);
            return !order_;
        },
        "the page to take " + script);
}

std::string DrivenPage::run(const std::string& script) {
    constexpr std::string_view success = "ok ";
    give(script, true);
    std::string result;
    waitUntil(
        [&] {
            const std::lock_guard lock(mutex_);
            if (!result_) return false;
            result = *result_;
            return true;
        },
        "the page to run " + script.substr(0, 200));
    if (!result.starts_with(success))
        throw TestFailure("in the page: " + result + "\n" + script.substr(0, 500));
    return result.substr(success.size());
}

std::string scriptString(const std::string& text) {
    return Json(text).dump();
}

}  // namespace brindle::test

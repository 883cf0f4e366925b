#include "support/StoredLogin.h"

namespace brindle::test {

LoopbackServer::Response answerWithLogin(const LoopbackServer::Request& request,
                                         const LoopbackServer::Response& page) {
    if (request.path == "/cookie") {
        return {.body = "set", .headers = "Set-Cookie: login=linked; Max-Age=86400; HttpOnly\r\n"};
    }
    if (request.path == "/cached") return {.body = "cached", .headers = "Cache-Control: max-age=86400\r\n"};
    return page;
}

bool lastVisitSentCookie(const LoopbackServer& server) {
    bool sent = false;
    for (const auto& request : server.requests()) {
        if (request.path == "/") sent = request.headers.find("login=linked") != std::string::npos;
    }
    return sent;
}

const std::string login_functions = R"js(
window.storeALogin = () => {
    window.stored = 0;
    const done = () => { window.stored += 1; };
    localStorage.setItem("login", "linked");
    const request = indexedDB.open("login", 1);
    request.onupgradeneeded = () => { request.result.createObjectStore("keys").put("linked", "login"); };
    request.onsuccess = () => { request.result.close(); done(); };
    fetch("/cookie").then(done);
    fetch("/cached").then(done);
    caches.open("login").then((cache) => cache.put("/entry", new Response("linked"))).then(done);
};
window.listWhatIsStored = () => Promise.all([indexedDB.databases(), caches.keys()]).then(([databases, keys]) => {
    window.listed = "local:" + localStorage.length + " databases:" + databases.length + " caches:" + keys.length;
});
)js";

}  // namespace brindle::test

#pragma once

#include <string>

#include "support/LoopbackServer.h"

namespace brindle::test {

// A login as a web client stores it: something of every kind that a page can store.

/// Answers the requests that storing takes; any other with `page`.
LoopbackServer::Response answerWithLogin(const LoopbackServer::Request& request,
                                         const LoopbackServer::Response& page);
/// Whether the last request for the page itself sent the cookie of the login.
bool lastVisitSentCookie(const LoopbackServer& server);

/// Statements that define storeALogin() and listWhatIsStored(). The one counts `window.stored` up to
/// `login_parts`, the other sets `window.listed` to all_of_a_login or nothing_of_a_login.
extern const std::string login_functions;
constexpr int login_parts = 4;
constexpr const char* all_of_a_login = "local:1 databases:1 caches:1";
constexpr const char* nothing_of_a_login = "local:0 databases:0 caches:0";

}  // namespace brindle::test

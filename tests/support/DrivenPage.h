#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "support/LoopbackServer.h"

namespace brindle::test {

/// A page on a loopback server that the test changes while a worker has it open: a small messaging web
/// client.
///
/// Its script gives the test an object `client`:
///   client.login()                     the login page with a picture on a canvas; client.draw(seed) renews
///   it client.chats([title, ...])         the linked page with these chats in its list, none of them open
///   client.hide(title)                 a chat that is only found by the search box
///   client.open(title)                 opens a chat, as a click on its row does
///   client.receive(title, {id, sender, text})   an inbound message, shown when its chat is open
///   client.clicks, client.searches     what was clicked and typed so far
class DrivenPage {
  public:
    using Handler = LoopbackServer::Handler;

    /// `atLoad` is a script that runs whenever the page is loaded; `other` answers every path but the page's
    /// own.
    explicit DrivenPage(std::string atLoad, Handler other = nullptr);

    std::string url() const { return server_->url(); }
    const LoopbackServer& server() const { return *server_; }
    /// How often the page was loaded so far.
    std::size_t loads() const;

    /// Runs a script in the page and gives its result as text; fails the test when the script throws. A
    /// document that goes before it has answered leaves the script to the next one.
    std::string run(const std::string& script);
    /// Runs a script after which the page cannot answer; returns once the page has taken it.
    void post(const std::string& script);

  private:
    /// A script that the page is to run.
    struct Order {
        int number = 0;
        std::string script;
        /// It stays until its result has come, and not only until it is taken.
        bool wantsResult = false;
    };

    LoopbackServer::Response answer(const LoopbackServer::Request& request);
    void give(const std::string& script, bool wantsResult);
    std::string nextOrder();
    void takeResult(const std::string& answer);

    std::string atLoad_;
    Handler other_;
    std::mutex mutex_;
    int lastNumber_ = 0;
    std::optional<Order> order_;
    std::optional<std::string> result_;
    /// Last, so that it stops answering before anything else goes.
    std::unique_ptr<LoopbackServer> server_;
};

/// A script text that stands for `text` as a string in JavaScript.
std::string scriptString(const std::string& text);

}  // namespace brindle::test

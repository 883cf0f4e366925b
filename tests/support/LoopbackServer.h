#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace brindle::test {

/// A web server on 127.0.0.1 for pages that must have a real origin. However long a client takes over its
/// request, it holds nobody else up; the handler is called for one request at a time.
class LoopbackServer {
  public:
    struct Request {
        std::string path;
        std::string headers{};
    };
    struct Response {
        std::string body{};
        std::string type = "text/html; charset=utf-8";
        std::string status = "200 OK";
        /// Further header lines, each ended by "\r\n".
        std::string headers{};
        /// Never answer, and keep the connection open.
        bool hangs = false;
        /// Close the connection without an answer, as a network that goes away does.
        bool breaksOff = false;
    };
    using Handler = std::function<Response(const Request&)>;

    explicit LoopbackServer(Handler handler);
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    /// "http://127.0.0.1:PORT" + path.
    std::string url(const std::string& path = "/") const;
    /// The same server under another host name, which is another site.
    std::string otherSiteUrl(const std::string& path = "/") const;
    /// Every request so far.
    std::vector<Request> requests() const;

  private:
    /// A client's connection and the thread that serves it.
    struct Connection {
        int socket;  ///< -1 once it is closed.
        std::jthread thread{};
    };

    void serve();
    void forgetClosed();
    /// Serves a client until it or the server goes.
    void converse(int socket);
    Response responseTo(const Request& request);

    Handler handler_;
    int listener_ = -1;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    /// Only the accepting thread adds and removes; the sockets belong to the lock.
    std::list<Connection> connections_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace brindle::test

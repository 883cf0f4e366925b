#include "support/LoopbackServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "support/Waiting.h"

namespace brindle::test {
namespace {

/// The head of a request; empty when the client goes without one, as engines do that open connections on
/// suspicion.
std::string requestFrom(int socket) {
    std::string text;
    std::array<char, 4096> buffer{};
    while (text.find("\r\n\r\n") == std::string::npos) {
        const auto length = ::read(socket, buffer.data(), buffer.size());
        if (length <= 0) return {};
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
    return text;
}

void waitForEnd(int socket) {
    std::array<char, 4096> buffer{};
    while (::read(socket, buffer.data(), buffer.size()) > 0) {
    }
}

void send(int socket, const LoopbackServer::Response& response) {
    const std::string reply = "HTTP/1.1 " + response.status + "\r\nContent-Type: " + response.type +
                              "\r\nContent-Length: " + std::to_string(response.body.size()) +
                              "\r\nConnection: close\r\n" + response.headers + "\r\n" + response.body;
    for (std::size_t sent = 0; sent < reply.size();) {
        const auto length = ::send(socket, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
        if (length <= 0) break;
        sent += static_cast<std::size_t>(length);
    }
}

}  // namespace

LoopbackServer::LoopbackServer(Handler handler) : handler_(std::move(handler)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener_, generic, length) != 0 || ::listen(listener_, SOMAXCONN) != 0 ||
        ::getsockname(listener_, generic, &length) != 0) {
        throw TestFailure("cannot listen on the loopback interface");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

LoopbackServer::~LoopbackServer() {
    stopping_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
    {
        const std::lock_guard lock(mutex_);
        for (const auto& connection : connections_) {
            if (connection.socket >= 0) ::shutdown(connection.socket, SHUT_RDWR);
        }
    }
    connections_.clear();
}

std::string LoopbackServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::string LoopbackServer::otherSiteUrl(const std::string& path) const {
    return "http://localhost:" + std::to_string(port_) + path;
}

std::vector<LoopbackServer::Request> LoopbackServer::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void LoopbackServer::serve() {
    while (!stopping_) {
        const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) continue;
        forgetClosed();
        const std::lock_guard lock(mutex_);
        auto& connection = connections_.emplace_back(Connection{.socket = socket});
        connection.thread = std::jthread([this, socket, &connection] {
            converse(socket);
            const std::lock_guard hold(mutex_);
            ::close(std::exchange(connection.socket, -1));
        });
    }
}

void LoopbackServer::forgetClosed() {
    const std::lock_guard lock(mutex_);
    connections_.remove_if([](const Connection& connection) { return connection.socket < 0; });
}

void LoopbackServer::converse(int socket) {
    const auto text = requestFrom(socket);
    if (text.empty()) return;
    const auto start = text.find(' ') + 1;
    const auto response =
        responseTo({.path = text.substr(start, text.find(' ', start) - start), .headers = text});
    if (response.breaksOff) return;
    if (response.hangs) {
        waitForEnd(socket);
    } else {
        send(socket, response);
    }
}

LoopbackServer::Response LoopbackServer::responseTo(const Request& request) {
    const std::lock_guard lock(mutex_);
    const auto response = handler_(request);
    requests_.push_back(request);
    return response;
}

}  // namespace brindle::test

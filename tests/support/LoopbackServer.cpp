#include "support/LoopbackServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "support/BackendProcess.h"

namespace brindle::test {

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
    for (const int connection : hanging_) ::close(connection);
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
        const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0) answer(connection);
    }
}

void LoopbackServer::answer(int connection) {
    // Engines open connections on suspicion; one without a request must not keep the others waiting.
    const timeval patience{.tv_sec = 2, .tv_usec = 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::string text;
    std::array<char, 4096> buffer{};
    while (text.find("\r\n\r\n") == std::string::npos) {
        const auto length = ::read(connection, buffer.data(), buffer.size());
        if (length <= 0) {
            ::close(connection);
            return;
        }
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
    const auto start = text.find(' ') + 1;
    const Request request{.path = text.substr(start, text.find(' ', start) - start), .headers = text};
    const Response response = handler_(request);
    const std::lock_guard lock(mutex_);
    requests_.push_back(request);
    if (response.hangs) {
        hanging_.push_back(connection);
        return;
    }
    if (response.breaksOff) {
        ::close(connection);
        return;
    }
    const std::string reply = "HTTP/1.1 " + response.status + "\r\nContent-Type: " + response.type +
                              "\r\nContent-Length: " + std::to_string(response.body.size()) +
                              "\r\nConnection: close\r\n" + response.headers + "\r\n" + response.body;
    for (std::size_t sent = 0; sent < reply.size();) {
        const auto length = ::send(connection, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
        if (length <= 0) break;
        sent += static_cast<std::size_t>(length);
    }
    ::close(connection);
}

}  // namespace brindle::test

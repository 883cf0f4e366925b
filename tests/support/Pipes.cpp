#include "support/Pipes.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <stdexcept>

namespace brindle::test {
namespace {

constexpr std::size_t read_chunk_bytes = 64 * 1024;

PipeEnds pipeWith(int flags) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC | flags) != 0) throw std::runtime_error("Cannot make a pipe.");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

PipeEnds connectionOf(int type) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::runtime_error("Cannot make a connection.");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

}  // namespace

PipeEnds makePipe() {
    return pipeWith(0);
}

PipeEnds makeNonBlockingPipe() {
    return pipeWith(O_NONBLOCK);
}

PipeEnds makeStreamConnection() {
    return connectionOf(SOCK_STREAM);
}

PipeEnds makePieceByPieceConnection() {
    return connectionOf(SOCK_SEQPACKET);
}

std::string readSome(const Descriptor& end) {
    std::string bytes(read_chunk_bytes, '\0');
    for (;;) {
        const auto got = ::read(end.get(), bytes.data(), bytes.size());
        if (got < 0 && errno == EAGAIN) {
            pollfd ready{.fd = end.get(), .events = POLLIN, .revents = 0};
            ::poll(&ready, 1, -1);
        } else if (got >= 0 || errno != EINTR) {
            bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
            return bytes;
        }
    }
}

std::string readAll(const Descriptor& end) {
    std::string all;
    for (std::string part; !(part = readSome(end)).empty();) all += part;
    return all;
}

}  // namespace brindle::test

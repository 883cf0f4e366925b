#include "support/Pipes.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
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

PipeEnds makeSmallPipe() {
    constexpr int smallest_pipe_bytes = 4096;
    auto ends = pipeWith(0);
    if (::fcntl(ends.writing.get(), F_SETPIPE_SZ, smallest_pipe_bytes) != smallest_pipe_bytes) {
        throw std::runtime_error("Cannot make a pipe small.");
    }
    return ends;
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

Descriptor memoryFileWith(std::string_view content) {
    Descriptor file(::memfd_create("content", MFD_CLOEXEC));
    put(file, content);
    if (::lseek(file.get(), 0, SEEK_SET) != 0) throw std::runtime_error("Cannot make a file in memory.");
    return file;
}

void put(const Descriptor& end, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto written = ::write(end.get(), bytes.data(), bytes.size());
        if (written <= 0) throw std::runtime_error("Cannot write to a stream of the test.");
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

std::size_t fill(const Descriptor& end) {
    const int flags = ::fcntl(end.get(), F_GETFL);
    ::fcntl(end.get(), F_SETFL, flags | O_NONBLOCK);
    std::size_t total = 0;
    // A byte at a time at the end, so that really nothing more fits.
    for (const std::size_t size : {read_chunk_bytes, std::size_t{1}}) {
        const std::string bytes(size, '-');
        for (ssize_t got = 0; (got = ::write(end.get(), bytes.data(), bytes.size())) > 0;) {
            total += static_cast<std::size_t>(got);
        }
    }
    ::fcntl(end.get(), F_SETFL, flags);
    return total;
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

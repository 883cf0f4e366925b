#include "system/LineReader.h"

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "system/Processes.h"

namespace brindle {
namespace {

constexpr std::size_t first_buffer_bytes = std::size_t{16} << 10U;

}  // namespace

LineReader::LineReader(int descriptor, int interrupt) : descriptor_(descriptor), interrupt_(interrupt) {
    resize(first_buffer_bytes);
}

std::optional<std::string_view> LineReader::next() {
    giveBackLargeBuffer();
    for (;;) {
        const void* found = std::memchr(buffer_.get() + scanned_, '\n', end_ - scanned_);
        if (found != nullptr) {
            const auto length =
                static_cast<std::size_t>(static_cast<const char*>(found) - buffer_.get()) - begin_;
            return takeLine(length, 1);
        }
        scanned_ = end_;
        if (!atEnd_ && readMore()) continue;
        // An interrupted line may be cut off anywhere; it is not a last line.
        if (begin_ == end_ || isInterrupted_) return std::nullopt;
        return takeLine(end_ - begin_, 0);
    }
}

std::string_view LineReader::takeLine(std::size_t length, std::size_t terminator) {
    std::string_view line(buffer_.get() + begin_, length);
    begin_ += length + terminator;
    scanned_ = begin_;
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

std::span<char> LineReader::writable(std::string_view part) {
    return {buffer_.get() + (part.data() - buffer_.get()), part.size()};
}

void LineReader::giveBackLargeBuffer() {
    if (capacity_ <= kept_buffer_bytes || end_ - begin_ >= kept_buffer_bytes) return;
    makeRoom();
    resize(kept_buffer_bytes);
    returnFreedMemory();
}

/// Moves what is still unread to the front of the buffer.
void LineReader::makeRoom() {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    scanned_ -= begin_;
    end_ -= begin_;
    begin_ = 0;
}

void LineReader::resize(std::size_t capacity) {
    // realloc: growing a buffer of many megabytes moves pages instead of copying bytes.
    auto* memory = static_cast<char*>(std::realloc(buffer_.get(), capacity));
    if (memory == nullptr) throw std::bad_alloc();
    static_cast<void>(buffer_.release());
    buffer_.reset(memory);
    capacity_ = capacity;
}

/// What has arrived until now is still taken, what comes later is not.
void LineReader::noticeInterrupt() {
    if (isInterrupted_) return;
    isInterrupted_ = true;
    int pending = 0;
    if (::ioctl(descriptor_, FIONREAD, &pending) != 0) pending = 0;
    allowance_ = static_cast<std::size_t>(std::max(pending, 0));
}

/// Waits for input; false at its end.
bool LineReader::readMore() {
    if (begin_ > 0) makeRoom();
    if (end_ == capacity_) resize(capacity_ * 2);
    for (;;) {
        std::array<pollfd, 2> set{{{.fd = descriptor_, .events = POLLIN, .revents = 0},
                                   {.fd = interrupt_, .events = POLLIN, .revents = 0}}};
        if (::poll(set.data(), set.size(), -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if ((set[1].revents & POLLIN) != 0) noticeInterrupt();
        const auto room = std::min(capacity_ - end_, allowance_);
        if (room == 0) break;
        const auto got = ::read(descriptor_, buffer_.get() + end_, room);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got <= 0) break;
        end_ += static_cast<std::size_t>(got);
        if (isInterrupted_) allowance_ -= static_cast<std::size_t>(got);
        return true;
    }
    atEnd_ = true;
    return false;
}

}  // namespace brindle

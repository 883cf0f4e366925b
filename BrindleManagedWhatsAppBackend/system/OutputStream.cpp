#include "system/OutputStream.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

using SteadyClock = std::chrono::steady_clock;

// The order of a poll set: the output, the wake-up, then the signs.
constexpr std::size_t first_sign = 2;

/// For poll: rounded up, and without end for the clock's last moment.
int millisecondsUntil(SteadyClock::time_point deadline) {
    if (deadline == SteadyClock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

}  // namespace

DepartureWatch::DepartureWatch() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake_.isOpen()) return;
    throw Failure("Cannot prepare the giving up of unread output: " + std::generic_category().message(errno) +
                  ".");
}

void DepartureWatch::addSign(int descriptor, bool readableMeansGone) {
    const short events = readableMeansGone ? POLLIN : POLLRDHUP;
    signs_.push_back({.fd = descriptor, .events = events, .revents = 0});
}

void DepartureWatch::abandonOutput() {
    abandoned_ = true;
    ::eventfd_write(wake_.get(), 1);
}

std::vector<pollfd> DepartureWatch::pollSet(int output, bool withSigns) const {
    std::vector<pollfd> set{{.fd = output, .events = POLLOUT, .revents = 0},
                            {.fd = wake_.get(), .events = POLLIN, .revents = 0}};
    if (withSigns) set.insert(set.end(), signs_.begin(), signs_.end());
    return set;
}

bool DepartureWatch::isDepartureOver() {
    if (!departureSeen_) {
        auto set = signs_;
        if (::poll(set.data(), set.size(), 0) <= 0 || !anyDeparted(set.begin(), set.end())) return false;
        departureSeen_ = SteadyClock::now();
    }
    return SteadyClock::now() - *departureSeen_ >= unread_output_grace;
}

bool DepartureWatch::anyDeparted(PollIterator begin, PollIterator end) {
    return std::any_of(begin, end, [](const pollfd& sign) {
        return (sign.revents & (sign.events | POLLHUP | POLLERR)) != 0;
    });
}

bool DepartureWatch::waitUntilWritable(int output) {
    auto set = pollSet(output, true);
    auto deadline = SteadyClock::time_point::max();
    for (;;) {
        const int timeout_ms = abandoned_ ? 0 : millisecondsUntil(deadline);
        if (::poll(set.data(), set.size(), timeout_ms) < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (set.front().revents != 0) return true;
        if (abandoned_ || timeout_ms == 0) break;
        if (deadline != SteadyClock::time_point::max() || !anyDeparted(set.begin() + first_sign, set.end()))
            continue;
        deadline = SteadyClock::now() + unread_output_grace;
        set = pollSet(output, false);
    }
    abandoned_ = true;
    throw OutputAbandoned();
}

OutputStream::OutputStream(int descriptor, std::string name, DepartureWatch& watch)
    : descriptor_(descriptor), name_(std::move(name)), watch_(watch) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return;
    if (S_ISSOCK(status.st_mode)) manner_ = Manner::socket;
    if (!S_ISFIFO(status.st_mode) && ::isatty(descriptor) == 0) return;
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    reopened_ = Descriptor(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (reopened_.isOpen()) manner_ = Manner::nonblocking;
}

ssize_t OutputStream::writeSome(std::string_view bytes) {
    switch (manner_) {
        case Manner::nonblocking:
            return ::write(reopened_.get(), bytes.data(), bytes.size());
        case Manner::socket:
            return ::send(descriptor_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        case Manner::pieces:
            break;
    }
    if (!wait()) return -1;
    return ::write(descriptor_, bytes.data(), std::min<std::size_t>(bytes.size(), PIPE_BUF));
}

void OutputStream::write(std::string_view bytes) {
    if (isCutOff_) throw OutputAbandoned();
    if (breakCode_ != 0) throw FileSystemFailure("write to", name_, breakCode_);
    const auto length = bytes.size();
    while (!bytes.empty()) {
        const auto written = writeSome(bytes);
        if (written >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
            continue;
        }
        const bool mustWait = errno == EAGAIN || errno == EWOULDBLOCK;
        if (errno == EINTR || (mustWait && wait())) continue;
        const int code = errno;
        if (bytes.size() < length) breakCode_ = code;
        throw FileSystemFailure("write to", name_, code);
    }
}

bool OutputStream::wait() {
    // Until the wait has ended well, a text may stand half written at the stream's end.
    isCutOff_ = true;
    const bool isWritable = watch_.waitUntilWritable(descriptor_);
    isCutOff_ = false;
    return isWritable;
}

}  // namespace brindle

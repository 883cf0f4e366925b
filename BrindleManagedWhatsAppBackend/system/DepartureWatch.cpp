#include "system/DepartureWatch.h"

#include <errno.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "system/Processes.h"

namespace brindle {
namespace {

using SteadyClock = std::chrono::steady_clock;

/// Whoever asks after each piece of work asks far more often than signs need be looked for.
constexpr std::chrono::milliseconds look_interval{10};

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

void DepartureWatch::addParent(pid_t parent) {
    parent_ = parent;
    parentEnd_ = processEndDescriptor(parent);
    if (parentEnd_.isOpen()) addSign(parentEnd_.get(), true);
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

bool DepartureWatch::isDeparting() const {
    if (parent_ && ::getppid() != *parent_) return true;
    auto set = signs_;
    return ::poll(set.data(), set.size(), 0) > 0 && anyDeparted(set.begin(), set.end());
}

bool DepartureWatch::isDepartureOver() {
    const auto now = SteadyClock::now();
    if (!departureSeen_) {
        if (now < nextLook_) return false;
        nextLook_ = now + look_interval;
        if (!isDeparting()) return false;
        departureSeen_ = now;
    }
    return now - *departureSeen_ >= unread_output_grace;
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

bool DepartureWatch::isWritableInTime(int output) const {
    auto set = pollSet(output, false);
    const auto deadline = SteadyClock::now() + unread_output_grace;
    while (::poll(set.data(), set.size(), abandoned_ ? 0 : millisecondsUntil(deadline)) < 0) {
        if (errno != EINTR) return false;
    }
    return set.front().revents != 0;
}

}  // namespace brindle

#include "system/OutputStream.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace brindle {

OutputStream::OutputStream(int descriptor, std::string name, DepartureWatch& watch)
    : descriptor_(descriptor), name_(std::move(name)), watch_(watch) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return;
    isPipe_ = S_ISFIFO(status.st_mode);
    if (S_ISSOCK(status.st_mode)) manner_ = Manner::socket;
    if (!isPipe_ && ::isatty(descriptor) == 0) return;
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    reopened_ = Descriptor(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (reopened_.isOpen()) manner_ = Manner::nonblocking;
}

/// Never waits: what cannot be written now fails with EAGAIN.
ssize_t OutputStream::writeSome(std::string_view bytes) {
    switch (manner_) {
        case Manner::nonblocking:
            return ::write(reopened_.get(), bytes.data(), bytes.size());
        case Manner::socket:
            return ::send(descriptor_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        case Manner::pieces:
            break;
    }
    if (takesMore()) return ::write(descriptor_, bytes.data(), std::min<std::size_t>(bytes.size(), PIPE_BUF));
    errno = EAGAIN;
    return -1;
}

/// Takes off what could be written; true when nothing is left.
bool OutputStream::writeWhatFits(std::string_view& bytes) {
    while (!bytes.empty()) {
        const auto count = writeSome(bytes);
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
            written_ += static_cast<std::uint64_t>(count);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return false;
        } else if (errno != EINTR) {
            throw OutputFailure(name_, errno);
        }
    }
    return true;
}

void OutputStream::requireWholeStream() const {
    if (isCutOff_) throw OutputAbandoned();
    if (breakCode_ != 0) throw OutputFailure(name_, breakCode_);
}

void OutputStream::write(std::string_view bytes) {
    while (!goOn()) waitForRoom();
    const auto start = written();
    try {
        while (!writeWhatFits(bytes)) waitForRoom();
    } catch (const OutputFailure& failure) {
        if (written() > start) breakCode_ = failure.code();
        throw;
    }
}

bool OutputStream::takesMore() const {
    pollfd output{.fd = descriptor_, .events = POLLOUT, .revents = 0};
    return ::poll(&output, 1, 0) != 0;
}

bool OutputStream::begin(std::string text) {
    requireWholeStream();
    std::string_view rest(text);
    const auto start = written();
    try {
        if (writeWhatFits(rest)) return true;
    } catch (const OutputFailure& failure) {
        if (written() > start) breakCode_ = failure.code();
        throw;
    }
    begunWritten_ = text.size() - rest.size();
    begun_ = std::move(text);
    return false;
}

bool OutputStream::beginUnlessHeldUp(std::string text) {
    const auto start = written();
    if (begin(std::move(text)) || written() > start) return true;
    std::string().swap(begun_);
    return false;
}

bool OutputStream::goOn() {
    requireWholeStream();
    if (begun_.empty()) return true;
    auto rest = std::string_view(begun_).substr(begunWritten_);
    try {
        const bool isDone = writeWhatFits(rest);
        begunWritten_ = begun_.size() - rest.size();
        if (isDone) {
            // Assigning an empty one would keep the memory.
            std::string().swap(begun_);
        }
        return isDone;
    } catch (const OutputFailure& failure) {
        breakCode_ = failure.code();
        throw;
    }
}

void OutputStream::waitForRoom() {
    // Until the wait has ended well, a text may stand half written at the stream's end.
    isCutOff_ = true;
    const bool canWait = watch_.waitUntilWritable(descriptor_);
    const int code = errno;
    isCutOff_ = false;
    if (!canWait) throw OutputFailure(name_, code);
}

std::uint64_t OutputStream::taken() const {
    const std::uint64_t all = written_;
    int unread = 0;
    if (!isPipe_ || ::ioctl(descriptor_, FIONREAD, &unread) != 0) return all;
    return all - std::min(all, static_cast<std::uint64_t>(unread));
}

bool OutputStream::hasLostReader(std::chrono::milliseconds patience) const {
    if (!isPipe_) return false;
    pollfd output{.fd = descriptor_, .events = 0, .revents = 0};
    return ::poll(&output, 1, static_cast<int>(patience.count())) > 0 && (output.revents & POLLERR) != 0;
}

}  // namespace brindle

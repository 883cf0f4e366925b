#include "console/HelperProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "text/Failure.h"

namespace brindle::console {
namespace {

constexpr std::size_t read_buffer_bytes = 65536;
/// The buffer of what is to be written is compacted only after this much, not after each piece.
constexpr std::size_t compaction_bytes = std::size_t{1} << 20U;

ChildProcess start(const ChildProcess::Options& options, std::string_view role) {
    try {
        return ChildProcess(options);
    } catch (const Failure& failure) {
        throw Failure("Cannot start the " + std::string(role) + " " + options.executable + ": " +
                      failure.what() + ".");
    }
}

}  // namespace

HelperProcess::HelperProcess(const ChildProcess::Options& options, LineHandler onOutput, LineHandler onError,
                             std::string_view role, std::size_t longestOutputLineBytes)
    : process_(start(options, role)),
      input_(process_.standardInput()),
      output_{process_.standardOutput(), std::move(onOutput), LineBuffer(longestOutputLineBytes)},
      error_{process_.standardError(), std::move(onError), LineBuffer(longest_diagnostic_bytes)} {
    ::fcntl(input_.get(), F_SETFL, ::fcntl(input_.get(), F_GETFL) | O_NONBLOCK);
}

void HelperProcess::send(std::string_view line) {
    pending_.append(line).append("\n");
    writePending();
}

void HelperProcess::closeInputWhenWritten() {
    closesInput_ = true;
    writePending();
}

void HelperProcess::addPollEntries(std::vector<pollfd>& entries) const {
    entries.push_back({.fd = process_.endDescriptor(), .events = POLLIN, .revents = 0});
    // A closed descriptor is -1 here, which poll() passes over.
    entries.push_back({.fd = output_.descriptor.get(), .events = POLLIN, .revents = 0});
    entries.push_back({.fd = error_.descriptor.get(), .events = POLLIN, .revents = 0});
    const bool wantsToWrite = written_ < pending_.size();
    entries.push_back({.fd = wantsToWrite ? input_.get() : -1, .events = POLLOUT, .revents = 0});
}

bool HelperProcess::pump() {
    const bool wrote = writePending();
    const bool readOutput = readSome(output_);
    const bool readError = readSome(error_);
    return wrote || readOutput || readError;
}

ProcessEnd HelperProcess::finish() {
    readLeft(output_);
    readLeft(error_);
    for (auto* source : {&output_, &error_}) {
        if (const auto rest = source->lines.takeRest()) source->handler(*rest);
    }
    const auto end = process_.waitForEnd();
    if (end.cause == ProcessEnd::Cause::signal) kill();
    return end;
}

/// True when the helper took something.
bool HelperProcess::writePending() {
    bool progress = false;
    while (input_.isOpen() && written_ < pending_.size()) {
        const auto count = ::write(input_.get(), pending_.data() + written_, pending_.size() - written_);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) break;
        // A helper that takes nothing any more has ended or is about to; its end says so.
        if (count < 0) {
            input_.reset();
            break;
        }
        written_ += static_cast<std::size_t>(count);
        progress = true;
    }
    if (written_ == pending_.size() || written_ >= compaction_bytes) {
        pending_.erase(0, written_);
        written_ = 0;
    }
    if (closesInput_ && pending_.empty()) input_.reset();
    return progress;
}

/// Reads what the process can have left behind: others that it has started may go on writing for ever.
void HelperProcess::readLeft(Source& source) {
    int bytes = 0;
    if (!source.descriptor.isOpen() || ::ioctl(source.descriptor.get(), FIONREAD, &bytes) != 0) return;
    for (int read = 0; read < bytes; read += static_cast<int>(read_buffer_bytes)) {
        if (!readSome(source)) return;
    }
}

/// False when there is nothing to read now.
bool HelperProcess::readSome(Source& source) {
    if (!source.descriptor.isOpen()) return false;
    std::array<char, read_buffer_bytes> buffer;
    const auto count = ::read(source.descriptor.get(), buffer.data(), buffer.size());
    if (count < 0) return errno == EINTR;
    if (count == 0) {
        source.descriptor.reset();
        return false;
    }
    source.lines.append({buffer.data(), static_cast<std::size_t>(count)});
    while (const auto line = source.lines.next()) source.handler(*line);
    return true;
}

}  // namespace brindle::console

#include "backend/DataDirectoryLock.h"

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <array>
#include <chrono>
#include <string>

#include "exchange/EnvironmentKeys.h"
#include "system/FileSystemFailure.h"
#include "system/LockHolder.h"
#include "system/Processes.h"
#include "text/Text.h"

namespace brindle {
namespace {

/// Longer than an orderly end takes.
constexpr std::chrono::milliseconds lock_patience{5000};
constexpr std::chrono::milliseconds lock_interval{50};

/// Watches whether anybody still wants this process while it waits.
class Wait {
  public:
    explicit Wait(const DataDirectoryLockUses& uses)
        : uses_(uses), parentEnd_(processEndDescriptor(uses.parentProcessIdentifier)) {}

    /// Waits a little, or until something has happened.
    void pause() const {
        // Requests that wait are nothing to wake up for.
        auto set = watched(POLLRDHUP);
        ::poll(set.data(), set.size(), static_cast<int>(lock_interval.count()));
    }
    /// Whether this process is to end. Throws DataDirectoryTaken when it would leave requests behind.
    bool isOver() const {
        auto set = watched(POLLIN | POLLRDHUP);
        ::poll(set.data(), set.size(), 0);
        if (set[endRequest].revents != 0 || set[parentEnd].revents != 0) return true;
        if (!isParentAlive(uses_.parentProcessIdentifier)) return true;
        const bool hasInput = hasUnreadInput();
        // A file or the null device does not hang up; it has ended when it is readable and holds nothing.
        const bool atEnd = (set[input].revents & POLLIN) != 0 && !hasInput;
        const bool hungUp = (set[input].revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
        if (hungUp && hasInput) {
            throw DataDirectoryTaken("The input ended while another helper used the data directory \"" +
                                     singleLine(uses_.directory.path) +
                                     "\", so its requests were not carried out; send them again.");
        }
        return atEnd || hungUp;
    }

  private:
    enum Watched : std::size_t { input, endRequest, parentEnd, everything };

    std::array<pollfd, everything> watched(short inputEvents) const {
        return {{{.fd = uses_.input, .events = inputEvents, .revents = 0},
                 {.fd = uses_.endRequest, .events = POLLIN, .revents = 0},
                 {.fd = parentEnd_.get(), .events = POLLIN, .revents = 0}}};
    }
    bool hasUnreadInput() const {
        int pending = 0;
        return ::ioctl(uses_.input, FIONREAD, &pending) == 0 && pending > 0;
    }

    const DataDirectoryLockUses& uses_;
    Descriptor parentEnd_;
};

std::string descriptionOfHolder(const DataDirectoryLockUses& uses) {
    const auto holder = directoryLockHolder(uses.fileManager, uses.directory.path);
    return holder ? "Another helper (process " + std::to_string(*holder) + ")" : "Another helper";
}

/// Nothing while the directory is another's, or has just been replaced.
std::optional<Descriptor> tryToLock(const DataDirectoryLockUses& uses) {
    // Again each time: what was there may be gone by now.
    uses.directory.createRoot(uses.fileManager);
    try {
        return uses.fileManager.lockDirectory(uses.directory.path);
    } catch (const FileSystemFailure& failure) {
        if (failure.code() == EWOULDBLOCK || failure.code() == ESTALE || failure.code() == ENOENT) return {};
        // What keeps us from locking keeps the other one from it, too: no reason to refuse.
        return Descriptor();
    }
}

}  // namespace

std::optional<Descriptor> lockDataDirectory(const DataDirectoryLockUses& uses) {
    const Wait wait(uses);
    const auto deadline = uses.clock.sinceBoot() + lock_patience;
    for (;;) {
        if (auto lock = tryToLock(uses)) return lock;
        if (wait.isOver()) return std::nullopt;
        if (uses.clock.sinceBoot() >= deadline) break;
        wait.pause();
    }
    throw DataDirectoryTaken(descriptionOfHolder(uses) + " uses the data directory \"" +
                             singleLine(uses.directory.path) +
                             "\", so this one cannot start; end that one or set " +
                             std::string(environment_key::data_directory) + " to another directory.");
}

}  // namespace brindle

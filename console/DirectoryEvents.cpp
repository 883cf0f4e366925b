#include "console/DirectoryEvents.h"

#include <errno.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <optional>

#include "system/FileManager.h"
#include "system/FileSystemFailure.h"

namespace brindle::console {
namespace {

constexpr std::size_t buffer_bytes = 65536;

std::optional<DirectoryEvent::Kind> kindOf(std::uint32_t mask) {
    if ((mask & IN_MOVED_TO) != 0 || (mask & IN_CREATE) != 0) return DirectoryEvent::Kind::appeared;
    if ((mask & IN_MODIFY) != 0) return DirectoryEvent::Kind::written;
    if ((mask & (IN_MOVED_FROM | IN_DELETE)) != 0) return DirectoryEvent::Kind::left;
    return std::nullopt;
}

}  // namespace

DirectoryEvents::DirectoryEvents(const std::string& directory)
    : events_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    constexpr std::uint32_t watched = IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_MODIFY;
    if (!events_.isOpen() || ::inotify_add_watch(events_.get(), directory.c_str(), watched) < 0) {
        throw FileSystemFailure("watch", directory, errno);
    }
}

std::vector<DirectoryEvent> DirectoryEvents::take() {
    std::vector<DirectoryEvent> events;
    std::array<char, buffer_bytes> buffer;
    for (;;) {
        const auto count = ::read(events_.get(), buffer.data(), buffer.size());
        if (count <= 0) return events;
        for (std::size_t at = 0; at < static_cast<std::size_t>(count);) {
            inotify_event event{};
            std::memcpy(&event, buffer.data() + at, sizeof(event));
            const std::string name(event.len > 0 ? buffer.data() + at + sizeof(event) : "");
            at += sizeof(event) + event.len;
            const auto kind = kindOf(event.mask);
            if (kind && !isHiddenName(name)) events.push_back({.kind = *kind, .name = name});
        }
    }
}

}  // namespace brindle::console

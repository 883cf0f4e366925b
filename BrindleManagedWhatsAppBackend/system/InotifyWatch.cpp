#include "system/InotifyWatch.h"

#include <errno.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

/// Room for some hundred names.
constexpr std::size_t news_portion_bytes = std::size_t{16} << 10U;

/// Takes one portion of news apart.
void append(std::string_view portion, DirectoryNews& news) {
    while (!portion.empty()) {
        // Events of various lengths, each aligned for its type.
        const auto* event = reinterpret_cast<const inotify_event*>(portion.data());
        if ((event->mask & IN_Q_OVERFLOW) != 0) news.isCutOff = true;
        if (event->len > 0) news.names.emplace_back(static_cast<const char*>(event->name));
        portion.remove_prefix(sizeof(inotify_event) + event->len);
    }
}

}  // namespace

InotifyWatch::InotifyWatch() : descriptor_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (!descriptor_.isOpen()) throw FileSystemFailure("watch", "directories", errno);
}

bool InotifyWatch::follow(const std::string& path) {
    // The system answers the same number for the directory that it watches already.
    const int directory =
        ::inotify_add_watch(descriptor_.get(), path.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR);
    if (directory < 0) throw FileSystemFailure("watch", path, errno);
    if (directory == directory_) return false;
    // Fails when the one before has been removed, which ends its watch.
    if (directory_ >= 0) ::inotify_rm_watch(descriptor_.get(), directory_);
    directory_ = directory;
    return true;
}

DirectoryNews InotifyWatch::takeNews() {
    DirectoryNews news;
    alignas(inotify_event) std::array<char, news_portion_bytes> portion;
    for (;;) {
        const auto length = ::read(descriptor_.get(), portion.data(), portion.size());
        if (length < 0 && errno == EINTR) continue;
        // With EAGAIN there is no more; nothing else happens to a descriptor that is open.
        if (length <= 0) return news;
        append({portion.data(), static_cast<std::size_t>(length)}, news);
    }
}

}  // namespace brindle

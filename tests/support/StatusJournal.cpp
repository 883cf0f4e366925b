#include "support/StatusJournal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <utility>

#include "support/Json.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

constexpr const char* status_file = "worker-status.json";
constexpr std::size_t event_buffer_bytes = 16 * 1024;

/// What FAN_EVENT_NEXT does, without its cast to a greater alignment.
fanotify_event_metadata* nextEvent(fanotify_event_metadata* event, ssize_t& length) {
    const auto length_bytes = event->event_len;
    length -= length_bytes;
    void* next = reinterpret_cast<char*>(event) + length_bytes;
    return static_cast<fanotify_event_metadata*>(next);
}

/// The whole of an open file, whatever its name has become.
std::string contentOf(int file) {
    std::string content;
    std::array<char, 4096> buffer{};
    for (;;) {
        const auto length = ::pread(file, buffer.data(), buffer.size(), static_cast<off_t>(content.size()));
        if (length <= 0) return content;
        content.append(buffer.data(), static_cast<std::size_t>(length));
    }
}

std::string listedAsText(const std::vector<Json>& statuses) {
    std::string text;
    std::string last;
    for (const auto& status : statuses) {
        // Said once what is published again and again.
        if (std::exchange(last, status["detail"]) == status["detail"]) continue;
        text += "\n  " + status["state"].get<std::string>() + ": " + status["detail"].get<std::string>();
    }
    return text;
}

}  // namespace

StatusJournal::StatusJournal(std::filesystem::path runtimeDirectory)
    : directory_(std::move(runtimeDirectory)) {
    std::filesystem::create_directories(directory_);
    open();
    stop_ = ::eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this] { collect(); });
}

StatusJournal::~StatusJournal() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(stop_, &one, sizeof one);
    thread_.join();
    ::close(stop_);
    ::close(events_);
}

void StatusJournal::open() {
    events_ = ::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY | O_CLOEXEC);
    isExact_ = events_ >= 0 && ::fanotify_mark(events_, FAN_MARK_ADD, FAN_CLOSE_WRITE | FAN_EVENT_ON_CHILD,
                                               AT_FDCWD, directory_.c_str()) == 0;
    if (isExact_) return;
    if (events_ >= 0) ::close(events_);
    events_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (::inotify_add_watch(events_, directory_.c_str(), IN_MOVED_TO) < 0) {
        throw TestFailure("cannot watch " + directory_.string());
    }
}

void StatusJournal::collect() {
    for (;;) {
        std::array<pollfd, 2> polled{{{events_, POLLIN, 0}, {stop_, POLLIN, 0}}};
        if (::poll(polled.data(), polled.size(), -1) < 0) continue;
        if (polled[1].revents != 0) return;
        if (isExact_) {
            takeClosedFiles();
        } else {
            takeReplacedFile();
        }
    }
}

void StatusJournal::takeClosedFiles() {
    alignas(fanotify_event_metadata) std::array<char, event_buffer_bytes> buffer{};
    auto length = ::read(events_, buffer.data(), buffer.size());
    for (auto* event = reinterpret_cast<fanotify_event_metadata*>(buffer.data()); FAN_EVENT_OK(event, length);
         event = nextEvent(event, length)) {
        if (event->fd < 0) continue;
        const auto content = contentOf(event->fd);
        ::close(event->fd);
        take(content);
    }
}

void StatusJournal::takeReplacedFile() {
    alignas(inotify_event) std::array<char, event_buffer_bytes> buffer{};
    const auto length = ::read(events_, buffer.data(), buffer.size());
    for (ssize_t offset = 0; offset < length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + offset);
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        if (std::string(event->name) != status_file) continue;
        const int file = ::open((directory_ / status_file).c_str(), O_RDONLY | O_CLOEXEC);
        if (file < 0) continue;
        take(contentOf(file));
        ::close(file);
    }
}

void StatusJournal::take(const std::string& content) {
    auto document = Json::parseIfPossible(content);
    // Other files of the directory are written the same way; only this record has such a key.
    if (!document || !document->contains("supportsLiveCapture")) return;
    const std::lock_guard lock(mutex_);
    statuses_.push_back(std::move(*document));
    changed_.notify_all();
}

std::vector<Json> StatusJournal::statuses() const {
    const std::lock_guard lock(mutex_);
    return statuses_;
}

std::vector<std::string> StatusJournal::details() const {
    std::vector<std::string> details;
    for (const auto& status : statuses()) details.push_back(status["detail"]);
    return details;
}

std::string StatusJournal::listed() const {
    return listedAsText(statuses());
}

std::size_t StatusJournal::waitFor(const Predicate& predicate, std::size_t from,
                                   std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    std::size_t position = from;
    const auto isThere = [&] {
        for (; position < statuses_.size(); ++position) {
            if (predicate(statuses_[position])) return true;
        }
        return false;
    };
    if (changed_.wait_for(lock, timeout, isThere)) return position;
    throw TestFailure("the expected worker status never came; those that came:" + listedAsText(statuses_));
}

}  // namespace brindle::test

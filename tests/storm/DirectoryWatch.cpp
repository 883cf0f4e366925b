#include "storm/DirectoryWatch.h"

#include <poll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

#include "storm/Messages.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/TextForms.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view record_extension = ".json";
constexpr const char* mark_prefix = ".mark-";
constexpr std::array directories{"",
                                 "inbound",
                                 "outbound",
                                 "processed",
                                 "rejected",
                                 "runtime",
                                 "runtime/worker-processed-outbound",
                                 "runtime/worker-rejected-outbound"};

bool isHidden(const std::string& name) {
    return name.starts_with(".");
}

std::string stemOf(const std::string& name) {
    return fs::path(name).stem().string();
}

bool isMadeByTheSystem(const std::string& name) {
    return isCanonicalUuid(stemOf(name));
}

/// The native worker's answer to a message.
bool isEcho(const std::string& name) {
    return name.find("-echo-") != std::string::npos;
}

bool isRecordDirectory(const std::string& directory) {
    return !directory.empty() && directory != "runtime";
}

}  // namespace

DirectoryWatch::DirectoryWatch(fs::path dataDirectory)
    : root_(std::move(dataDirectory)), notifications_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    for (const char* directory : directories) addWatch(directory);
    thread_ = std::thread([this] { watch(); });
}

DirectoryWatch::~DirectoryWatch() {
    isStopping_ = true;
    thread_.join();
}

void DirectoryWatch::addWatch(const std::string& directory) {
    const int watch = ::inotify_add_watch(notifications_.get(), (root_ / directory).c_str(),
                                          IN_CREATE | IN_MODIFY | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE);
    if (watch < 0) throw TestFailure("cannot watch " + (root_ / directory).string());
    directories_[watch] = directory;
}

void DirectoryWatch::callAfter(std::int64_t events, std::function<void()> action) {
    const std::lock_guard lock(mutex_);
    eventsLeft_ = events;
    action_ = std::move(action);
}

void DirectoryWatch::callNothing() {
    callAfter(0, nullptr);
}

void DirectoryWatch::catchUp() {
    const int mark = ++marks_;
    const auto file = root_ / (mark_prefix + std::to_string(mark));
    writeFileAtomically(file, "");
    waitUntil([&] { return marksSeen_ >= mark; }, "the watch to catch up");
    fs::remove(file);
}

std::vector<std::string> DirectoryWatch::problems() const {
    const std::lock_guard lock(mutex_);
    return problems_;
}

void DirectoryWatch::watch() {
    constexpr int wait_ms = 20;
    constexpr std::size_t buffer_bytes = 64 * 1024;
    alignas(inotify_event) std::array<char, buffer_bytes> buffer{};
    while (!isStopping_) {
        pollfd wait{notifications_.get(), POLLIN, 0};
        if (::poll(&wait, 1, wait_ms) <= 0) continue;
        const auto length = ::read(notifications_.get(), buffer.data(), buffer.size());
        for (std::ptrdiff_t offset = 0; offset < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + offset);
            offset += static_cast<std::ptrdiff_t>(sizeof(inotify_event) + event->len);
            take({.directory = directories_[event->wd],
                  .name = event->len > 0 ? std::string(event->name) : std::string(),
                  .mask = event->mask});
        }
    }
}

void DirectoryWatch::take(const Event& event) {
    if (event.mask & IN_Q_OVERFLOW) return report(event, "more happens than can be watched");
    if (event.name.starts_with(mark_prefix)) {
        if (event.mask & IN_MOVED_TO)
            marksSeen_ = std::stoi(event.name.substr(std::string(mark_prefix).size()));
        return;
    }
    count();
    if (!(event.mask & IN_ISDIR) && !isHidden(event.name)) check(event);
}

void DirectoryWatch::count() {
    std::function<void()> action;
    {
        const std::lock_guard lock(mutex_);
        if (eventsLeft_ == 0 || --eventsLeft_ > 0) return;
        action = std::exchange(action_, nullptr);
    }
    if (action) action();
}

void DirectoryWatch::check(const Event& event) {
    if (event.mask & IN_CREATE) report(event, "was made under its final name");
    if (event.mask & IN_MODIFY) report(event, "was changed under its final name");
    if (event.mask & IN_MOVED_TO) checkContent(event);
    checkOrder(event);
}

void DirectoryWatch::checkContent(const Event& event) {
    // What the harness writes itself.
    if (event.directory == "inbound" && !isMadeByTheSystem(event.name) && !isEcho(event.name)) return;
    if (event.name.front() == static_cast<char>(Series::garbage)) return;
    std::string content;
    try {
        content = readFile(root_ / event.directory / event.name);
    } catch (const TestFailure&) {
        return;  // It has moved on already; where it arrives it is looked at again.
    }
    if (event.name == "worker.pid") {
        const bool isNumber = !content.empty() && std::all_of(content.begin(), content.end(), [](char digit) {
            return std::isdigit(static_cast<unsigned char>(digit)) != 0;
        });
        if (!isNumber) report(event, "does not hold a process id: " + content);
        return;
    }
    if (!event.name.ends_with(record_extension)) return;
    const auto record = Json::parseIfPossible(content);
    if (!record) return report(event, "is not a whole document: " + content.substr(0, 200));
    if (!isRecordDirectory(event.directory)) return;
    if (!Message::in(*record)) report(event, "does not hold a whole message: " + content.substr(0, 200));
    if (record->at("messageId").text() != stemOf(event.name)) report(event, "holds another identifier");
}

void DirectoryWatch::checkOrder(const Event& event) {
    if ((event.directory != "inbound" && event.directory != "outbound") || !isMadeByTheSystem(event.name))
        return;
    auto& waiting = waiting_[event.directory];
    if (event.mask & (IN_MOVED_FROM | IN_DELETE)) waiting.erase(event.name);
    if (!(event.mask & IN_MOVED_TO)) return;
    if (!waiting.empty() && event.name < *waiting.rbegin()) {
        report(event, "does not come after " + *waiting.rbegin() + ", which waits there");
    }
    waiting.insert(event.name);
}

void DirectoryWatch::report(const Event& event, const std::string& what) {
    const std::lock_guard lock(mutex_);
    problems_.push_back(event.directory + "/" + event.name + " " + what);
}

}  // namespace brindle::test

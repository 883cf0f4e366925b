#include "worker/webkit/PageMemoryWatch.h"

#include <glib.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "worker/webkit/GObjectPointer.h"

namespace brindle {
namespace {

/// The fastest page takes about a gibibyte in between. Due together with the worker's own timers, so that the
/// process is not woken more often for it.
constexpr std::chrono::milliseconds look_interval{200};

struct DirectoryClose {
    void operator()(GDir* directory) const { g_dir_close(directory); }
};

/// A file of procfs; empty when its process is gone.
std::string content(const std::string& path) {
    char* text = nullptr;
    g_file_get_contents(path.c_str(), &text, nullptr, nullptr);
    const GText owned(text);
    return textOf(text);
}

std::string folderOf(pid_t process) {
    return "/proc/" + std::to_string(process) + "/";
}

/// Adds what the process has started, and what that has started: it is listed by the thread that did it.
void addDescendants(pid_t process, std::set<pid_t>& found) {
    const std::string tasks = folderOf(process) + "task/";
    const std::unique_ptr<GDir, DirectoryClose> directory(g_dir_open(tasks.c_str(), 0, nullptr));
    while (const char* task = directory ? g_dir_read_name(directory.get()) : nullptr) {
        const std::string list = content(tasks + task + "/children");
        const char* rest = list.c_str();
        for (char* end = nullptr; const auto child = g_ascii_strtoll(rest, &end, 10); rest = end) {
            if (found.insert(static_cast<pid_t>(child)).second)
                addDescendants(static_cast<pid_t>(child), found);
        }
    }
}

/// What the process has filled itself, in main memory or swapped out. Files that it has mapped are not
/// counted.
std::uint64_t ownBytes(pid_t process) {
    constexpr std::uint64_t kibibyte = 1024;
    const std::string status = content(folderOf(process) + "status");
    std::uint64_t sum = 0;
    for (const std::string_view part : {"\nRssAnon:", "\nRssShmem:", "\nVmSwap:"}) {
        const auto found = status.find(part);
        if (found == std::string::npos) continue;
        sum += g_ascii_strtoull(status.c_str() + found + part.size(), nullptr, 10) * kibibyte;
    }
    return sum;
}

}  // namespace

PageMemoryWatch::PageMemoryWatch(const Limits& limits, Actions actions)
    : limits_(limits),
      actions_(std::move(actions)),
      least_bytes_(ownBytes(::getpid())),
      timer_(MainLoopTimer::Schedule{.interval = look_interval, .tolerance = look_interval, .repeats = true},
             [this] {
                 lookAtEngine();
                 lookAtThisProcess();
             }) {}

void PageMemoryWatch::lookAtEngine() {
    std::set<pid_t> processes;
    addDescendants(::getpid(), processes);
    std::erase_if(ending_, [&](pid_t process) { return !processes.contains(process); });
    for (const pid_t process : processes) {
        if (ending_.contains(process) || ownBytes(process) <= limits_.process_bytes) continue;
        ending_.insert(process);
        actions_.onExcess();
        ::kill(process, SIGKILL);
    }
}

void PageMemoryWatch::lookAtThisProcess() {
    const auto bytes = ownBytes(::getpid());
    least_bytes_ = std::min(least_bytes_, bytes);
    if (bytes - least_bytes_ <= limits_.growth_bytes) return;
    // Should something stay, the next page is not ended for it.
    least_bytes_ = bytes;
    actions_.onGrowth();
}

}  // namespace brindle

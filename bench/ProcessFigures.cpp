#include "ProcessFigures.h"

#include <chrono>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <thread>

#include "support/Files.h"

namespace brindle::bench {
namespace {

namespace fs = std::filesystem;

fs::path folderOf(pid_t process) {
    return "/proc/" + std::to_string(process);
}

/// The number behind a label such as "Rss:"; 0 when it is not there.
double numberBehind(const std::string& label, const fs::path& file) {
    std::istringstream words(test::contentOrNothing(file));
    for (std::string word; words >> word;) {
        double number = 0;
        if (word == label && words >> number) return number;
    }
    return 0;
}

/// The sum over all threads of what `read` finds in the thread's folder.
template <class Read>
std::uint64_t sumOverThreads(pid_t process, Read read) {
    std::uint64_t sum = 0;
    std::error_code gone;
    for (const auto& thread : fs::directory_iterator(folderOf(process) / "task", gone))
        sum += static_cast<std::uint64_t>(read(thread.path()));
    return sum;
}

}  // namespace

std::uint64_t processorNanoseconds(pid_t process) {
    return sumOverThreads(process, [](const fs::path& thread) {
        std::uint64_t running = 0;
        std::istringstream(test::contentOrNothing(thread / "schedstat")) >> running;
        return running;
    });
}

std::uint64_t wakeUps(pid_t process) {
    return sumOverThreads(process, [](const fs::path& thread) {
        return numberBehind("voluntary_ctxt_switches:", thread / "status");
    });
}

double residentKibibytes(pid_t process) {
    return numberBehind("Rss:", folderOf(process) / "smaps_rollup");
}

double privateDirtyKibibytes(pid_t process) {
    return numberBehind("Private_Dirty:", folderOf(process) / "smaps_rollup");
}

double peakKibibytes(pid_t process) {
    return numberBehind("VmHWM:", folderOf(process) / "status");
}

void waitUntilQuiet(pid_t process) {
    constexpr std::chrono::milliseconds moment{300};
    constexpr std::uint64_t next_to_nothing_ns = 3'000'000;
    constexpr int most_moments = 20;
    auto before = processorNanoseconds(process);
    for (int count = 0; count < most_moments; ++count) {
        std::this_thread::sleep_for(moment);
        const auto now = processorNanoseconds(process);
        if (now - before < next_to_nothing_ns) return;
        before = now;
    }
}

}  // namespace brindle::bench

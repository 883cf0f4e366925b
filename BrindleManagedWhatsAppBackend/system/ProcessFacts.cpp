#include "system/ProcessFacts.h"

#include <time.h>
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <string>
#include <system_error>

#include "text/Failure.h"

namespace brindle {
namespace {

/// Words of "stat" to pass over: to the parent, and on to the start.
constexpr int words_before_parent = 1;
constexpr int words_from_parent_to_start = 18;
/// More than any process has; a list that is read while it changes may lead in a circle.
constexpr int most_ancestors = 1000;

std::string fileOf(pid_t process, std::string_view name) {
    return std::string("/proc/").append(std::to_string(process)).append("/").append(name);
}

void skipWords(std::string_view& text, int count) {
    for (; count > 0; --count) {
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        text.remove_prefix(std::min(text.find(' '), text.size()));
    }
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
}

template <class Number>
std::optional<Number> leadingNumber(std::string_view text) {
    Number value = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc()) return std::nullopt;
    return value;
}

std::chrono::nanoseconds timeOf(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace

std::optional<ProcessStat> parsedProcessStat(std::string_view text) {
    // The name of the program stands in parentheses and may hold any others, and spaces.
    const auto nameEnd = text.rfind(')');
    if (nameEnd == std::string_view::npos) return std::nullopt;
    text.remove_prefix(nameEnd + 1);
    skipWords(text, words_before_parent);
    const auto parent = leadingNumber<pid_t>(text);
    skipWords(text, words_from_parent_to_start);
    const auto ticks = leadingNumber<std::uint64_t>(text);
    const auto ticksPerSecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    if (!parent || !ticks) return std::nullopt;
    return ProcessStat{
        .parent = *parent,
        .start = std::chrono::seconds(*ticks / ticksPerSecond) +
                 std::chrono::nanoseconds(std::chrono::seconds(*ticks % ticksPerSecond)) / ticksPerSecond};
}

std::optional<ProcessFacts> processFacts(pid_t process, FileManager& fileManager) {
    try {
        const auto stat = parsedProcessStat(fileManager.readFile(fileOf(process, "stat")));
        if (!stat) return std::nullopt;
        const auto start = timeOf(CLOCK_REALTIME) - timeOf(CLOCK_BOOTTIME) + stat->start;
        return ProcessFacts{.parent = stat->parent,
                            .start = std::chrono::system_clock::time_point(
                                std::chrono::duration_cast<std::chrono::system_clock::duration>(start))};
    } catch (const Failure&) {
        return std::nullopt;
    }
}

bool isSelfOrAncestor(pid_t process, FileManager& fileManager) {
    pid_t ancestor = ::getpid();
    for (int count = 0; count < most_ancestors && ancestor > 0; ++count) {
        if (ancestor == process) return true;
        const auto facts = processFacts(ancestor, fileManager);
        // The one that is known without the system's list.
        ancestor = facts ? facts->parent : (count == 0 ? ::getppid() : 0);
    }
    return false;
}

Environment environmentOf(pid_t process, FileManager& fileManager) {
    Environment environment;
    try {
        const std::string text = fileManager.readFile(fileOf(process, "environ"));
        for (std::string_view rest(text); !rest.empty();) {
            const auto entry = rest.substr(0, rest.find('\0'));
            rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
            const auto sign = entry.find('=');
            if (sign == std::string_view::npos) continue;
            environment.emplace(entry.substr(0, sign), entry.substr(sign + 1));
        }
    } catch (const Failure&) {
        // Then nothing is known of it.
    }
    return environment;
}

}  // namespace brindle

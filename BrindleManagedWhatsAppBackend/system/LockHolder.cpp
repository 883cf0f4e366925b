#include "system/LockHolder.h"

#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>

#include "system/Paths.h"
#include "system/Processes.h"
#include "text/Failure.h"

namespace brindle {
namespace {

constexpr const char* list_of_locks = "/proc/locks";

/// Where things stand in a line: "1: FLOCK  ADVISORY  WRITE 4711 08:01:1234 0 EOF". A process that waits for
/// a lock has an arrow in the second place.
enum Place : std::size_t { kind = 1, access = 3, process = 4, object = 5, places = 6 };
using Words = std::array<std::string_view, places>;

Words wordsOf(std::string_view line) {
    Words words;
    for (auto& word : words) {
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        word = line.substr(0, line.find(' '));
        line.remove_prefix(word.size());
    }
    return words;
}

/// Takes a number and what ends it off the front of a text; nothing for any other text.
template <class Number>
std::optional<Number> takeNumber(std::string_view& text, int base, std::string_view terminator) {
    Number value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc()) return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (!text.starts_with(terminator) || (terminator.empty() && !text.empty())) return std::nullopt;
    text.remove_prefix(terminator.size());
    return value;
}

bool names(std::string_view object, dev_t device, ino_t inode) {
    const auto major = takeNumber<unsigned>(object, 16, ":");
    const auto minor = takeNumber<unsigned>(object, 16, ":");
    const auto number = takeNumber<ino_t>(object, 10, "");
    return major && minor && number && makedev(*major, *minor) == device && *number == inode;
}

}  // namespace

std::optional<pid_t> lockHolderIn(std::string_view locks, dev_t device, ino_t inode) {
    while (!locks.empty()) {
        const auto line = locks.substr(0, locks.find('\n'));
        locks.remove_prefix(std::min(line.size() + 1, locks.size()));
        Words words = wordsOf(line);
        if (words[kind] != "FLOCK" || words[access] != "WRITE") continue;
        if (!names(words[object], device, inode)) continue;
        // A process outside of our container has the number 0 or -1.
        const auto holder = takeNumber<pid_t>(words[process], 10, "");
        if (holder && *holder > 0) return holder;
    }
    return std::nullopt;
}

std::optional<pid_t> directoryLockHolder(FileManager& fileManager, const std::string& directory) {
    try {
        // The directory itself, wherever a link at its path leads.
        const auto attributes = fileManager.attributes(joinedPath(directory, "."));
        if (!attributes) return std::nullopt;
        const auto holder =
            lockHolderIn(fileManager.readFile(list_of_locks), attributes->device, attributes->inode);
        // The lock may have outlived whoever took it.
        if (!holder || *holder == ::getpid() || !processExists(*holder)) return std::nullopt;
        return holder;
    } catch (const Failure&) {
        return std::nullopt;
    }
}

}  // namespace brindle

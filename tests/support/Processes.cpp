#include "support/Processes.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <system_error>

#include "support/Files.h"
#include "support/Waiting.h"

namespace brindle::test {

namespace fs = std::filesystem;

namespace {

struct Entry {
    std::string name;
    std::string state;
    pid_t parent = 0;
    double seconds = 0;
};

fs::path folderOf(pid_t process) {
    return "/proc/" + std::to_string(process);
}

/// What the system says of a process; false when it is gone.
bool readEntry(pid_t process, Entry& entry) {
    const auto text = contentOrNothing(folderOf(process) / "stat");
    // The name may hold spaces and parentheses, so the last one counts.
    const auto open = text.find('(');
    const auto close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos) return false;
    entry.name = text.substr(open + 1, close - open - 1);
    std::istringstream rest(text.substr(close + 1));
    rest >> entry.state >> entry.parent;
    std::string skipped;
    for (int field = 5; field < 14; ++field) rest >> skipped;
    double user = 0;
    double system = 0;
    rest >> user >> system;
    entry.seconds = (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    return true;
}

bool hasEnded(const Entry& entry) {
    return entry.state == "Z" || entry.state == "X";
}

/// Every process there is, ended ones that nobody has reaped included.
std::map<pid_t, Entry> allProcesses() {
    std::map<pid_t, Entry> processes;
    std::error_code error;
    for (const auto& item : fs::directory_iterator("/proc", error)) {
        const auto name = item.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        Entry entry;
        const auto process = static_cast<pid_t>(std::stol(name));
        if (readEntry(process, entry)) processes.emplace(process, entry);
    }
    return processes;
}

void addTree(const std::map<pid_t, Entry>& processes, pid_t root, std::vector<pid_t>& tree) {
    const auto found = processes.find(root);
    if (found != processes.end() && !hasEnded(found->second)) tree.push_back(root);
    for (const auto& [process, entry] : processes) {
        if (entry.parent == root && !hasEnded(entry)) addTree(processes, process, tree);
    }
}

std::vector<std::string> splitAtNul(const std::string& text) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, '\0');) parts.push_back(part);
    return parts;
}

/// The number of kibibytes behind a label such as "Pss:", in bytes; 0 when it is not there.
std::size_t bytesBehind(const std::string& label, const fs::path& file) {
    constexpr std::size_t kibibyte = 1024;
    std::istringstream words(contentOrNothing(file));
    for (std::string word; words >> word;) {
        std::size_t kibibytes = 0;
        if (word == label && words >> kibibytes) return kibibytes * kibibyte;
    }
    return 0;
}

}  // namespace

bool processIsRunning(pid_t pid) {
    Entry entry;
    return readEntry(pid, entry) && !hasEnded(entry);
}

bool isAsleep(pid_t pid) {
    Entry entry;
    return readEntry(pid, entry) && entry.state == "S";
}

std::vector<pid_t> processTree(pid_t root) {
    std::vector<pid_t> tree;
    addTree(allProcesses(), root, tree);
    return tree;
}

std::vector<pid_t> processesNamed(pid_t root, const std::string& name) {
    const auto processes = allProcesses();
    std::vector<pid_t> tree;
    addTree(processes, root, tree);
    std::erase_if(tree, [&](pid_t process) { return processes.at(process).name != name; });
    return tree;
}

void waitForEnds(const std::vector<pid_t>& processes) {
    for (const pid_t process : processes) {
        waitUntil([&] { return !processIsRunning(process); },
                  "the end of process " + std::to_string(process));
    }
}

void endAll(const std::vector<pid_t>& processes) {
    for (const pid_t process : processes) {
        if (processIsRunning(process)) ::kill(process, SIGKILL);
    }
    // Those whose parent has gone have come to this process.
    for (const pid_t process : processes) ::waitpid(process, nullptr, WNOHANG);
}

pid_t parentOf(pid_t pid) {
    Entry entry;
    return readEntry(pid, entry) ? entry.parent : 0;
}

std::vector<pid_t> childrenOf(pid_t parent) {
    std::vector<pid_t> children;
    for (const auto& [process, entry] : allProcesses()) {
        if (entry.parent == parent) children.push_back(process);
    }
    return children;
}

pid_t waitForOnlyChild(pid_t parent) {
    pid_t child = 0;
    const auto onlyChildRuns = [&] {
        const std::vector<pid_t> children = childrenOf(parent);
        if (children.size() != 1) return false;
        child = children.front();
        const std::string program = programOf(child);
        // The program changes before its arguments and its environment are there.
        return !program.empty() && program != programOf(parent) && isSetUp(child);
    };
    waitUntil(onlyChildRuns, "the one child of process " + std::to_string(parent));
    return child;
}

std::string programOf(pid_t pid) {
    std::error_code error;
    const fs::path program = fs::read_symlink(folderOf(pid) / "exe", error);
    return error ? std::string() : program.filename().string();
}

std::map<int, std::string> descriptorsOf(pid_t pid) {
    std::map<int, std::string> descriptors;
    std::error_code gone;
    for (fs::directory_iterator entry(folderOf(pid) / "fd", gone); !gone && entry != fs::directory_iterator();
         entry.increment(gone)) {
        std::error_code closed;
        const fs::path target = fs::read_symlink(entry->path(), closed);
        if (!closed) descriptors[std::stoi(entry->path().filename().string())] = target.string();
    }
    return descriptors;
}

Environment environmentOf(pid_t pid) {
    Environment environment;
    for (const std::string& entry : splitAtNul(contentOrNothing(folderOf(pid) / "environ"))) {
        const std::size_t equals = entry.find('=');
        if (equals != std::string::npos) environment[entry.substr(0, equals)] = entry.substr(equals + 1);
    }
    return environment;
}

std::vector<std::string> argumentsOf(pid_t pid) {
    return splitAtNul(contentOrNothing(folderOf(pid) / "cmdline"));
}

bool isSetUp(pid_t pid) {
    return !argumentsOf(pid).empty() && !environmentOf(pid).empty();
}

std::uint64_t signalSetOf(pid_t pid, std::string_view name) {
    std::istringstream lines(contentOrNothing(folderOf(pid) / "status"));
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(name)) continue;
        const std::string digits = line.substr(line.find_first_not_of("\t ", name.size() + 1));
        return std::stoull(digits, nullptr, 16);
    }
    throw TestFailure("no signal set " + std::string(name) + " of process " + std::to_string(pid));
}

std::size_t residentBytesOf(pid_t pid) {
    return bytesBehind("VmRSS:", folderOf(pid) / "status");
}

std::size_t peakBytesOf(pid_t pid) {
    return bytesBehind("VmHWM:", folderOf(pid) / "status");
}

std::size_t proportionalSetBytes(pid_t process) {
    return bytesBehind("Pss:", folderOf(process) / "smaps_rollup");
}

double processorSeconds(pid_t process) {
    Entry entry;
    return readEntry(process, entry) && !hasEnded(entry) ? entry.seconds : 0;
}

}  // namespace brindle::test

#include "support/Processes.h"

#include <dirent.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace brindle::test {
namespace {

struct Entry {
    std::string name;
    pid_t parent = 0;
    double seconds = 0;
};

/// What /proc/PID/stat says; the name may hold spaces and parentheses, so the last one counts.
bool readEntry(pid_t process, Entry& entry) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    if (!std::getline(file, text)) return false;
    const auto open = text.find('(');
    const auto close = text.rfind(')');
    entry.name = text.substr(open + 1, close - open - 1);
    std::istringstream rest(text.substr(close + 1));
    std::string state;
    rest >> state >> entry.parent;
    std::string skipped;
    for (int field = 5; field < 14; ++field) rest >> skipped;
    double user = 0;
    double system = 0;
    rest >> user >> system;
    entry.seconds = (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    return state != "Z";
}

std::map<pid_t, Entry> allProcesses() {
    std::map<pid_t, Entry> processes;
    std::error_code error;
    for (const auto& item : std::filesystem::directory_iterator("/proc", error)) {
        const auto name = item.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        Entry entry;
        const auto process = static_cast<pid_t>(std::stol(name));
        if (readEntry(process, entry)) processes.emplace(process, entry);
    }
    return processes;
}

void addTree(const std::map<pid_t, Entry>& processes, pid_t root, std::vector<pid_t>& tree) {
    if (processes.contains(root)) tree.push_back(root);
    for (const auto& [process, entry] : processes) {
        if (entry.parent == root) addTree(processes, process, tree);
    }
}

}  // namespace

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

std::size_t proportionalSetBytes(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/smaps_rollup");
    for (std::string word; file >> word;) {
        std::size_t kibibytes = 0;
        if (word == "Pss:" && file >> kibibytes) return kibibytes * 1024;
    }
    return 0;
}

double processorSeconds(pid_t process) {
    Entry entry;
    return readEntry(process, entry) ? entry.seconds : 0;
}

}  // namespace brindle::test

#include "support/WorkerScript.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

namespace brindle::test {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view script_functions = R"sh(
mark() { : > "$HERE/$1"; }
await() { until [ -e "$HERE/$1" ]; do sleep 0.01; done; }
stay() { exec sleep 600; }
publish() {
    printf '%s' "$2" > "$BRINDLE_MANAGED_BRIDGE_DATA_DIR/runtime/.$1.part"
    mv "$BRINDLE_MANAGED_BRIDGE_DATA_DIR/runtime/.$1.part" "$BRINDLE_MANAGED_BRIDGE_DATA_DIR/runtime/$1"
}
)sh";

std::string preamble(const fs::path& directory) {
    return "HERE='" + directory.string() + "'\n" + std::string(script_functions);
}

/// What a file holds; empty when it is not there, or when its process goes before it has been read.
std::string contentOrNothing(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream content;
    // Unlike iterators, it does not throw when a read fails.
    content << stream.rdbuf();
    return std::move(content).str();
}

std::vector<std::string> splitAtNul(const std::string& text) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, '\0');) parts.push_back(part);
    return parts;
}

bool isNumber(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

WorkerScript::WorkerScript(std::string_view body) {
    const std::string start = "echo $$ >> \"$HERE/starts\"\n";
    path_ = writeScript(directory_.path() / "worker",
                        preamble(directory_.path()) + start + std::string(body) + "\n");
}

void WorkerScript::allow(const std::string& name) const {
    writeFileAtomically(file(name), "");
}

void WorkerScript::waitForMark(const std::string& name) const {
    waitUntil([&] { return hasMarked(name); }, "the worker's mark " + name);
}

bool WorkerScript::hasMarked(const std::string& name) const {
    return fs::exists(file(name));
}

pid_t WorkerScript::waitForPid() const {
    waitUntil([&] { return contentOrNothing(file("starts")).ends_with('\n'); }, "the start of the worker");
    return static_cast<pid_t>(std::stol(readFile(file("starts"))));
}

std::size_t WorkerScript::starts() const {
    const std::string starts = contentOrNothing(file("starts"));
    return static_cast<std::size_t>(std::count(starts.begin(), starts.end(), '\n'));
}

BackendOptions optionsWithWorker(const fs::path& worker) {
    BackendOptions options;
    options.environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
    options.environment["BRINDLE_MANAGED_BRIDGE_WORKER_PATH"] = worker.string();
    return options;
}

fs::path politeWorker(const BackendOptions& options) {
    return options.dataDirectory->path() / "worker.sh";
}

BackendOptions optionsWithPoliteWorker() {
    BackendOptions options;
    const auto worker =
        writeScript(politeWorker(options),
                    "trap 'echo asked >\"$BRINDLE_MANAGED_BRIDGE_DATA_DIR/worker-was-asked\"; exit 0' TERM\n"
                    "echo ready >\"$BRINDLE_MANAGED_BRIDGE_DATA_DIR/worker-ready\"\n"
                    "while :; do sleep 0.05; done");
    options.environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
    options.environment["BRINDLE_MANAGED_BRIDGE_WORKER_PATH"] = worker;
    return options;
}

fs::path writePlainWorker(const fs::path& file) {
    return writeProgram(file, "#!/usr/bin/tail -f\n");
}

BystanderProcess::BystanderProcess(std::string_view script) {
    const std::string text = preamble(directory_.path()) + std::string(script) + "\n";
    std::string shell = "/bin/sh";
    std::string command = "-c";
    std::string body = text;
    char* const arguments[] = {shell.data(), command.data(), body.data(), nullptr};
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    const int error = posix_spawn(&pid_, shell.c_str(), nullptr, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) throw TestFailure("cannot start /bin/sh: " + std::generic_category().message(error));
    reaper_ = std::thread([this] {
        int status = 0;
        // The end is noticed first and the process reaped under the lock, so that a signal never reaches a
        // stranger that was given the same id.
        siginfo_t info{};
        while (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
        }
        // What it has started and left behind; until it is reaped, the number of its group is nobody else's.
        kill(-pid_, SIGKILL);
        const std::lock_guard lock(mutex_);
        while (waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
        }
        status_ = WIFSIGNALED(status) ? killedBy(WTERMSIG(status)) : exitedWith(WEXITSTATUS(status));
        ended_ = true;
    });
}

BystanderProcess::~BystanderProcess() {
    {
        const std::lock_guard lock(mutex_);
        if (!ended_) kill(-pid_, SIGKILL);
    }
    reaper_.join();
}

bool BystanderProcess::hasEnded() const {
    const std::lock_guard lock(mutex_);
    return ended_;
}

ExitStatus BystanderProcess::waitForEnd() {
    waitUntil([&] { return hasEnded(); }, "the end of process " + std::to_string(pid_));
    const std::lock_guard lock(mutex_);
    return status_;
}

void BystanderProcess::waitForMark(const std::string& name) const {
    waitUntil([&] { return hasMarked(name); }, "the mark " + name);
}

bool BystanderProcess::hasMarked(const std::string& name) const {
    return fs::exists(directory_.path() / name);
}

void makeVanish(const fs::path& directory) {
    const TemporaryDirectory elsewhere;
    std::error_code error;
    fs::rename(directory, elsewhere.path() / "vanished", error);
    if (error) throw TestFailure("cannot move " + directory.string() + " away: " + error.message());
}

pid_t parentOf(pid_t pid) {
    const std::string stat = contentOrNothing("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t name_end = stat.rfind(')');
    if (name_end == std::string::npos) return 0;
    std::istringstream fields(stat.substr(name_end + 1));
    std::string state;
    pid_t parent = 0;
    fields >> state >> parent;
    return parent;
}

std::vector<pid_t> childrenOf(pid_t parent) {
    std::vector<pid_t> children;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (!isNumber(name)) continue;
        const auto pid = static_cast<pid_t>(std::stol(name));
        if (parentOf(pid) == parent) children.push_back(pid);
    }
    return children;
}

pid_t waitForOnlyChild(pid_t parent) {
    pid_t child = 0;
    const auto only_child_runs = [&] {
        const std::vector<pid_t> children = childrenOf(parent);
        if (children.size() != 1) return false;
        child = children.front();
        const std::string program = programOf(child);
        // The program changes before its arguments and its environment are there.
        return !program.empty() && program != programOf(parent) && isSetUp(child);
    };
    waitUntil(only_child_runs, "the one child of process " + std::to_string(parent));
    return child;
}

std::string programOf(pid_t pid) {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", error);
    return error ? std::string() : program.filename().string();
}

std::map<int, std::string> descriptorsOf(pid_t pid) {
    std::map<int, std::string> descriptors;
    std::error_code gone;
    for (fs::directory_iterator entry("/proc/" + std::to_string(pid) + "/fd", gone);
         !gone && entry != fs::directory_iterator(); entry.increment(gone)) {
        std::error_code closed;
        const fs::path target = fs::read_symlink(entry->path(), closed);
        if (!closed) descriptors[std::stoi(entry->path().filename().string())] = target.string();
    }
    return descriptors;
}

Environment environmentOf(pid_t pid) {
    Environment environment;
    for (const std::string& entry :
         splitAtNul(contentOrNothing("/proc/" + std::to_string(pid) + "/environ"))) {
        const std::size_t equals = entry.find('=');
        if (equals != std::string::npos) environment[entry.substr(0, equals)] = entry.substr(equals + 1);
    }
    return environment;
}

std::vector<std::string> argumentsOf(pid_t pid) {
    return splitAtNul(contentOrNothing("/proc/" + std::to_string(pid) + "/cmdline"));
}

bool isSetUp(pid_t pid) {
    return !argumentsOf(pid).empty() && !environmentOf(pid).empty();
}

std::uint64_t signalSetOf(pid_t pid, std::string_view name) {
    std::istringstream lines(readFile("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(name)) continue;
        const std::string digits = line.substr(line.find_first_not_of("\t ", name.size() + 1));
        return std::stoull(digits, nullptr, 16);
    }
    throw TestFailure("no signal set " + std::string(name) + " of process " + std::to_string(pid));
}

}  // namespace brindle::test

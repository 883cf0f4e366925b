#include "support/WorkerScript.h"

#include <algorithm>

#include "support/Files.h"
#include "support/Waiting.h"

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

}  // namespace

std::string scriptPreamble(const fs::path& directory) {
    return "HERE='" + directory.string() + "'\n" + std::string(script_functions);
}

WorkerScript::WorkerScript(std::string_view body) {
    const std::string start = "echo $$ >> \"$HERE/starts\"\n";
    path_ = writeScript(directory_.path() / "worker",
                        scriptPreamble(directory_.path()) + start + std::string(body) + "\n");
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

}  // namespace brindle::test

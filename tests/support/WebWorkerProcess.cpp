#include "support/WebWorkerProcess.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Sanitizers.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

std::filesystem::path inPlace(const WebWorkerOptions& options, const char* name) {
    return options.place->path() / name;
}

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

WebWorkerOptions::WebWorkerOptions() : place(std::make_shared<TemporaryDirectory>()) {
    auto& environment = process.environment;
    environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
    environment["BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"] = "runtime-worker";
    environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = dataDirectory();
    environment["HOME"] = inPlace(*this, "home");
    environment["XDG_DATA_HOME"] = inPlace(*this, "website-data");
    environment["XDG_CACHE_HOME"] = inPlace(*this, "website-cache");
    if (sanitizerOfExecutables() == Sanitizer::address) {
        // The leak check stops all threads at the end, which the engine's do not survive.
        environment["ASAN_OPTIONS"] += ":detect_leaks=0";
    }
    withHtml("<body></body>");
}

WebWorkerOptions& WebWorkerOptions::withHtml(const std::string& html) {
    const auto file = inPlace(*this, "page.html");
    writeFileAtomically(file, html);
    process.environment["BRINDLE_MANAGED_BRIDGE_WORKER_TEST_HTML_PATH"] = file;
    return *this;
}

WebWorkerOptions& WebWorkerOptions::withUrl(const std::string& url) {
    process.environment.erase("BRINDLE_MANAGED_BRIDGE_WORKER_TEST_HTML_PATH");
    process.environment["BRINDLE_MANAGED_BRIDGE_WORKER_TEST_URL"] = url;
    return *this;
}

WebWorkerOptions& WebWorkerOptions::on(const TestDisplay& display) {
    display.addTo(process.environment);
    return *this;
}

WebWorkerOptions& WebWorkerOptions::unshared(const std::string& namespaces, const std::string& preparation) {
    // Whoever is not root needs a user namespace for any other.
    const std::string options = ::geteuid() == 0 ? namespaces : "--map-root-user " + namespaces;
    process.arguments = {"-c",
                         "exec unshare " + options + " -- sh -e -c '" + preparation + "; exec \"$0\"' \"$0\"",
                         process.executable};
    process.executable = "/bin/sh";
    return *this;
}

WebWorkerOptions& WebWorkerOptions::withoutJournal() {
    if (!std::filesystem::exists("/run/systemd/journal/socket")) return *this;
    return unshared("--mount", "mount -t tmpfs none /run/systemd/journal");
}

WebWorkerProcess::WebWorkerProcess(WebWorkerOptions options, bool underIntermediateParent)
    : options_(std::move(options)), journal_(options_.path("runtime")) {
    auto& environment = options_.process.environment;
    if (!environment.contains("DISPLAY") && !environment.contains("WAYLAND_DISPLAY")) {
        options_.on(TestDisplay::shared());
    }
    process_ = underIntermediateParent ? BackendProcess::startUnderIntermediateParent(options_.process)
                                       : std::make_unique<BackendProcess>(options_.process);
}

WebWorkerProcess::~WebWorkerProcess() {
    const auto processes = tree();
    try {
        if (process_->isRunning()) process_->signal(SIGKILL);
        waitForEnds(processes);
        process_->waitForExit();
    } catch (const TestFailure& failure) {
        ADD_FAILURE() << "the worker does not end cleanly: " << failure.what();
    }
    endAll(processes);
}

std::size_t WebWorkerProcess::waitForState(const std::string& state, std::size_t from) {
    return waitFor([&](const auto& status) { return status["state"] == state; }, "state " + state, from,
                   must_happen_deadline);
}

std::size_t WebWorkerProcess::waitForDetail(const std::string& text, std::size_t from,
                                            std::chrono::milliseconds timeout) {
    return waitFor([&](const auto& status) { return holds(status["detail"], text); }, text, from, timeout);
}

std::size_t WebWorkerProcess::waitFor(const StatusJournal::Predicate& predicate, const std::string& what,
                                      std::size_t from, std::chrono::milliseconds timeout) {
    try {
        return journal_.waitFor(predicate, from, timeout);
    } catch (const TestFailure& failure) {
        throw TestFailure("sought: " + what + "\n" + failure.what() + "\nstandard error:\n" +
                          process_->standardError());
    }
}

void WebWorkerProcess::waitUntil(const std::function<bool()>& condition, std::string_view what) {
    try {
        test::waitUntil(condition, what);
    } catch (const TestFailure& failure) {
        throw TestFailure(std::string(failure.what()) + "\nworker statuses:" + journal_.listed() +
                          "\nstandard error:\n" + process_->standardError());
    }
}

void WebWorkerProcess::waitForMoreStatuses(std::size_t count) {
    const auto wanted = journal_.size() + count;
    waitUntil([&] { return journal_.size() >= wanted; }, "further worker statuses");
}

void WebWorkerProcess::control(const Json& activeScope, const std::string& platform) {
    Json record = {{"platform", platform}, {"updatedAtISO8601", "2026-01-05T09:30:00Z"}};
    if (!activeScope.isNull()) record["activeScope"] = activeScope;
    writeFileAtomically(path("runtime/worker-control.json"), record.dump(2));
}

void WebWorkerProcess::watch(const std::string& title, const std::string& id) {
    control({{"kind", "conversation"}, {"id", id}, {"title", title}});
}

void WebWorkerProcess::watchUntilOpen(const std::string& title, const std::string& id) {
    const auto from = journal_.size();
    watch(title, id);
    // Not the chat that was watched until now. A line end is a space where the page shows it, and of a long
    // title a sentence has the beginning.
    constexpr std::size_t characters_that_tell_titles_apart = 100;
    const auto beginning = title.substr(0, std::min(title.find('\n'), characters_that_tell_titles_apart));
    waitForDetail("Watching chat '" + beginning, from);
}

std::vector<Json> WebWorkerProcess::waitForRecords(std::size_t count) {
    std::vector<std::string> names;
    waitUntil(
        [&] {
            names = visibleNamesIn(path("inbound"));
            return names.size() >= count;
        },
        std::to_string(count) + " inbound records");
    if (names.size() != count) throw TestFailure(std::to_string(names.size()) + " inbound records");
    std::vector<Json> records;
    for (const auto& name : names) {
        records.push_back(readJsonFile(path("inbound") / name));
        EXPECT_EQ(name, records.back()["messageId"].get<std::string>() + ".json");
    }
    return records;
}

std::vector<std::string> WebWorkerProcess::waitForTexts(std::size_t count) {
    std::vector<std::string> texts;
    for (const auto& record : waitForRecords(count)) texts.push_back(record["text"]);
    return texts;
}

pid_t WebWorkerProcess::waitForWebProcess(pid_t previous) {
    pid_t found = -1;
    waitUntil(
        [&] {
            for (const pid_t process : processesNamed(pid(), web_process_name)) {
                if (process != previous) found = process;
            }
            return found > 0;
        },
        "the page's process");
    return found;
}

std::vector<pid_t> WebWorkerProcess::tree() const {
    return processTree(pid());
}

ExitStatus WebWorkerProcess::terminate() {
    process_->signal(SIGTERM);
    return process_->waitForExit();
}

}  // namespace brindle::test

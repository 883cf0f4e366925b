#include "storm/Round.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <thread>
#include <utility>

#include "storm/Executioner.h"
#include "storm/PlayedParent.h"
#include "support/BackendLines.h"
#include "support/Executables.h"
#include "support/Files.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/TestDisplay.h"
#include "support/WebWorkerProcess.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds end_deadline{30};
/// A kill that has not come by then is done.
constexpr milliseconds longest_traffic{900};
constexpr milliseconds longest_traffic_with_engine{4000};
constexpr const char* exit_status_of_killed = "137";

/// Shows a message every now and then, whose number is the time: unlike any before, also after a reload.
constexpr const char* chatty_page = R"js(
client.chats(['Family', 'Team Room']);
let last = 0;
setInterval(() => {
    last = Math.max(last + 1, Date.now() * 1000);
    client.receive('Team Room', { id: 'g' + last, sender: 'Ada', text: 'g' + last });
}, 40);
)js";

bool killsAnEnd(Victim victim) {
    return victim == Victim::backend || victim == Victim::parent;
}

std::int64_t pageTime() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count() * 1000;
}

PlayedParent playedParent(const LifePlan* plan) {
    PlayedParent parent{.backend = backendExecutable()};
    if (plan == nullptr) return parent;
    parent.chunkBytes = plan->parentChunkBytes;
    parent.restMicroseconds = plan->parentRestMicroseconds;
    if (!killsAnEnd(plan->victim)) return parent;
    parent.kills =
        plan->victim == Victim::parent ? PlayedParent::Kills::itself : PlayedParent::Kills::backend;
    if (plan->point.after == KillPoint::After::bytesToBackend) parent.bytesToBackend = plan->point.count;
    if (plan->point.after == KillPoint::After::bytesToParent) parent.bytesToParent = plan->point.count;
    return parent;
}

}  // namespace

void Tally::add(const Tally& other) {
    for (const auto& [victim, count] : other.kills) kills[victim] += count;
    rounds += other.rounds;
    delivered += other.delivered;
    sent += other.sent;
    repeated += other.repeated;
    temporaries += other.temporaries;
}

std::string Tally::asText() const {
    std::ostringstream text;
    text << rounds << ' ' << delivered << ' ' << sent << ' ' << repeated << ' ' << temporaries;
    for (const Victim victim : all_victims) text << ' ' << (kills.contains(victim) ? kills.at(victim) : 0);
    return text.str();
}

Tally Tally::from(const std::string& text) {
    Tally tally;
    std::istringstream words(text);
    words >> tally.rounds >> tally.delivered >> tally.sent >> tally.repeated >> tally.temporaries;
    for (const Victim victim : all_victims) words >> tally.kills[victim];
    return tally;
}

Round::Round(RoundPlan plan)
    : plan_(std::move(plan)),
      random_(plan_.seed + 1),
      data_(std::make_shared<TemporaryDirectory>()),
      ledger_(data_->path()) {
    makeDirectories();
    watch_ = std::make_unique<DirectoryWatch>(data_->path());
    if (plan_.worker == WorkerKind::web) page_.emplace(chatty_page);
}

void Round::makeDirectories() const {
    for (const char* name : {"inbound", "outbound", "processed", "rejected",
                             "runtime/worker-processed-outbound", "runtime/worker-rejected-outbound"}) {
        fs::create_directories(data_->path() / name);
    }
}

BackendOptions Round::options(const LifePlan* plan) const {
    BackendOptions options;
    if (plan_.worker == WorkerKind::web) addWebWorker(options);
    auto& environment = options.environment;
    if (plan_.worker == WorkerKind::native) {
        environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
        environment["BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH"] = nativeWorkerExecutable();
    }
    options.dataDirectory = data_;
    environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = data_->path();
    options.executable = "/proc/self/exe";
    options.arguments = playedParent(plan).arguments();
    return options;
}

void Round::addWebWorker(BackendOptions& options) const {
    options = WebWorkerOptions().withUrl(page_->url()).on(TestDisplay::shared()).process;
    auto& environment = options.environment;
    environment.erase("BRINDLE_MANAGED_BRIDGE_WORKER_ROLE");
    environment["BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER"] = "1";
    environment["BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER"] = "1";
    for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
        environment[name] = home_.path() / name;
}

Tally Round::run() {
    for (const auto& plan : plan_.lives) runCutLife(plan);
    runWholeLife();
    tally_.rounds = 1;
    tally_.delivered = ledger_.delivered();
    tally_.sent = ledger_.sent();
    tally_.repeated = ledger_.repeated();
    tally_.temporaries = ledger_.temporaries();
    return tally_;
}

Round::Life Round::start(const LifePlan* plan) {
    Life life;
    life.process = std::make_unique<BackendProcess>(options(plan));
    const std::string prefix = backend_process_prefix;
    const auto told = life.process->waitForStandardErrorWhere([&](const std::string& text) {
        const auto start = text.find(prefix);
        return start != std::string::npos && text.find('\n', start) != std::string::npos;
    });
    life.backend = std::stoi(told.substr(told.find(prefix) + prefix.size()));
    send(life, connectRequest().dump());
    send(life, startListeningRequest(conversationScope()).dump());
    return life;
}

void Round::runCutLife(const LifePlan& plan) {
    placeInbound(plan.backlog);
    auto life = start(&plan);
    {
        Executioner executioner(plan, life.process->pid(), life.backend, random_.below(1000), *watch_);
        const auto deadline =
            steady_clock::now() +
            (plan_.worker == WorkerKind::web ? longest_traffic_with_engine : longest_traffic);
        const auto isOver = [&] { return executioner.isDone() || !life.process->isRunning(); };
        while (!isOver() && steady_clock::now() < deadline) makeTraffic(life);
        if (!isOver()) executioner.killNow();
        waitUntil(isOver, "the victim to be killed", end_deadline);
        life.killed = executioner.program();
    }
    ++tally_.kills[plan.victim];
    if (!killsAnEnd(plan.victim)) goOnWithoutVictim(life, plan);
    end(life, &plan);
}

/// The backend lives on without its worker, or with an engine that has to be started again.
void Round::goOnWithoutVictim(Life& life, const LifePlan& plan) {
    for (int i = 0; i < 3; ++i) makeTraffic(life);
    placeInbound(1);
    const auto last = Message{Series::inbound, numbers_[Series::inbound] - 1};
    const auto file = data_->path() / "processed" / (last.identifier() + ".json");
    waitFor(
        life, [&] { return fs::exists(file); }, "a delivery after the kill");
    if (plan.victim != Victim::engine || !random_.isOneIn(4)) return;
    const auto now = pageTime();
    waitFor(
        life, [&] { return hasMessageOfPageAfter(life, now) || hasNoWorker(); }, "the page to be shown anew");
}

/// What killed writers have left. A helper that writes has one at times, too.
std::vector<fs::path> Round::temporaries() const {
    std::vector<fs::path> found;
    for (const char* directory : {"inbound", "outbound", "processed", "rejected", "runtime"}) {
        for (const auto& name : namesIn(data_->path() / directory)) {
            if (name.starts_with(".brindle-")) found.push_back(data_->path() / directory / name);
        }
    }
    return found;
}

/// As if the last kill had been long ago.
void Round::ageTemporaries() const {
    constexpr std::chrono::minutes age{2};
    for (const auto& file : temporaries()) fs::last_write_time(file, fs::file_time_type::clock::now() - age);
}

void Round::runWholeLife() {
    ageTemporaries();
    auto life = start(nullptr);
    placeInbound(2);
    request(life, {Series::outbound, numbers_[Series::outbound]++});
    mark(life);
    const auto isAnswered = [&] {
        return life.process->rawOutput().find(R"({"error":)") != std::string::npos;
    };
    waitFor(life, isAnswered, "the answer to a line that is no request");
    if (plan_.worker == WorkerKind::web) {
        const auto now = pageTime();
        waitFor(
            life, [&] { return hasMessageOfPageAfter(life, now); }, "a message that the page shows now");
    } else {
        waitFor(
            life, [&] { return isIdle(); }, "everything to be carried out");
    }
    // It goes through the directories a few files at a time.
    waitFor(
        life, [&] { return temporaries().empty(); }, "the temporary files of killed writers to go");
    end(life, nullptr);
}

bool Round::isIdle() const {
    // The worker writes its echo before it files the message away.
    if (plan_.worker == WorkerKind::native && !visibleNamesIn(data_->path() / "outbound").empty())
        return false;
    return visibleNamesIn(data_->path() / "inbound").empty();
}

bool Round::hasMessageOfPageAfter(const Life& life, std::int64_t time) {
    const std::string beginning = "\"text\":\"";
    const auto name = Message{Series::page, time}.text();
    const auto isLater = [&](const std::string& line) {
        const auto start = line.find(beginning + static_cast<char>(Series::page));
        return start != std::string::npos && line.substr(start + beginning.size(), name.size()) >= name;
    };
    const auto lines = life.process->receivedLines();
    return std::any_of(lines.begin(), lines.end(), isLater);
}

/// An engine of which a process dies while it starts takes the worker with it, which the backend tells.
bool Round::hasNoWorker() const {
    return readJsonFile(data_->path() / "runtime/runtime-status.json").at("workerState") == "exited";
}

void Round::end(Life& life, const LifePlan* plan) {
    const bool isKilled = plan != nullptr && killsAnEnd(plan->victim);
    if (!isKilled) life.process->closeInput();
    const auto status = life.process->waitForExit(end_deadline);
    std::vector<std::string> problems;
    const auto expected = !isKilled                        ? exitedWith(0)
                          : plan->victim == Victim::parent ? killedBy(SIGKILL)
                                                           : exitedWith(std::stoi(exit_status_of_killed));
    if (status != expected) problems.emplace_back("the helper or its parent ended with another status");
    requireEndOfAllProcesses();
    watch_->catchUp();
    const auto settled = ledger_.settle({.output = life.process->rawOutput(),
                                         .mayBeRepeated = isKilled ? std::size_t{1} : 0,
                                         .isWhole = plan == nullptr,
                                         .hasNativeWorker = plan_.worker == WorkerKind::native});
    problems.insert(problems.end(), settled.begin(), settled.end());
    const auto seen = watch_->problems();
    problems.insert(problems.end(), seen.begin(), seen.end());
    requireProblemFree(life, problems);
}

void Round::requireEndOfAllProcesses() {
    const auto isAlone = [] {
        while (::waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        return childrenOf(::getpid()).empty();
    };
    try {
        waitUntil(isAlone, "the end of every process", end_deadline);
    } catch (const TestFailure&) {
        std::string left;
        for (const pid_t process : processTree(::getpid())) {
            if (process != ::getpid())
                left += " " + programOf(process) + " (" + std::to_string(process) + ")";
        }
        throw TestFailure("processes were left behind:" + left);
    }
}

void Round::requireProblemFree(const Life& life, std::vector<std::string> problems) const {
    if (problems.empty()) return;
    constexpr std::size_t shown = 20;
    std::ostringstream text;
    text << problems.size() << " problems:\n";
    problems.resize(std::min(problems.size(), shown));
    for (const auto& problem : problems) text << "- " << problem << "\n";
    throw TestFailure(text.str() + story(life));
}

void Round::waitFor(const Life& life, const std::function<bool()>& condition, const std::string& what) const {
    try {
        waitUntil(condition, what);
    } catch (const TestFailure& failure) {
        throw TestFailure(std::string(failure.what()) + "\n" + story(life));
    }
}

/// What the helper has said, without its words about the garbage that it was given.
std::string Round::story(const Life& life) const {
    std::string text = "Killed: " + (life.killed.empty() ? "nobody, or by the parent" : life.killed) + "\n" +
                       contentOrNothing(data_->path() / "runtime/runtime-status.json") +
                       "\nStandard error:\n";
    const auto garbage = " rejected inbound event at " + std::string(1, static_cast<char>(Series::garbage));
    for (const auto& line : life.process->standardErrorLines()) {
        if (line.find(garbage) == std::string::npos) text += line + "\n";
    }
    return text;
}

void Round::makeTraffic(Life& life) {
    constexpr std::int64_t largest_burst = 20;
    switch (random_.below(8)) {
        case 0:
        case 1:
            return placeInbound(random_.magnitude(1, largest_burst));
        case 2:
            return placeGarbage();
        case 3:
        case 4: {
            const auto count = random_.magnitude(1, largest_burst);
            for (std::int64_t i = 0; i < count; ++i)
                request(life, {Series::outbound, numbers_[Series::outbound]++});
            return;
        }
        case 5:
            return mark(life);
        default:
            pause();
    }
}

void Round::placeInbound(std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) {
        const Message message{Series::inbound, numbers_[Series::inbound]++};
        const auto identifier = message.identifier();
        writeFileAtomically(data_->path() / "inbound" / (identifier + ".json"),
                            inboundRecord(identifier, message.text()).dump(2));
        ledger_.placed(message);
    }
}

void Round::placeGarbage() {
    const Message message{Series::garbage, numbers_[Series::garbage]++};
    writeFileAtomically(data_->path() / "inbound" / (message.identifier() + ".json"), message.text());
}

void Round::request(Life& life, const Message& message) {
    ledger_.requested(message);
    send(life, sendMessageRequest(teamRoomMessage(message.text())).dump());
}

/// A line that is no request: the answer tells that everything before it has been carried out.
void Round::mark(Life& life) {
    ledger_.marked();
    send(life, "no request");
}

void Round::send(Life& life, const std::string& line) {
    if (!life.takesRequests) return;
    try {
        life.process->send(line);
    } catch (const TestFailure&) {
        if (life.process->isRunning())
            waitUntil([&] { return !life.process->isRunning(); }, "the parent's end", end_deadline);
        life.takesRequests = false;
    }
}

void Round::pause() {
    constexpr std::int64_t longest_pause_microseconds = 30'000;
    std::this_thread::sleep_for(std::chrono::microseconds(random_.magnitude(50, longest_pause_microseconds)));
}

}  // namespace brindle::test

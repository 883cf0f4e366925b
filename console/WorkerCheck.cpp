#include "console/WorkerCheck.h"

#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <vector>

#include "console/LaunchTicket.h"
#include "console/OutboundTrial.h"
#include "console/Timestamps.h"
#include "console/WorkerTrial.h"
#include "exchange/EnvironmentKeys.h"
#include "exchange/ExchangeWords.h"
#include "exchange/RecordFiles.h"
#include "system/Clock.h"
#include "system/Paths.h"
#include "system/Polling.h"
#include "system/ProcessFacts.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

constexpr std::string_view other_platform = "another-platform";
constexpr std::string_view watched_conversation = "check-worker";
constexpr int heartbeats_to_see = 2;
/// What a worker prints, in both of its runs.
constexpr std::size_t most_shown_bytes = std::size_t{1} << 20U;

template <class Words>
bool isOneOf(const Words& words, std::string_view word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

bool isAboutAChat(std::string_view state) {
    using namespace worker_state;
    return isOneOf(std::array{activating_chat, watching_chat, wrong_chat, no_active_chat}, state);
}

bool isLoggedIn(std::string_view state) {
    return state == worker_state::linked || isAboutAChat(state);
}

/// One run of the worker, and what is found in it.
class WorkerCheck {
  public:
    WorkerCheck(const WorkerCheckOptions& options, const TerminationSignals& signals)
        : options_(options), signals_(signals) {}

    Findings run() {
        if (checkProgram()) {
            checkFirstRun();
            checkEndOfBackend();
        }
        return std::move(findings_);
    }

  private:
    /// A data directory of its own for each run, so that what one leaves does not disturb the other.
    DataDirectory directory(std::string_view name) {
        Environment environment;
        environment.insert_or_assign(std::string(environment_key::data_directory),
                                     joinedPath(ticket_.dataDirectory(), name));
        DataDirectory directory(environment, files_, options_.platform);
        directory.createForBackend(files_);
        return directory;
    }

    WorkerTrialUses uses(const DataDirectory& directory) {
        return {.worker = options_.worker,
                .platform = options_.platform,
                .environment = options_.environment,
                .directory = directory,
                .fileManager = files_,
                .signals = signals_,
                .patience = options_.patience,
                .onOutput = [this](std::string_view line) { show(line); }};
    }

    /// A worker that prints without end must not fill a terminal, or a disk, before it is found out.
    void show(std::string_view line) {
        if (shownBytes_ > most_shown_bytes) return;
        shownBytes_ += line.size() + 1;
        options_.onOutput(shownBytes_ > most_shown_bytes ? "(It prints more than is shown here.)" : line);
    }

    std::string inTime() const { return " within " + shortDuration(options_.patience); }
    void ok(std::string_view point, std::string what) {
        findings_.push_back(Finding::ok(point, std::move(what)));
    }
    void note(std::string_view point, std::string what, std::string meaning) {
        findings_.push_back(
            Finding::note(point, std::move(what), std::move(meaning), "Nothing, if that is meant."));
    }
    void problem(std::string_view point, std::string what, std::string meaning, std::string remedy) {
        findings_.push_back(Finding::problem(point, std::move(what), std::move(meaning), std::move(remedy)));
    }

    void control(const DataDirectory& directory, std::string_view platform, bool isWatched) {
        ManagedWhatsAppWorkerControlRecord record{.platform = std::string(platform),
                                                  .activeScope = std::nullopt,
                                                  .updatedAtISO8601 = iso8601(SystemClock().now())};
        if (isWatched) {
            record.activeScope = ManagedWhatsAppWorkerControlScope::from(BridgeConversationScope{
                .id = std::string(watched_conversation), .title = std::string(watched_conversation)});
        }
        writeRecord(files_, directory.workerControlFile, record, Durability::process);
    }

    bool checkProgram() {
        if (files_.isExecutableFile(options_.worker)) return true;
        problem("start", "The worker " + options_.worker + " may not be executed.",
                "A helper calls it \"misconfigured\" and runs without a worker.",
                "Make it executable (chmod +x).");
        return false;
    }

    void checkFirstRun() {
        const auto place = directory("first");
        control(place, other_platform, true);
        OutboundTrial outbound(files_, place, watched_conversation);
        WorkerTrial trial(uses(place), WorkerTrial::Parent::console);
        if (!checkStart(trial)) return;
        checkIdentifier(trial);
        if (checkStatus(trial)) checkHeartbeat(trial);
        const bool isReady = trial.waitFor([&] { return isLoggedIn(stateOf(trial)); });
        if (isReady) {
            checkControl(trial, place);
            findings_.push_back(outbound.check(trial));
            findings_.push_back(outbound.checkBadRecord(trial));
            findings_.push_back(outbound.checkStrangers());
            findings_.push_back(outbound.checkInbound(trial));
            checkEndOfScope(trial, place);
        } else if (!trial.hasEnded()) {
            const auto state = stateOf(trial);
            note("login",
                 (state.empty() ? "The worker says no state" : "The worker's state is \"" + state + "\"") +
                     inTime() + ".",
                 "Control, outbound and inbound were not examined: they need an account that is linked.");
        }
        checkEnd(trial, place);
    }

    static std::string stateOf(const WorkerTrial& trial) {
        const auto status = trial.status();
        return status ? status->state : "";
    }

    bool checkStart(WorkerTrial& trial) {
        constexpr std::string_view point = "start";
        trial.waitFor([&] { return trial.status() || trial.recordedIdentifier(); });
        if (!trial.hasEnded()) {
            ok(point, "The worker runs (process " + std::to_string(trial.processIdentifier()) + ").");
            return true;
        }
        problem(point, "The worker " + trial.end().description() + " right after its start.",
                "The runtime status says \"exited\", and no message comes in.",
                "Look at what it printed; let it report what cannot be done yet as the state \"error\".");
        return false;
    }

    void checkIdentifier(WorkerTrial& trial) {
        constexpr std::string_view point = "worker.pid";
        constexpr const char* remedy =
            "Write your process id in decimal digits, and nothing else, when you start.";
        // Kept as it was found: the worker may take it away at any time.
        std::optional<pid_t> recorded;
        const auto isFound = [&] { return (recorded = trial.recordedIdentifier()).has_value(); };
        if (!trial.waitFor(isFound)) {
            return problem(
                point, "There is no runtime/worker.pid with a process id" + inTime() + ".",
                "A worker that a killed backend leaves is not found and works beside its successor.", remedy);
        }
        const auto number = *recorded;
        if (number == trial.processIdentifier()) return ok(point, "worker.pid names the worker.");
        problem(point,
                "worker.pid names process " + std::to_string(number) + ", not the one that was started.",
                "The backend would end the wrong process.",
                std::string(remedy) + " A script starts the worker with exec.");
    }

    /// Whether there is one.
    bool checkStatus(WorkerTrial& trial) {
        constexpr std::string_view point = "status";
        std::optional<ManagedWhatsAppWorkerStatusRecord> found;
        if (!trial.waitFor([&] { return (found = trial.status()).has_value(); })) {
            problem(point, "There is no runtime/worker-status.json that can be decoded" + inTime() + ".",
                    "Nobody sees how the worker is doing.",
                    "Write state, supportsLiveCapture and supportsOutbound, in one step.");
            return false;
        }
        const auto& status = *found;
        if (isOneOf(worker_state::worker_words, status.state)) {
            ok(point, "worker-status.json can be decoded; the state is \"" + status.state + "\".");
            return true;
        }
        problem(point, "The state \"" + status.state + "\" is none of the words for it.",
                "Whoever watches the status does not know what to do.",
                "Use one of the states of the worker guide, and detail for the rest.");
        return true;
    }

    void checkHeartbeat(WorkerTrial& trial) {
        constexpr std::string_view point = "heartbeat";
        constexpr const char* remedy =
            "Write worker-status.json at least once a second with the time in lastHeartbeatISO8601, in UTC with whole "
            "seconds.";
        constexpr const char* meaning = "The worker seems to be dead.";
        if (!trial.waitForHeartbeats(heartbeats_to_see)) {
            return problem(point, "The heartbeat does not move" + inTime() + ".", meaning, remedy);
        }
        const auto text = trial.status().value_or(ManagedWhatsAppWorkerStatusRecord{}).lastHeartbeatISO8601;
        if (text && parsedTimestamp(*text)) return ok(point, "The heartbeat moves.");
        problem(point, "The heartbeat \"" + text.value_or("") + "\" is no time.", meaning, remedy);
    }

    void checkControl(WorkerTrial& trial, const DataDirectory& place) {
        constexpr std::string_view point = "control";
        // As long as it has had since its start, and a little more.
        trial.waitForHeartbeats(heartbeats_to_see);
        if (isAboutAChat(stateOf(trial))) {
            return problem(point, "The worker watches a chat by a control record for another platform.",
                           "Workers of two platforms would mix up their chats.",
                           "Ignore control records whose platform is not yours.");
        }
        control(place, options_.platform, true);
        if (trial.waitFor([&] { return isAboutAChat(stateOf(trial)); })) {
            return ok(point, "The worker watches the chat that it was told to (\"" + stateOf(trial) + "\").");
        }
        problem(point,
                "The state stays \"" + stateOf(trial) + "\" when a chat is to be watched" + inTime() + ".",
                "No message of the chat comes in.",
                "Read runtime/worker-control.json at least once a second, and say watching_chat.");
    }

    void checkEndOfScope(WorkerTrial& trial, const DataDirectory& place) {
        constexpr std::string_view point = "control-end";
        control(place, options_.platform, false);
        // One that cannot be read says nothing.
        const auto hasStopped = [&] {
            const auto status = trial.status();
            return status && !isAboutAChat(status->state);
        };
        if (trial.waitFor(hasStopped)) {
            return ok(point, "The worker stops watching when there is nothing to watch.");
        }
        problem(point,
                "The state stays \"" + stateOf(trial) + "\" when nothing is to be watched any more" +
                    inTime() + ".",
                "Messages go on coming in that nobody wants.",
                "A control record without activeScope means that there is nothing to watch.");
    }

    void checkEnd(WorkerTrial& trial, const DataDirectory& place) {
        constexpr std::string_view point = "SIGTERM";
        constexpr const char* remedy = "End within a second with status 0 on SIGTERM.";
        constexpr const char* meaning = "The worker works beside its successor, on the same records.";
        const bool hasToClear =
            files_.fileExists(place.workerPIDFile) || files_.fileExists(place.workerStatusFile);
        trial.signal(SIGTERM);
        if (!trial.waitFor([&] { return trial.hasEnded(); })) {
            return problem(point, "The worker still runs after SIGTERM" + inTime() + ".", meaning, remedy);
        }
        const auto end = trial.end();
        if (end == ProcessEnd::exit(0)) {
            ok(point, "The worker ends on SIGTERM with status 0.");
        } else {
            problem(point, "On SIGTERM the worker " + end.description() + ".",
                    "It is taken for one that has failed.", remedy);
        }
        if (hasToClear) checkClearing(place);
    }

    void checkClearing(const DataDirectory& place) {
        constexpr std::string_view point = "clearing-up";
        std::string left;
        for (const auto* file : {&place.workerPIDFile, &place.workerStatusFile}) {
            if (!files_.fileExists(*file)) continue;
            left.append(left.empty() ? "" : " and ").append(lastPathComponent(*file));
        }
        if (left.empty()) return ok(point, "The worker takes worker.pid and worker-status.json away.");
        problem(point, "The worker leaves " + left + " behind.", "What it said last seems to be true still.",
                "Remove both at the end, but only while worker.pid has your id.");
    }

    void checkEndOfBackend() {
        constexpr std::string_view point = "backend-end";
        const auto place = directory("second");
        control(place, options_.platform, false);
        WorkerTrial trial(uses(place), WorkerTrial::Parent::another);
        // Any other process has nothing to do with it, and must not be ended.
        std::optional<pid_t> number;
        const auto isFound = [&] {
            number = trial.recordedIdentifier();
            const auto facts = number ? processFacts(*number, files_) : std::nullopt;
            return facts && facts->parent == trial.processIdentifier();
        };
        if (!trial.waitFor(isFound)) {
            return note(point, "worker.pid does not name the worker, which cannot be found without it.",
                        "Whether it ends with its backend was not examined.");
        }
        const auto worker = processEndDescriptor(*number);
        trial.takeParentAway();
        const auto hasEnded = [&] {
            pollfd end{.fd = worker.get(), .events = POLLIN, .revents = 0};
            return polled({&end, 1}, 0) > 0;
        };
        if (trial.waitFor(hasEnded)) return ok(point, "The worker ends when its backend is gone.");
        signalProcess(worker, SIGKILL);
        problem(
            point, "The worker still runs after its backend is gone" + inTime() + ".",
            "It works beside its successor, on the same records.",
            "Look once a second whether your parent is still BRINDLE_MANAGED_BRIDGE_PARENT_PID, and end when it is not.");
    }

    const WorkerCheckOptions& options_;
    const TerminationSignals& signals_;
    PosixFileManager files_;
    LaunchTicket ticket_;
    Findings findings_;
    std::size_t shownBytes_ = 0;
};

}  // namespace

Findings checkedWorker(const WorkerCheckOptions& options, const TerminationSignals& signals) {
    return WorkerCheck(options, signals).run();
}

}  // namespace brindle::console

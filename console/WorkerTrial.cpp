#include "console/WorkerTrial.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include "exchange/EnvironmentKeys.h"
#include "exchange/WorkerProcessFile.h"
#include "system/Polling.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

constexpr std::chrono::milliseconds look_interval{20};

Environment workerEnvironment(const WorkerTrialUses& uses) {
    namespace key = environment_key;
    auto environment = uses.environment;
    for (const auto unwanted : {key::worker_role, key::launch_token, key::launch_token_file}) {
        environment.erase(std::string(unwanted));
    }
    environment.insert_or_assign(std::string(key::data_directory), uses.directory.path);
    environment.insert_or_assign(std::string(key::platform), uses.platform);
    environment.insert_or_assign(std::string(key::parent_process), std::to_string(::getpid()));
    environment.insert_or_assign(std::string(key::worker_implementation),
                                 std::string(key::native_worker_implementation));
    return environment;
}

ChildProcess::Options launch(const WorkerTrialUses& uses, WorkerTrial::Parent parent) {
    ChildProcess::Options options{.executable = uses.worker,
                                  .environment = workerEnvironment(uses),
                                  .standardInput = ChildProcess::StandardInput::pipe,
                                  .processGroup = ChildProcess::ProcessGroup::own};
    if (parent == WorkerTrial::Parent::console) return options;
    options.executable = "/bin/sh";
    // The shell stays the worker's parent, so that it can be taken away.
    options.arguments = {"-c", std::string(environment_key::parent_process) + "=$$ \"$1\" & wait", "sh",
                         uses.worker};
    return options;
}

}  // namespace

WorkerTrial::WorkerTrial(WorkerTrialUses uses, Parent parent)
    : uses_(std::move(uses)),
      outbound_(uses_.directory.outbound),
      inbound_(uses_.directory.inbound),
      process_(launch(uses_, parent), uses_.onOutput, uses_.onOutput, "worker",
               HelperProcess::longest_diagnostic_bytes) {}

bool WorkerTrial::waitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + uses_.patience;
    for (;;) {
        pump();
        const bool isLastLook =
            (hasEnded() && !isParentGone_) || std::chrono::steady_clock::now() >= deadline;
        takeEvents();
        if (condition()) return true;
        if (isLastLook) return false;
    }
}

void WorkerTrial::takeParentAway() {
    isParentGone_ = true;
    signal(SIGKILL);
}

/// Waits a little, for whatever comes.
void WorkerTrial::pump() {
    std::vector<pollfd> entries;
    entries.push_back({.fd = uses_.signals.descriptor(), .events = POLLIN, .revents = 0});
    entries.push_back({.fd = outbound_.descriptor(), .events = POLLIN, .revents = 0});
    entries.push_back({.fd = inbound_.descriptor(), .events = POLLIN, .revents = 0});
    // One that has gone would wake it up at once, again and again.
    if (!hasEnded()) process_.addPollEntries(entries);
    polled(entries, static_cast<int>(look_interval.count()));
    if (entries.front().revents != 0) throw Failure("The examination of the worker was interrupted.");
    process_.pump();
}

void WorkerTrial::takeEvents() {
    for (auto& event : outbound_.take()) outboundEvents_.push_back(std::move(event));
    for (auto& event : inbound_.take()) inboundEvents_.push_back(std::move(event));
}

std::optional<pid_t> WorkerTrial::recordedIdentifier() const {
    return recordedWorkerProcess(uses_.fileManager, uses_.directory);
}

std::optional<ManagedWhatsAppWorkerStatusRecord> WorkerTrial::status() const {
    try {
        return readRecord<ManagedWhatsAppWorkerStatusRecord>(uses_.fileManager,
                                                             uses_.directory.workerStatusFile);
    } catch (const Failure&) {
        return std::nullopt;
    }
}

bool WorkerTrial::waitForHeartbeats(int count) {
    for (int beat = 0; beat < count; ++beat) {
        const auto before = status();
        const auto last = before ? before->lastHeartbeatISO8601 : std::nullopt;
        const bool hasBeaten = waitFor([&] {
            const auto now = status();
            return now && now->lastHeartbeatISO8601 && now->lastHeartbeatISO8601 != last;
        });
        if (!hasBeaten) return false;
    }
    return true;
}

}  // namespace brindle::console

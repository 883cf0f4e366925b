#include "backend/WorkerSupervisor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <limits>

#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/Pipes.h"
#include "support/Processes.h"
#include "support/TextForms.h"
#include "support/Waiting.h"
#include "support/WantOfMemory.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
namespace key = environment_key;
using test::BackendParts;
using test::linesOf;
using test::waitUntil;
using test::WantOfMemory;
using testing::ElementsAre;
using testing::HasSubstr;

/// A supervisor with its queue, and workers that are shell scripts.
class WorkerSupervisorTests : public testing::Test {
  protected:
    /// Before the supervisor goes: the queue may still be at the end of a worker.
    void TearDown() override { endQueue(); }
    void endQueue() {
        queue_.stop(test::must_happen_deadline);
        queue_.join();
    }
    std::string script(const std::string& body) const {
        return test::writeScript(parts_.home.path() / "worker", body).string();
    }
    void configure(const std::string& path) {
        parts_.environment.insert_or_assign(std::string(key::worker_path), path);
    }
    ManagedWhatsAppWorkerLaunchSnapshot worker() const {
        return parts_.state.takeSnapshot().workerLaunchSnapshot;
    }
    void waitForState(const std::string& state) {
        waitUntil([&] { return worker().state == state; }, state);
    }
    /// Launches a worker that does nothing, and answers its number once it runs.
    pid_t launchReadyWorker() {
        const auto marker = (parts_.home.path() / "ready").string();
        fs::remove(marker);
        configure(script("echo $$ > '" + marker + ".part' && mv '" + marker + ".part' '" + marker +
                         "'; exec sleep 1000"));
        supervisor_.launchWorkerIfConfigured();
        waitUntil([&] { return fs::exists(marker); }, "the worker is ready");
        return static_cast<pid_t>(std::stol(test::readFile(marker)));
    }
    std::string runtimeFile(const std::string& name) const { return parts_.directory.runtime + "/" + name; }
    /// Ends the queue, so that no log line comes after it.
    std::vector<std::string> takeLog() {
        endQueue();
        return linesOf(parts_.streams.text().error);
    }

    BackendParts parts_;
    StatusPublisher publisher_{parts_.forPublisher()};
    SerialQueue queue_{"queue"};
    WorkerSupervisor supervisor_{parts_.forSupervisor(publisher_, queue_)};
};

TEST_F(WorkerSupervisorTests, WithoutConfigurationNothingIsLaunched) {
    parts_.environment.emplace(key::disable_worker, "1");
    test::writeFileAtomically(parts_.directory.workerStatusFile, "{}");
    supervisor_.launchWorkerIfConfigured();
    EXPECT_EQ(worker().configuredExecutablePath, std::nullopt);
    EXPECT_EQ(worker().state, "not_configured");
    EXPECT_EQ(
        worker().detail,
        "No managed WhatsApp worker configured. Install the protocol worker dependencies or provide an explicit worker executable.");
    EXPECT_FALSE(fs::exists(parts_.directory.workerStatusFile));
    EXPECT_EQ(parts_.runtimeStatus()["workerDetail"], *worker().detail);
}

TEST_F(WorkerSupervisorTests, FileThatIsNotExecutableIsAMisconfiguration) {
    const auto path = (parts_.home.path() / "plain").string();
    test::writeFileAtomically(path, "#!/bin/sh\n");
    configure(path);
    supervisor_.launchWorkerIfConfigured();
    const auto detail = "Configured worker executable is not executable: " + path;
    EXPECT_EQ(worker().state, "misconfigured");
    EXPECT_EQ(worker().configuredExecutablePath, path);
    EXPECT_EQ(worker().detail, detail);
    EXPECT_FALSE(worker().processRunning);
    EXPECT_EQ(parts_.runtimeStatus()["workerState"], "misconfigured");
    EXPECT_THAT(takeLog(), ElementsAre("[ManagedWhatsAppBackend] " + detail));
}

TEST_F(WorkerSupervisorTests, WorkerThatCannotBeStartedIsPublishedWithTheReason) {
    const auto path = (parts_.home.path() / "worker").string();
    test::writeFileAtomically(path, "#!/missing/interpreter\n");
    fs::permissions(path, fs::perms::owner_all);
    configure(path);
    supervisor_.launchWorkerIfConfigured();
    const auto detail = "Failed to launch managed WhatsApp worker at " + path + ": No such file or directory";
    EXPECT_EQ(worker().state, "launch_failed");
    EXPECT_EQ(worker().detail, detail);
    EXPECT_THAT(takeLog(), ElementsAre("[ManagedWhatsAppBackend] " + detail));
}

TEST_F(WorkerSupervisorTests, LaunchedWorkerIsPublishedAsRunning) {
    const auto path = script("exec sleep 1000");
    configure(path);
    supervisor_.launchWorkerIfConfigured();
    EXPECT_EQ(worker().state, "launching");
    EXPECT_EQ(worker().detail, "Managed WhatsApp worker launched at " + path + ".");
    EXPECT_TRUE(worker().processRunning);
    EXPECT_EQ(parts_.runtimeStatus()["workerProcessRunning"], true);
    supervisor_.stopWorker();
    EXPECT_EQ(worker().state, "stopped");
    EXPECT_EQ(worker().detail, "Managed WhatsApp worker stopped.");
    EXPECT_FALSE(worker().processRunning);
}

TEST_F(WorkerSupervisorTests, UnexpectedEndIsPublishedWithItsStatus) {
    configure(script("exit 3"));
    supervisor_.launchWorkerIfConfigured();
    waitForState("exited");
    EXPECT_EQ(worker().detail, "Managed WhatsApp worker exited unexpectedly with status 3.");
    EXPECT_THAT(
        takeLog(),
        ElementsAre("[ManagedWhatsAppBackend] Managed WhatsApp worker exited unexpectedly with status 3."));
}

TEST_F(WorkerSupervisorTests, DeathBySignalIsPublishedWithTheSignal) {
    configure(script("kill -KILL $$"));
    supervisor_.launchWorkerIfConfigured();
    waitForState("exited");
    EXPECT_EQ(worker().detail, "Managed WhatsApp worker exited unexpectedly with status 9.");
}

TEST_F(WorkerSupervisorTests, RelaysLinesAndDropsEmptyOnes) {
    configure(script("printf 'a\\n\\n  b  \\n \\t\\n\\377'; printf 'c\\r\\n' >&2"));
    supervisor_.launchWorkerIfConfigured();
    waitForState("exited");
    const auto log = takeLog();
    const std::string output = "[ManagedWhatsAppWorker] ";
    EXPECT_THAT(log, testing::Contains(output + "a"));
    EXPECT_THAT(log, testing::Contains(output + "b"));
    EXPECT_THAT(log, testing::Contains(output + "\uFFFD"));
    EXPECT_THAT(log, testing::Contains("[ManagedWhatsAppWorker][stderr] c"));
    EXPECT_EQ(log.size(), 5U);
}

TEST_F(WorkerSupervisorTests, EverythingWrittenIsRelayedBeforeTheEndIsRecorded) {
    configure(script("i=0; while [ $i -lt 500 ]; do echo line-$i; i=$((i+1)); done; exit 7"));
    supervisor_.launchWorkerIfConfigured();
    waitForState("exited");
    const auto log = takeLog();
    ASSERT_GE(log.size(), 501U);
    EXPECT_THAT(log.back(), HasSubstr("exited unexpectedly with status 7"));
    EXPECT_EQ(log[log.size() - 2], "[ManagedWhatsAppWorker] line-499");
}

/// Diagnostics that nobody reads, until the test does.
class UnreadRelayTests : public WorkerSupervisorTests, public testing::WithParamInterface<std::string> {
  protected:
    void SetUp() override {
        filled_ = test::fill(ends_.writing);
        emitter_.diagnostics().useQueue(queue_);
    }
    void TearDown() override {
        endQueue();
        emitter_.diagnostics().stopUsingQueue();
    }
    WorkerSupervisor::Uses uses() {
        return {.platform = parts_.platform,
                .environment = parts_.environment,
                .directory = parts_.directory,
                .fileManager = parts_.files,
                .clock = parts_.clock,
                .state = parts_.state,
                .publisher = publisher_,
                .emitter = emitter_,
                .log = log_,
                .queue = queue_};
    }

    test::PipeEnds ends_ = test::makePipe();
    std::size_t filled_ = 0;
    ManagedWhatsAppBackendEmitter emitter_{parts_.streams.output(), ends_.writing.get(),
                                           parts_.departureWatch};
    DiagnosticLog log_{emitter_};
    WorkerSupervisor unread_{uses()};
};

/// What the worker says meanwhile is left in its pipe; what still lies there when it ends is not lost.
TEST_P(UnreadRelayTests, LastWordsOfAWorkerAreRelayed) {
    // More than is relayed before that waits, and less than a pipe holds.
    const auto mayEnd = (parts_.home.path() / "may-end").string();
    configure(script("{ yes x 2> /dev/null | head -c 60000; until [ -e '" + mayEnd +
                     "' ]; do sleep 0.01; done; echo last; } >&" + GetParam() + "; exit 7"));
    unread_.launchWorkerIfConfigured();
    waitUntil([this] { return emitter_.diagnostics().isCongested(); }, "much to wait for a reader");
    test::writeFileAtomically(mayEnd, "");
    waitForState("exited");
    std::string received;
    while (!received.ends_with("with status 7.\n")) received += test::readSome(ends_.reading);
    EXPECT_NE(received.find("] last\n", filled_), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Streams, UnreadRelayTests, testing::Values("1", "2"), [](const auto& each) {
    return each.param == "1" ? "StandardOutput" : "StandardError";
});

TEST_F(WorkerSupervisorTests, StoppedWorkerIsNotUnexpected) {
    const auto process = launchReadyWorker();
    supervisor_.stopWorker();
    waitUntil([&] { return ::kill(process, 0) != 0; }, "the worker has ended and was reaped");
    waitForState("stopped");
    EXPECT_THAT(takeLog(), testing::IsEmpty());
}

TEST_F(WorkerSupervisorTests, StopWithoutWorkerSaysThatNoneIsConfigured) {
    supervisor_.stopWorker();
    EXPECT_EQ(worker().state, "not_configured");
    EXPECT_EQ(worker().detail, "No managed WhatsApp worker configured.");
}

TEST_F(WorkerSupervisorTests, StopRemovesTheWorkersFiles) {
    for (const std::string name : {"worker-status.json", "worker.pid", "worker-qr.png"}) {
        test::writeFileAtomically(runtimeFile(name), "x");
    }
    supervisor_.stopWorker();
    EXPECT_FALSE(fs::exists(runtimeFile("worker-status.json")));
    EXPECT_FALSE(fs::exists(runtimeFile("worker.pid")));
    EXPECT_TRUE(fs::exists(runtimeFile("worker-qr.png")));
}

TEST_F(WorkerSupervisorTests, WantOfMemoryDoesNotKeepAWorkerFromBeingStopped) {
    for (const auto persistence : {WantOfMemory::Persistence::once, WantOfMemory::Persistence::fromThenOn}) {
        int allocation = 0;
        bool wasMet = true;
        while (wasMet) {
            const auto process = launchReadyWorker();
            WantOfMemory want(++allocation, persistence);
            supervisor_.stopWorker();
            wasMet = want.end();
            waitUntil([&] { return ::kill(process, 0) != 0; }, "the worker has ended and was reaped");
            waitForState("stopped");
        }
        EXPECT_GT(allocation, 1);
    }
}

TEST_F(WorkerSupervisorTests, WorkerThatCannotBeWatchedForWantOfMemoryDoesNotGoOn) {
    configure(script("exec sleep 1000"));
    // Whatever other tests of this process have left, ended or not.
    const auto others = test::childrenOf(::getpid());
    const auto isOfOthers = [&](pid_t child) {
        return std::find(others.begin(), others.end(), child) != others.end();
    };
    bool wasMet = true;
    int allocation = 0;
    while (wasMet) {
        {
            WantOfMemory want(++allocation);
            try {
                supervisor_.launchWorkerIfConfigured();
            } catch (const std::exception&) {
                // The backend says so and ends.
            }
            wasMet = want.end();
        }
        // One that is published as running is watched, so that it can be stopped; no other may be there.
        if (worker().processRunning) supervisor_.stopWorker();
        waitUntil(
            [&] {
                const auto children = test::childrenOf(::getpid());
                return std::all_of(children.begin(), children.end(), isOfOthers);
            },
            "the end of the worker");
    }
    EXPECT_GT(allocation, 10);
}

TEST_F(WorkerSupervisorTests, LaunchRemovesTheFilesOfAnEarlierWorker) {
    for (const std::string name : {"worker-status.json", "worker.pid", "worker-qr.png"}) {
        test::writeFileAtomically(runtimeFile(name), "abc");
    }
    configure("/missing");
    supervisor_.launchWorkerIfConfigured();
    EXPECT_FALSE(fs::exists(runtimeFile("worker-status.json")));
    EXPECT_FALSE(fs::exists(runtimeFile("worker.pid")));
    EXPECT_FALSE(fs::exists(runtimeFile("worker-qr.png")));
}

/// A child of the test that ignores SIGTERM; reaped on destruction.
class LeftoverProcess {
  public:
    LeftoverProcess() {
        // Before the fork, so that the child ignores it from its first moment.
        const auto handler = ::signal(SIGTERM, SIG_IGN);
        process_ = ::fork();
        while (process_ == 0) ::pause();
        ::signal(SIGTERM, handler);
    }
    LeftoverProcess(const LeftoverProcess&) = delete;
    LeftoverProcess& operator=(const LeftoverProcess&) = delete;
    ~LeftoverProcess() {
        ::kill(process_, SIGKILL);
        ::waitpid(process_, nullptr, 0);
    }
    pid_t identifier() const { return process_; }
    /// The signal that ended it.
    int waitForSignal() const {
        siginfo_t information{};
        ::waitid(P_PID, static_cast<id_t>(process_), &information, WEXITED | WNOWAIT);
        return information.si_status;
    }

  private:
    pid_t process_ = -1;
};

TEST_F(WorkerSupervisorTests, EarlierWorkerThatIgnoresTerminationIsKilledAfterASecond) {
    const LeftoverProcess leftover;
    test::writeFileAtomically(parts_.directory.workerPIDFile, std::to_string(leftover.identifier()) + "\n");
    configure("/missing");
    supervisor_.launchWorkerIfConfigured();
    EXPECT_EQ(leftover.waitForSignal(), SIGKILL);
    EXPECT_EQ(parts_.clock.sleeps(),
              std::vector<std::chrono::milliseconds>(20, std::chrono::milliseconds{50}));
}

TEST_F(WorkerSupervisorTests, PidFileThatNamesNoProcessIsSimplyRemoved) {
    const std::vector<std::string> texts{"abc", "", "0", "-1", "99999999999", std::to_string(::getpid())};
    for (const auto& text : texts) {
        test::writeFileAtomically(parts_.directory.workerPIDFile, text);
        configure("/missing");
        supervisor_.launchWorkerIfConfigured();
        EXPECT_FALSE(fs::exists(parts_.directory.workerPIDFile)) << text;
    }
    EXPECT_TRUE(parts_.clock.sleeps().empty());
}

}  // namespace
}  // namespace brindle

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/TemporaryDirectory.h"

namespace brindle::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// A worker that keeps every rule but the one that DEFECT names.
constexpr std::string_view worker_with_a_defect = R"py(#!/usr/bin/env python3
import json, os, signal, sys, time

defect = os.environ.get("DEFECT", "")
data = os.environ["BRINDLE_MANAGED_BRIDGE_DATA_DIR"]
platform = os.environ["BRINDLE_MANAGED_BRIDGE_PLATFORM"]
backend = int(os.environ["BRINDLE_MANAGED_BRIDGE_PARENT_PID"])
inbound, outbound, runtime = (os.path.join(data, name) for name in ("inbound", "outbound", "runtime"))
asked = False
echoes = 0


def ask(*_):
    global asked
    asked = True


def publish(path, text, hidden=True):
    folder, name = os.path.split(path)
    unfinished = os.path.join(folder, ".new-" + name) if hidden else path
    with open(unfinished, "w") as file:
        file.write(text)
    if hidden:
        os.rename(unfinished, path)


def watched():
    if defect == "control-ignored":
        return False
    try:
        with open(os.path.join(runtime, "worker-control.json")) as file:
            control = json.load(file)
    except (OSError, ValueError):
        return False
    if control["platform"] != platform and defect != "control-of-others":
        return False
    return control.get("activeScope") is not None


def echo(record):
    global echoes
    echoes += 1
    number = 900000 - echoes if defect == "inbound-order" else echoes
    message = {"conversationId": record["conversationId"], "conversationTitle": "Echo", "senderId": "echo",
               "senderDisplayName": "Echo", "text": record["text"], "isDirectMessage": True}
    if defect == "inbound-content":
        del message["senderId"]
    ending = ".txt" if defect == "inbound-ending" else ".json"
    publish(os.path.join(inbound, "%06d%s" % (number, ending)), json.dumps(message), defect != "inbound-halves")


def take(name):
    path = os.path.join(outbound, name)
    try:
        with open(path) as file:
            record = json.load(file)
        echo(record)
    except (ValueError, KeyError):
        if defect != "bad-record":
            os.rename(path, os.path.join(runtime, "worker-rejected-outbound", name))
        return
    if defect == "outbound-stays":
        return
    if defect == "outbound-removed":
        os.remove(path)
    else:
        os.rename(path, os.path.join(runtime, "worker-processed-outbound", name))


def look():
    names = [name for name in os.listdir(outbound) if name.endswith(".json") and not name.startswith(".")]
    for name in sorted(names, reverse=defect == "outbound-order"):
        take(name)
    if defect == "strangers" and os.path.exists(os.path.join(outbound, "notes.txt")):
        os.remove(os.path.join(outbound, "notes.txt"))


if defect == "start":
    sys.exit(3)
signal.signal(signal.SIGTERM, signal.SIG_IGN if defect == "SIGTERM-ignored" else ask)
if defect != "worker.pid-missing":
    publish(os.path.join(runtime, "worker.pid"), "1" if defect == "worker.pid-wrong" else str(os.getpid()))
wasWatched = everWatched = False
while not asked and (defect == "backend-end" or os.getppid() == backend):
    wasWatched = watched() or (wasWatched and defect == "control-end")
    state = "busy" if defect == "status-word" else "watching_chat" if wasWatched else "linked"
    now = "now" if defect == "heartbeat-text" else time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
    if defect == "heartbeat-stands":
        now = "2026-01-05T09:30:00Z"
    elif defect == "heartbeat-text":
        now += str(time.time())
    status = {"state": state, "lastHeartbeatISO8601": now, "supportsLiveCapture": True, "supportsOutbound": True}
    if defect == "status-incomplete":
        del status["supportsOutbound"]
    everWatched = everWatched or wasWatched
    isUnreadable = defect == "control-end-unreadable" and everWatched and not wasWatched
    publish(os.path.join(runtime, "worker-status.json"), "{" if isUnreadable else json.dumps(status))
    look()
    time.sleep(0.05)
if defect != "clearing-up":
    for name in "worker.pid", "worker-status.json":
        if os.path.exists(os.path.join(runtime, name)):
            os.remove(os.path.join(runtime, name))
sys.exit(4 if defect == "SIGTERM-status" else 0)
)py";

/// The console's examination of native workers.
class ConsoleCheckWorkerTest : public testing::Test {
  protected:
    /// The points at which the worker fails.
    std::vector<std::string> failedPoints(const std::string& worker, const std::string& defect,
                                          const std::string& patienceSeconds = "80") {
        BackendOptions options;
        options.executable = consoleExecutable();
        options.arguments = {"check-worker", worker, "--within", patienceSeconds, "--json"};
        options.environment["TMPDIR"] = temporary_.path();
        options.environment["DEFECT"] = defect;
        BackendProcess console(std::move(options));
        const auto status = console.waitForExit(patience);
        report_ = console.rawOutput() + console.standardError();
        std::vector<std::string> points;
        const auto report = Json::parse(console.rawOutput());
        for (const auto& finding : report.at("findings")) {
            if (finding.at("state") == "problem") points.push_back(finding.at("point").get<std::string>());
        }
        EXPECT_EQ(status, exitedWith(points.empty() ? 0 : 1)) << report_;
        // Nothing of the trial is left.
        EXPECT_THAT(namesIn(temporary_.path()), IsEmpty());
        return points;
    }

    /// Some defects show by nothing happening, in several steps.
    static constexpr std::chrono::seconds patience{600};

    TemporaryDirectory temporary_;
    std::string report_;
};

TEST_F(ConsoleCheckWorkerTest, FindsNothingWrongWithTheSample) {
    EXPECT_THAT(failedPoints(nativeWorkerExecutable(), ""), IsEmpty()) << report_;
}

TEST_F(ConsoleCheckWorkerTest, FindsAWorkerThatMayNotBeExecuted) {
    const TemporaryDirectory files;
    const auto worker = files.path() / "worker";
    writeFileAtomically(worker, "no program");
    EXPECT_THAT(failedPoints(worker.string(), ""), ElementsAre("start")) << report_;
    EXPECT_THAT(report_, testing::HasSubstr("may not be executed."));
}

TEST_F(ConsoleCheckWorkerTest, SaysThatItIsTheWorkerThatCannotBeStarted) {
    const TemporaryDirectory files;
    const auto worker = writeProgram(files.path() / "worker", "#!/no/such/interpreter\n");
    BackendOptions options;
    options.executable = consoleExecutable();
    options.arguments = {"check-worker", worker.string()};
    BackendProcess console(std::move(options));
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardError(),
              "Cannot start the worker " + worker.string() + ": No such file or directory.\n");
}

TEST_F(ConsoleCheckWorkerTest, RefusesAWorkerThatDoesNotExistAsAMistakeOnTheCommandLine) {
    BackendOptions options;
    options.executable = consoleExecutable();
    options.arguments = {"check-worker", "/no/such/worker"};
    BackendProcess console(std::move(options));
    EXPECT_EQ(console.waitForExit(), exitedWith(2));
}

TEST_F(ConsoleCheckWorkerTest, ShowsOnlySoMuchOfWhatAWorkerPrints) {
    const TemporaryDirectory files;
    const auto worker =
        writeProgram(files.path() / "worker", "#!/bin/sh\nexec tr '\\0' a </dev/zero\n").string();
    EXPECT_THAT(failedPoints(worker, "", "1"), Contains("worker.pid"));
    EXPECT_LT(report_.size(), std::size_t{2} << 20U);
    EXPECT_THAT(report_, HasSubstr("It prints more than is shown here."));
}

TEST_F(ConsoleCheckWorkerTest, EndsAlthoughSomethingThatTheWorkerLeftGoesOnPrinting) {
    const TemporaryDirectory files;
    const auto worker =
        writeProgram(files.path() / "worker", "#!/bin/sh\n(trap '' TERM; exec yes) &\n").string();
    EXPECT_THAT(failedPoints(worker, "", "5"), ElementsAre("start"));
}

struct Defect {
    std::string name;
    /// Where it is found; empty for none.
    std::string point;
    /// It shows by nothing happening, for as long as the worker has.
    bool isSilent = false;
};

void PrintTo(const Defect& defect, std::ostream* stream) {
    *stream << (defect.name.empty() ? "none" : defect.name);
}

class DefectiveWorkerTest : public ConsoleCheckWorkerTest, public testing::WithParamInterface<Defect> {};

TEST_P(DefectiveWorkerTest, FailsAtItsPointAlone) {
    const TemporaryDirectory files;
    const auto worker = writeProgram(files.path() / "worker", worker_with_a_defect);
    const auto points = failedPoints(worker.string(), GetParam().name, GetParam().isSilent ? "40" : "80");
    if (GetParam().point.empty()) {
        EXPECT_THAT(points, IsEmpty()) << report_;
    } else {
        EXPECT_THAT(points, ElementsAre(GetParam().point)) << report_;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Defects, DefectiveWorkerTest,
    testing::Values(Defect{"", ""}, Defect{"start", "start"},
                    Defect{"worker.pid-missing", "worker.pid", true},
                    Defect{"worker.pid-wrong", "worker.pid", true}, Defect{"status-word", "status", true},
                    Defect{"status-incomplete", "status", true},
                    Defect{"heartbeat-stands", "heartbeat", true}, Defect{"heartbeat-text", "heartbeat"},
                    Defect{"control-ignored", "control", true}, Defect{"control-of-others", "control"},
                    Defect{"outbound-stays", "outbound", true}, Defect{"outbound-removed", "outbound", true},
                    Defect{"outbound-order", "outbound"}, Defect{"bad-record", "bad-record", true},
                    Defect{"strangers", "strangers"}, Defect{"inbound-order", "inbound"},
                    Defect{"inbound-content", "inbound"}, Defect{"inbound-ending", "inbound"},
                    Defect{"inbound-halves", "inbound"}, Defect{"control-end", "control-end", true},
                    Defect{"control-end-unreadable", "control-end", true},
                    Defect{"SIGTERM-ignored", "SIGTERM", true}, Defect{"SIGTERM-status", "SIGTERM"},
                    Defect{"clearing-up", "clearing-up"}, Defect{"backend-end", "backend-end", true}));

}  // namespace
}  // namespace brindle::test

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/TemporaryDirectory.h"
#include "support/TextForms.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

Json outboundRecord(const std::string& messageId, const std::string& text,
                    const std::string& createdAt = "2026-01-05T09:30:00Z") {
    return {{"messageId", messageId},
            {"conversationId", "team-room"},
            {"text", text},
            {"createdAtISO8601", createdAt},
            {"attachments", Json::array()}};
}

Json controlRecord(const Json& scope, const std::string& platform = "whatsapp") {
    return {{"platform", platform}, {"activeScope", scope}, {"updatedAtISO8601", "2026-01-05T09:30:00Z"}};
}

Json watchedChat() {
    return {{"kind", "channel"}, {"id", "news"}, {"title", "News"}};
}

BackendOptions optionsWithNativeWorker(const std::string& executable) {
    BackendOptions options;
    options.environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
    options.environment["BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH"] = executable;
    return options;
}

/// Whether an echo is called what the samples call the echo of that message.
bool isEchoOf(const std::string& messageId, const std::string& echo) {
    constexpr std::size_t number_digits = 20;
    return echo.find_first_not_of("0123456789") == number_digits &&
           echo.substr(number_digits) == "-echo-" + messageId;
}

/// A sample native worker; every one keeps the same rules.
struct SampleWorker {
    const char* name;
    std::string (*executable)();
};

std::string nameOf(const testing::TestParamInfo<SampleWorker>& info) {
    return info.param.name;
}

const auto sample_workers = testing::Values(SampleWorker{"Cpp", nativeWorkerExecutable},
                                            SampleWorker{"Python", pythonWorkerExecutable});

auto workerStateIs(const std::string& state) {
    return [state](const Json& status) { return status.at("workerState") == state; };
}

/// Worker and backend together.
class NativeWorkerBehindBackendTest : public testing::TestWithParam<SampleWorker> {
  protected:
    pid_t workerProcess() {
        return static_cast<pid_t>(std::stol(readFile(backend_.waitForFile("runtime/worker.pid"))));
    }

    Json sendAndReceive(const std::string& text) {
        backend_.send(sendMessageRequest({{"conversationId", "team-room"}, {"text", text}}));
        return backend_.nextEnvelope().at("inboundEvent").at("_0").at("event");
    }

    BackendProcess backend_{optionsWithNativeWorker(GetParam().executable())};
};

INSTANTIATE_TEST_SUITE_P(Samples, NativeWorkerBehindBackendTest, sample_workers, nameOf);

TEST_P(NativeWorkerBehindBackendTest, EchoesAMessageIntoTheWatchedChat) {
    backend_.connectAndListen();
    const auto event = sendAndReceive("On my way");
    EXPECT_EQ(event.at("text"), "Echo: On my way");
    EXPECT_EQ(event.at("conversationId"), "team-room");
    EXPECT_EQ(event.at("conversationTitle"), "Team Room");
    EXPECT_EQ(event.at("isDirectMessage"), true);
    EXPECT_TRUE(isTimestamp(event.at("timestampISO8601").get<std::string>()));
    const auto handled = backend_.waitForEntries("runtime/worker-processed-outbound", 1);
    const auto sent = fs::path(handled.front()).stem().string();
    EXPECT_TRUE(isEchoOf(sent, event.at("messageId"))) << event;
    EXPECT_EQ(event.at("rawReference"), sent);
    EXPECT_THAT(namesIn(backend_.path("outbound")), IsEmpty());
    backend_.waitForStandardError("[ManagedWhatsAppWorker] Echoed message ");
}

TEST_P(NativeWorkerBehindBackendTest, EchoesEveryMessageOnceAndInTheOrderOfTheRequests) {
    backend_.connectAndListen();
    std::vector<std::string> sent;
    std::vector<std::string> received;
    constexpr int message_count = 50;
    for (int i = 0; i < message_count; ++i) {
        sent.push_back("Echo: " + std::to_string(i));
        backend_.send(sendMessageRequest({{"conversationId", "team-room"}, {"text", std::to_string(i)}}));
    }
    for (int i = 0; i < message_count; ++i) {
        received.push_back(backend_.nextEnvelope().at("inboundEvent").at("_0").at("event").at("text"));
    }
    EXPECT_EQ(received, sent);
    backend_.waitForEntries("runtime/worker-processed-outbound", message_count);
    EXPECT_THAT(backend_.finishAndTakeRest(), IsEmpty());
}

TEST_P(NativeWorkerBehindBackendTest, PublishesWhatItCanDo) {
    const auto status = backend_.waitForRuntimeStatus(workerStateIs("linked"));
    EXPECT_EQ(status.at("workerSupportsLiveCapture"), true);
    EXPECT_EQ(status.at("workerSupportsOutbound"), true);
    EXPECT_EQ(status.at("workerDisplayName"), "Echo");
    EXPECT_TRUE(isTimestamp(status.at("workerLastHeartbeatISO8601").get<std::string>()));
}

TEST_P(NativeWorkerBehindBackendTest, FollowsTheWatchedChat) {
    backend_.waitForRuntimeStatus(workerStateIs("linked"));
    backend_.connectAndListen();
    const auto status = backend_.waitForRuntimeStatus(workerStateIs("watching_chat"));
    EXPECT_EQ(status.at("workerDetail"), "Watching Team Room.");
    backend_.send(stopListeningRequest());
    backend_.waitForRuntimeStatus(workerStateIs("linked"));
}

TEST_P(NativeWorkerBehindBackendTest, KeepsItsHeartbeatFresh) {
    const auto first =
        backend_.waitForRuntimeStatus(workerStateIs("linked")).at("workerLastHeartbeatISO8601");
    backend_.waitForRuntimeStatus(
        [&](const Json& status) { return status.value("workerLastHeartbeatISO8601", first) != first; });
}

TEST_P(NativeWorkerBehindBackendTest, WritesItsProcessIdInPlainDigits) {
    const auto worker = waitForOnlyChild(backend_.pid());
    EXPECT_EQ(readFile(backend_.waitForFile("runtime/worker.pid")), std::to_string(worker));
}

TEST_P(NativeWorkerBehindBackendTest, EndsWithTheBackendsInput) {
    const auto worker = workerProcess();
    backend_.finish();
    EXPECT_EQ(backend_.waitForExit(), exitedWith(0));
    waitUntil([&] { return !processIsRunning(worker); }, "the end of the worker");
}

TEST_P(NativeWorkerBehindBackendTest, EndsAndClearsUpWhenTheBackendIsKilled) {
    const auto worker = workerProcess();
    backend_.waitForFile("runtime/worker-status.json");
    backend_.signal(SIGKILL);
    waitUntil([&] { return !processIsRunning(worker); }, "the end of the worker");
    EXPECT_FALSE(fs::exists(backend_.path("runtime/worker.pid")));
    EXPECT_FALSE(fs::exists(backend_.path("runtime/worker-status.json")));
}

/// The worker alone, with the test in the place of the backend.
class NativeWorkerTest : public testing::TestWithParam<SampleWorker> {
  protected:
    void SetUp() override {
        for (const auto* directory :
             {"inbound", "outbound", "processed", "rejected", "runtime/worker-processed-outbound",
              "runtime/worker-rejected-outbound"}) {
            fs::create_directories(path(directory));
        }
    }

    BackendOptions options() const {
        BackendOptions options;
        options.executable = GetParam().executable();
        options.dataDirectory = data_;
        options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = data_->path();
        options.environment["BRINDLE_MANAGED_BRIDGE_PLATFORM"] = "whatsapp";
        options.environment["BRINDLE_MANAGED_BRIDGE_PARENT_PID"] = std::to_string(::getpid());
        return options;
    }

    BackendProcess& start() { return startWith(options()); }
    BackendProcess& startWith(BackendOptions options) {
        worker_ = std::make_unique<BackendProcess>(std::move(options));
        return *worker_;
    }

    fs::path path(const fs::path& relative) const { return data_->path() / relative; }
    void write(const fs::path& relative, const Json& document) const {
        writeFileAtomically(path(relative), document.dump());
    }
    void leaveOutbound(const std::string& messageId, const std::string& text) const {
        write("outbound/" + messageId + ".json", outboundRecord(messageId, text));
    }

    /// The one echo that waits.
    Json onlyEcho() const {
        const auto names = namesIn(path("inbound"));
        EXPECT_EQ(names.size(), 1U);
        return readJsonFile(path("inbound") / names.front());
    }

    std::shared_ptr<TemporaryDirectory> data_ = std::make_shared<TemporaryDirectory>();
    std::unique_ptr<BackendProcess> worker_;
};

INSTANTIATE_TEST_SUITE_P(Samples, NativeWorkerTest, sample_workers, nameOf);

TEST_P(NativeWorkerTest, WritesAnEchoWithEveryField) {
    write("runtime/worker-control.json", controlRecord(watchedChat()));
    leaveOutbound("A", "hi");
    auto& worker = start();
    worker.waitForEntries("runtime/worker-processed-outbound", 1);
    auto echo = onlyEcho();
    EXPECT_TRUE(isTimestamp(echo.at("timestampISO8601").get<std::string>()));
    echo.erase("timestampISO8601");
    const auto messageId = echo.at("messageId").get<std::string>();
    EXPECT_TRUE(isEchoOf("A", messageId)) << messageId;
    EXPECT_THAT(namesIn(path("inbound")), ElementsAre(messageId + ".json"));
    echo.erase("messageId");
    EXPECT_EQ(echo, (Json{{"conversationId", "news"},
                          {"conversationTitle", "News"},
                          {"isDirectMessage", false},
                          {"rawReference", "A"},
                          {"senderDisplayName", "Echo"},
                          {"senderId", "echo"},
                          {"text", "Echo: hi"}}));
}

TEST_P(NativeWorkerTest, EchoesIntoTheMessagesConversationWhenNothingIsWatched) {
    leaveOutbound("A", "hi");
    start().waitForEntries("runtime/worker-processed-outbound", 1);
    const auto echo = onlyEcho();
    EXPECT_EQ(echo.at("conversationId"), "team-room");
    EXPECT_EQ(echo.at("conversationTitle"), "team-room");
}

TEST_P(NativeWorkerTest, WatchesAThreadWithoutATitleByItsIdentifier) {
    write("runtime/worker-control.json",
          controlRecord({{"kind", "thread"}, {"id", "t-9"}, {"title", nullptr}}));
    leaveOutbound("A", "hi");
    start().waitForEntries("runtime/worker-processed-outbound", 1);
    EXPECT_EQ(onlyEcho().at("conversationTitle"), "t-9");
}

TEST_P(NativeWorkerTest, WatchesNothingDuringASelfTestOrForAnotherPlatform) {
    for (const auto& control : {controlRecord({{"kind", "testOnly"}, {"title", "Smoke"}}),
                                controlRecord(watchedChat(), "elsewhere")}) {
        write("runtime/worker-control.json", control);
        auto& worker = start();
        const auto status = readJsonFile(worker.waitForFile("runtime/worker-status.json"));
        EXPECT_EQ(status.at("state"), "linked") << control;
        leaveOutbound("A", "hi");
        worker.waitForFile("runtime/worker-processed-outbound/A.json");
        EXPECT_EQ(onlyEcho().at("conversationId"), "team-room") << control;
        fs::remove(path("inbound") / namesIn(path("inbound")).front());
        fs::remove(path("runtime/worker-processed-outbound/A.json"));
        worker_.reset();
    }
}

TEST_P(NativeWorkerTest, TakesMessagesInTheOrderOfTheirNamesWhateverTheirTimes) {
    write("outbound/c.json", outboundRecord("c", "3", "2026-01-05T09:30:00Z"));
    write("outbound/a.json", outboundRecord("a", "1", "2026-01-05T09:30:02Z"));
    write("outbound/b.json", outboundRecord("b", "2", "2026-01-05T09:30:01Z"));
    auto& worker = start();
    EXPECT_EQ(worker.nextLine(), "Echoed message a.");
    EXPECT_EQ(worker.nextLine(), "Echoed message b.");
    EXPECT_EQ(worker.nextLine(), "Echoed message c.");
}

TEST_P(NativeWorkerTest, EchoesStandBehindThoseThatAnEarlierWorkerLeft) {
    // Somebody has set the clock back since: the time alone does not tell.
    std::string previous = "09000000000000000000-echo-z.json";
    write("inbound/" + previous, Json::object());
    // Many restarts: a worker that began anywhere would pass now and then.
    for (const std::string message : {"e", "d", "c", "b", "a"}) {
        leaveOutbound(message, "hi");
        start().waitForFile("runtime/worker-processed-outbound/" + message + ".json");
        worker_.reset();
        const auto names = namesIn(path("inbound"));
        EXPECT_TRUE(names.back().ends_with("-echo-" + message + ".json")) << names.back();
        EXPECT_GT(names.back(), previous);
        previous = names.back();
    }
}

TEST_P(NativeWorkerTest, MessagesDoNotOvertakeOneThatCannotBeTakenYet) {
    leaveOutbound("a", "1");
    leaveOutbound("b", "2");
    fs::rename(path("outbound/a.json"), path("a.json"));
    fs::create_symlink(path("a.json.later"), path("outbound/a.json"));
    auto& worker = start();
    worker.waitForStandardError("Cannot read ");
    fs::rename(path("a.json"), path("a.json.later"));
    EXPECT_EQ(worker.nextLine(), "Echoed message a.");
    EXPECT_EQ(worker.nextLine(), "Echoed message b.");
}

TEST_P(NativeWorkerTest, RejectsWhatItCannotUse) {
    writeFileAtomically(path("outbound/broken.json"), "{");
    write("outbound/other.json", outboundRecord("../escape", "x"));
    fs::create_directory(path("outbound/directory.json"));
    leaveOutbound("good", "x");
    auto& worker = start();
    worker.waitForEntries("runtime/worker-processed-outbound", 1);
    EXPECT_THAT(worker.waitForEntries("runtime/worker-rejected-outbound", 3),
                ElementsAre("broken.json", "directory.json", "other.json"));
    EXPECT_EQ(onlyEcho().at("rawReference"), "good");
    for (const auto* name : {"broken.json", "other.json", "directory.json"}) {
        worker.waitForStandardError(std::string("Rejected outbound record ") + name + ": ");
    }
}

TEST_P(NativeWorkerTest, LeavesOtherNamesAlone) {
    write("outbound/.hidden.json", outboundRecord(".hidden", "x"));
    write("outbound/note.txt", outboundRecord("note", "x"));
    write("outbound/LOUD.JSON", outboundRecord("LOUD", "x"));
    leaveOutbound("good", "x");
    auto& worker = start();
    worker.waitForEntries("runtime/worker-processed-outbound", 1);
    EXPECT_THAT(namesIn(path("outbound")), ElementsAre(".hidden.json", "LOUD.JSON", "note.txt"));
}

TEST_P(NativeWorkerTest, KeepsBothRecordsWhenANameComesAgain) {
    leaveOutbound("A", "first");
    auto& worker = start();
    worker.waitForEntries("runtime/worker-processed-outbound", 1);
    leaveOutbound("A", "second");
    const auto names = worker.waitForEntries("runtime/worker-processed-outbound", 2);
    EXPECT_TRUE(names[0] == "A.json" || names[1] == "A.json");
}

TEST_P(NativeWorkerTest, DoesNotDoubleAnEchoThatWasWrittenBeforeACrash) {
    for (const auto* place : {"inbound", "processed", "rejected"}) {
        const auto echo = fs::path(place) / "01767605400000000000-echo-A.json";
        writeFileAtomically(path(echo), "from before the crash");
        leaveOutbound("A", "hi");
        auto& worker = start();
        worker.waitForFile("runtime/worker-processed-outbound/A.json");
        EXPECT_EQ(readFile(path(echo)), "from before the crash");
        EXPECT_EQ(namesIn(path("inbound")).empty(), std::string_view(place) != "inbound") << place;
        worker_.reset();
        fs::remove(path(echo));
        fs::remove(path("runtime/worker-processed-outbound/A.json"));
    }
}

TEST_P(NativeWorkerTest, KilledInTheMiddleLosesAndDoublesNothing) {
    constexpr std::size_t message_count = 60;
    for (std::size_t i = 0; i < message_count; ++i) leaveOutbound("m" + std::to_string(i), "hi");
    start();
    worker_->nextLine();
    worker_->signal(SIGKILL);
    worker_->waitForExit();
    // The backend takes what is there, and then the next worker starts.
    for (const auto& name : namesIn(path("inbound"))) {
        if (!name.starts_with('.')) fs::rename(path("inbound") / name, path("processed") / name);
    }
    const auto delivered = namesIn(path("processed")).size();
    auto& worker = start();
    worker.waitForEntries("runtime/worker-processed-outbound", message_count);
    std::size_t written = 0;
    for (const auto& name : namesIn(path("inbound")))
        if (!name.starts_with('.')) ++written;
    EXPECT_EQ(delivered + written, message_count);
}

TEST_P(NativeWorkerTest, KeepsAMessageWhoseEchoCannotBeWrittenAndTriesAgain) {
    leaveOutbound("0", "hi");
    auto& worker = start();
    worker.waitForFile("runtime/worker-processed-outbound/0.json");
    makeVanish(path("inbound"));
    leaveOutbound("A", "hi");
    worker.waitForStandardError("Cannot write ");
    EXPECT_TRUE(fs::exists(path("outbound/A.json")));
    fs::create_directory(path("inbound"));
    worker.waitForFile("runtime/worker-processed-outbound/A.json");
    EXPECT_EQ(onlyEcho().at("rawReference"), "A");
}

TEST_P(NativeWorkerTest, KeepsItsHeartbeatWhileTheControlRecordIsBroken) {
    auto& worker = start();
    const auto heartbeat = [&] {
        return readJsonFile(worker.waitForFile("runtime/worker-status.json")).at("lastHeartbeatISO8601");
    };
    writeFileAtomically(path("runtime/worker-control.json"), "{");
    worker.waitForStandardErrorWhere([](const std::string& all) { return !all.empty(); });
    const auto first = heartbeat();
    worker.waitUntil([&] { return heartbeat() != first; }, "a fresh heartbeat");
    EXPECT_EQ(worker.standardErrorLines().size(), 1U) << worker.standardError();
}

TEST_P(NativeWorkerTest, EndsOnATerminationSignalAndTakesItsFilesAway) {
    for (const int signal : {SIGTERM, SIGINT}) {
        auto& worker = start();
        worker.waitForFile("runtime/worker-status.json");
        worker.signal(signal);
        EXPECT_EQ(worker.waitForExit(), exitedWith(0));
        EXPECT_FALSE(fs::exists(path("runtime/worker.pid")));
        EXPECT_FALSE(fs::exists(path("runtime/worker-status.json")));
    }
}

TEST_P(NativeWorkerTest, EndsInTheMiddleOfALongRound) {
    constexpr int records = 500;
    for (int count = 0; count < records; ++count) {
        writeFileAtomically(path("outbound") / (std::to_string(count) + ".json"), "{");
    }
    auto settings = options();
    settings.stderrPipeBytes = 4096;
    settings.readOutputAtOnce = false;
    auto& worker = startWith(std::move(settings));
    // It says why it rejects each of them, and cannot go on while nobody reads that.
    constexpr std::size_t room_for_no_line = 256;
    worker.waitUntil([&] { return worker.unreadErrorBytes() > 4096 - room_for_no_line; },
                     "a round to be under way");
    worker.signal(SIGTERM);
    worker.resumeReadingOutput();
    worker.resumeReadingError();
    EXPECT_EQ(worker.waitForExit(), exitedWith(0));
    EXPECT_THAT(namesIn(path("outbound")), testing::Not(IsEmpty()));
    EXPECT_FALSE(fs::exists(path("runtime/worker.pid")));
}

TEST_P(NativeWorkerTest, LeavesTheFilesOfALaterWorkerAlone) {
    auto& worker = start();
    worker.waitForFile("runtime/worker-status.json");
    writeFileAtomically(path("runtime/worker.pid"), "1");
    worker.signal(SIGTERM);
    EXPECT_EQ(worker.waitForExit(), exitedWith(0));
    EXPECT_EQ(readFile(path("runtime/worker.pid")), "1");
    EXPECT_TRUE(fs::exists(path("runtime/worker-status.json")));
}

TEST_P(NativeWorkerTest, EndsAtOnceWhenTheBackendIsNotItsParent) {
    auto settings = options();
    settings.environment["BRINDLE_MANAGED_BRIDGE_PARENT_PID"] = "1";
    EXPECT_EQ(startWith(std::move(settings)).waitForExit(), exitedWith(0));
}

TEST_P(NativeWorkerTest, SaysWhichVariableIsMissing) {
    for (const auto* key : {"BRINDLE_MANAGED_BRIDGE_DATA_DIR", "BRINDLE_MANAGED_BRIDGE_PLATFORM",
                            "BRINDLE_MANAGED_BRIDGE_PARENT_PID"}) {
        auto settings = options();
        settings.environment.erase(key);
        auto& worker = startWith(std::move(settings));
        EXPECT_EQ(worker.waitForExit(), exitedWith(64)) << key;
        EXPECT_EQ(worker.standardErrorLines().size(), 1U);
        EXPECT_THAT(worker.standardError(), HasSubstr(key));
    }
}

TEST_P(NativeWorkerTest, SaysWhatIsWrongWithItsSettings) {
    auto settings = options();
    settings.environment["BRINDLE_MANAGED_BRIDGE_PARENT_PID"] = "12x";
    auto& confused = startWith(std::move(settings));
    EXPECT_EQ(confused.waitForExit(), exitedWith(78));
    EXPECT_EQ(confused.standardError(),
              "BRINDLE_MANAGED_BRIDGE_PARENT_PID must be a process id, not \"12x\".\n");
    settings = options();
    settings.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = "/proc/none";
    auto& homeless = startWith(std::move(settings));
    EXPECT_EQ(homeless.waitForExit(), exitedWith(78));
    EXPECT_EQ(homeless.standardErrorLines().size(), 1U);
}

TEST_P(NativeWorkerTest, RefusesArguments) {
    auto settings = options();
    settings.arguments = {"--help"};
    auto& worker = startWith(std::move(settings));
    EXPECT_EQ(worker.waitForExit(), exitedWith(64));
    EXPECT_EQ(worker.standardErrorLines().size(), 1U);
}

}  // namespace
}  // namespace brindle::test

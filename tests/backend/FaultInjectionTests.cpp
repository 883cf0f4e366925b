#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iterator>
#include <set>
#include <system_error>

#include "backend/InboundDelivery.h"
#include "backend/ManagedWhatsAppBackendService.h"
#include "backend/StatusPublisher.h"
#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/TemporaryDirectory.h"
#include "support/TextForms.h"
#include "system/FileSystemFailure.h"

/// Every file operation of the backend fails once, and from then on; its promises hold each time.
namespace brindle {
namespace {

using test::BackendParts;
using test::FaultInjectingFileManager;
using test::inboundEventsIn;
using test::inboundRecord;
using test::linesOf;
using test::namesIn;
using testing::AnyOf;
using testing::AnyOfArray;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

using Fault = FaultInjectingFileManager::Fault;
using Persistence = FaultInjectingFileManager::Persistence;
using Stage = FaultInjectingFileManager::Stage;

const std::string log_prefix = "[ManagedWhatsAppBackend] ";
constexpr int far_too_many_operations = 200;

/// How the fault of a run is: everything but the number of the operation.
class FaultInjectionTests : public testing::TestWithParam<std::tuple<Persistence, int>> {
  protected:
    /// Runs `attempt` with the fault at the first operation, the second and so on, until a run meets none.
    /// Answers how many runs met it.
    int forEveryOperation(Stage stage, const std::function<bool(const Fault&)>& attempt) {
        for (int operation = 1; operation < far_too_many_operations; ++operation) {
            SCOPED_TRACE("operation " + std::to_string(operation));
            const Fault fault{.operation = operation,
                              .persistence = std::get<Persistence>(GetParam()),
                              .code = std::get<int>(GetParam()),
                              .stage = stage};
            if (!attempt(fault)) return operation - 1;
        }
        ADD_FAILURE() << "never ends";
        return 0;
    }

    static std::string reason() { return std::generic_category().message(std::get<int>(GetParam())) + "."; }
    /// The description of an operation that the fault has let fail ("write /a/b").
    static std::string descriptionOf(const std::string& failed) {
        const auto slash = failed.find('/');
        return "Cannot " + failed.substr(0, slash) + "\"" + failed.substr(slash) + "\": " + reason();
    }
};

INSTANTIATE_TEST_SUITE_P(Faults, FaultInjectionTests,
                         testing::Combine(testing::Values(Persistence::once, Persistence::fromThenOn),
                                          testing::Values(EIO, ENOSPC)),
                         [](const auto& each) {
                             return std::string(std::get<0>(each.param) == Persistence::once ? "Once"
                                                                                             : "FromThenOn") +
                                    (std::get<1>(each.param) == EIO ? "InputOutputError" : "NoSpace");
                         });

std::vector<std::string> hiddenAndVisibleBelow(const std::filesystem::path& directory) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (entry.is_regular_file()) files.push_back(entry.path().filename());
    }
    return files;
}

/// What a start has brought about.
struct Start {
    std::optional<std::string> failure;
    test::MemoryStreams::Text text;
};

Start startedWith(FaultInjectingFileManager& files, const Environment& environment,
                  const test::TestClock& clock) {
    test::MemoryStreams streams;
    Start start;
    try {
        BridgeChannel channel({.input = -1, .output = streams.output(), .error = streams.error()});
        const ManagedWhatsAppBackendService service("whatsapp", environment, files, clock, channel,
                                                    ::getppid());
        // What follows is the end of the service.
        files.clear();
    } catch (const FileSystemFailure& failure) {
        start.failure = failure.what();
    }
    start.text = streams.text();
    return start;
}

TEST_P(FaultInjectionTests, StartFailsOnlyBecauseOfADirectory) {
    std::ptrdiff_t stepsOfTheWay = 0;
    const int met = forEveryOperation(Stage::beforeAnyEffect, [&](const Fault& fault) {
        const test::TemporaryDirectory home;
        stepsOfTheWay = std::distance(home.path().begin(), home.path().end());
        const Environment environment{
            {std::string(environment_key::temporary_directory), home.path().string()}};
        const auto data = home.path() / "Brindle" / "ManagedBridge" / "whatsapp";
        const test::TestClock clock;
        FaultInjectingFileManager files;
        files.set(fault);
        const auto start = startedWith(files, environment, clock);
        const auto failures = files.failures();
        files.clear();
        EXPECT_EQ(start.text.output, "");
        if (failures.empty()) {
            EXPECT_EQ(start.failure, std::nullopt);
            EXPECT_EQ(start.text.error, "");
            return false;
        }
        const bool ofADirectory =
            failures[0].starts_with("create the directory ") || failures[0].starts_with("look at ");
        EXPECT_EQ(start.failure.has_value(), ofADirectory);
        if (ofADirectory) {
            EXPECT_EQ(start.failure, descriptionOf(failures[0]));
            EXPECT_EQ(start.text.error, "");
            EXPECT_THAT(hiddenAndVisibleBelow(home.path()), IsEmpty());
        } else {
            EXPECT_THAT(start.text.error, StartsWith(log_prefix + "failed to write "));
        }
        EXPECT_EQ(startedWith(files, environment, clock).failure, std::nullopt);
        EXPECT_THAT(namesIn(data / "runtime"),
                    ElementsAre("runtime-status.json", "worker-control.json", "worker-processed-outbound",
                                "worker-rejected-outbound"));
        return true;
    });
    // The way to the shared place and who owns its root, before and after; three levels there and seven
    // directories below, each looked at, created and looked at again; two files.
    EXPECT_EQ(met, 2 * (stepsOfTheWay + 1) + 3 * (3 + 7) + 2);
}

/// What became of the records of a drain.
class DrainOutcome {
  public:
    DrainOutcome(BackendParts& parts, const test::MemoryStreams::Text& text)
        : parts_(parts), log_(linesOf(text.error)) {
        for (const auto& event : inboundEventsIn(text.output)) ++emitted_[event["messageId"]];
    }

    int timesEmitted(const std::string& id) const {
        const auto found = emitted_.find(id);
        return found == emitted_.end() ? 0 : found->second;
    }
    /// The one directory that holds the record; "" when it is lost or doubled.
    std::string placeOf(const std::string& id) const {
        std::vector<std::string> places;
        for (const auto& [name, path] : {std::pair("inbound", parts_.directory.inbound),
                                         std::pair("processed", parts_.directory.processed),
                                         std::pair("rejected", parts_.directory.rejected)}) {
            for (const auto& file : namesIn(path)) {
                if (file.ends_with(id + ".json") && test::readFile(path + "/" + file).find("old") != 0)
                    places.emplace_back(name);
            }
        }
        return places.size() == 1 ? places[0] : "";
    }
    bool isLoggedAsRejected(const std::string& id) const {
        return std::any_of(log_.begin(), log_.end(), [&](const std::string& line) {
            return line.starts_with(log_prefix + "rejected inbound event at " + id + ".json: ");
        });
    }
    const std::vector<std::string>& log() const { return log_; }

  private:
    BackendParts& parts_;
    std::vector<std::string> log_;
    std::map<std::string, int> emitted_;
};

bool moveHasFailed(const std::vector<std::string>& failures, const std::string& id) {
    return std::any_of(failures.begin(), failures.end(), [&](const std::string& each) {
        return each.starts_with("move ") && each.ends_with("/" + id + ".json");
    });
}

/// A backlog with a record of every kind: m1 and m3 belong, m2 is no record, m4 belongs to another scope, and
/// the name of m3 is taken.
void fillBacklog(const BackendParts& parts) {
    parts.putInbound("m1.json", inboundRecord("m1").dump());
    parts.putInbound("m2.json", "{");
    parts.putInbound("m3.json", inboundRecord("m3").dump());
    parts.putInbound("m4.json", inboundRecord("m4", "other", "Other").dump());
    test::writeFileAtomically(parts.directory.processed + "/m3.json", "old");
}

TEST_P(FaultInjectionTests, DrainNeverLosesARecord) {
    const int met = forEveryOperation(Stage::beforeAnyEffect, [](const Fault& fault) {
        BackendParts parts;
        parts.state.setConnected(true);
        parts.state.setActiveScope(BridgeConversationScope{"room", "Room"});
        fillBacklog(parts);
        InboundDelivery delivery(parts.forDelivery());
        parts.files.set(fault);
        delivery.drainInboundDirectory();
        const auto failures = parts.files.failures();
        parts.files.clear();
        const DrainOutcome outcome(parts, parts.streams.text());
        for (const std::string id : {"m1", "m2", "m3", "m4"}) {
            SCOPED_TRACE(id);
            const auto place = outcome.placeOf(id);
            EXPECT_THAT(place, AnyOf("inbound", "processed", "rejected"));
            EXPECT_LE(outcome.timesEmitted(id), 1);
            if (place == "processed") {
                EXPECT_EQ(outcome.timesEmitted(id), 1);
            }
            if (place == "rejected") {
                EXPECT_TRUE(outcome.isLoggedAsRejected(id));
            }
            if (place == "inbound" && outcome.timesEmitted(id) == 1) {
                EXPECT_TRUE(moveHasFailed(failures, id));
            }
        }
        EXPECT_EQ(outcome.timesEmitted("m2") + outcome.timesEmitted("m4"), 0);
        EXPECT_NE(outcome.placeOf("m4"), "processed");
        if (!failures.empty()) {
            EXPECT_THAT(outcome.log(), Not(IsEmpty()));
        }
        return !failures.empty();
    });
    // The directory opened, looked into and listed, four reads, four moves: one of them twice.
    EXPECT_EQ(met, 11);
}

TEST_P(FaultInjectionTests, EveryRecordIsDeliveredOrRejectedOnceFaultsStop) {
    forEveryOperation(Stage::beforeAnyEffect, [](const Fault& fault) {
        BackendParts parts;
        parts.state.setConnected(true);
        parts.state.setActiveScope(BridgeConversationScope{"room", "Room"});
        fillBacklog(parts);
        InboundDelivery delivery(parts.forDelivery());
        parts.files.set(fault);
        delivery.drainInboundDirectory();
        const auto failures = parts.files.failures();
        parts.files.clear();
        parts.putInbound("m9.json", inboundRecord("m9").dump());
        delivery.drainInboundDirectory();
        const DrainOutcome outcome(parts, parts.streams.text());
        for (const std::string id : {"m1", "m3"}) {
            SCOPED_TRACE(id);
            EXPECT_THAT(outcome.placeOf(id), AnyOf("processed", "rejected"));
            if (outcome.placeOf(id) == "rejected") {
                EXPECT_TRUE(outcome.isLoggedAsRejected(id));
            }
            if (outcome.timesEmitted(id) == 0) {
                EXPECT_EQ(outcome.placeOf(id), "rejected");
            }
            if (outcome.timesEmitted(id) > 1) {
                EXPECT_TRUE(moveHasFailed(failures, id));
            }
        }
        EXPECT_EQ(outcome.placeOf("m2"), "rejected");
        EXPECT_THAT(outcome.placeOf("m4"), AnyOf("inbound", "rejected"));
        EXPECT_EQ(outcome.placeOf("m9"), "processed");
        EXPECT_EQ(outcome.timesEmitted("m9"), 1);
        return !failures.empty();
    });
}

/// A publisher whose worker runs, with a status of the worker and old files in place.
struct Publishing {
    BackendParts parts;
    StatusPublisher publisher{parts.forPublisher()};
    std::string oldStatus;
    std::string oldControl;

    Publishing() {
        test::writeFileAtomically(parts.directory.workerStatusFile,
                                  R"({"state":"linked","supportsLiveCapture":true,"supportsOutbound":true})");
        parts.state.setWorkerState({.configuredExecutablePath = "/w",
                                    .state = "launching",
                                    .detail = "Own words.",
                                    .processRunning = true});
        publisher.writeRuntimeStatus();
        oldStatus = status();
        oldControl = control();
        parts.state.setConnected(true);
        parts.state.setActiveScope(BridgeConversationScope{"room", "Room"});
    }
    std::string status() const { return test::readFile(parts.directory.runtimeStatusFile); }
    std::string control() const { return test::readFile(parts.directory.workerControlFile); }
};

void expectExactLog(std::vector<std::string> log, const std::vector<std::string>& failures) {
    std::vector<std::string> expected;
    for (const auto& failed : failures) {
        // The question whether a file exists is answered "no" and not logged.
        if (failed.starts_with("look for ")) continue;
        const std::string what = failed.ends_with("/worker-status.json") ? "failed to decode worker status: "
                                 : failed.ends_with("/runtime-status.json")
                                     ? "failed to write runtime status: "
                                     : "failed to write worker control: ";
        const auto slash = failed.find('/');
        expected.push_back(log_prefix + what + "Cannot " + failed.substr(0, slash) + "\"" +
                           failed.substr(slash) + "\": ");
    }
    ASSERT_EQ(log.size(), expected.size());
    std::sort(log.begin(), log.end());
    std::sort(expected.begin(), expected.end());
    for (std::size_t i = 0; i < log.size(); ++i) EXPECT_THAT(log[i], StartsWith(expected[i]));
}

TEST_P(FaultInjectionTests, FailedStatusWriteIsLoggedAndKeepsTheOldFile) {
    for (const auto stage : {Stage::beforeAnyEffect, Stage::afterTemporaryFile}) {
        forEveryOperation(stage, [&](const Fault& fault) {
            Publishing publishing;
            auto& parts = publishing.parts;
            parts.files.set(fault);
            publishing.publisher.writeRuntimeStatus();
            auto failures = parts.files.failures();
            parts.files.clear();
            const auto log = linesOf(parts.streams.text().error);
            const auto failed = [&](const std::string& name) {
                return std::any_of(failures.begin(), failures.end(), [&](const auto& each) {
                    return each.starts_with("write ") && each.ends_with("/" + name);
                });
            };
            EXPECT_EQ(publishing.status() == publishing.oldStatus, failed("runtime-status.json"));
            EXPECT_EQ(publishing.control() == publishing.oldControl, failed("worker-control.json"));
            EXPECT_TRUE(test::Json::parseIfPossible(publishing.status()).has_value());
            EXPECT_TRUE(test::Json::parseIfPossible(publishing.control()).has_value());
            // A worker status that cannot be read, when even its existence cannot be told, is none.
            const bool isAbsent = std::any_of(failures.begin(), failures.end(),
                                              [](const auto& each) { return each.starts_with("look for "); });
            if (isAbsent) std::erase_if(failures, [](const auto& each) { return each.starts_with("read "); });
            expectExactLog(log, failures);
            publishing.publisher.writeRuntimeStatus();
            EXPECT_EQ(parts.runtimeStatus()["connectionState"], "connected");
            EXPECT_EQ(parts.runtimeStatus()["workerState"], "linked");
            EXPECT_EQ(parts.workerControl()["activeScope"]["id"], "room");
            return !failures.empty() || isAbsent;
        });
    }
}

TEST_P(FaultInjectionTests, UnreadableWorkerStatusFallsBackToTheBackendsOwnWords) {
    Publishing publishing;
    publishing.parts.files.set(
        {.operation = 1, .persistence = Persistence::once, .code = std::get<int>(GetParam())});
    publishing.publisher.writeRuntimeStatus();
    publishing.parts.files.clear();
    const auto status = publishing.parts.runtimeStatus();
    const auto log = publishing.parts.streams.text().error;
    EXPECT_EQ(status["workerState"], "launching");
    EXPECT_EQ(status["workerDetail"], "Own words.");
    EXPECT_EQ(log, log_prefix + "failed to decode worker status: " +
                       descriptionOf("read " + publishing.parts.directory.workerStatusFile) + "\n");
}

/// A service that is connected and listens, and what it publishes.
struct Sending {
    test::TemporaryDirectory home;
    std::filesystem::path data = home.path() / "data";
    FaultInjectingFileManager files;
    test::TestClock clock;
    test::MemoryStreams streams;
    BridgeChannel channel{{.input = -1, .output = streams.output(), .error = streams.error()}};
    ManagedWhatsAppBackendService service{
        "whatsapp", {{std::string(environment_key::data_directory), data.string()}}, files, clock, channel,
        ::getppid()};

    Sending() {
        service.handle(BridgeConnectRequest{"whatsapp"});
        service.handle(BridgeStartListeningRequest{"whatsapp", BridgeConversationScope{"room", "Room"}});
    }
    /// The first message looks for what waits, as no later one does.
    void sendFirst() {
        send();
        for (const auto& name : visibleOutbound()) files.removeItem((data / "outbound" / name).string());
    }
    void send(const std::string& text = "Hi") {
        service.handle(BridgeSendMessageRequest{
            "whatsapp", {.conversationId = "room", .text = text, .replyToMessageId = {}, .attachments = {}}});
    }
    void sendAttachment(const std::string& content) {
        BridgeAttachment attachment;
        attachment.dataBase64 = content;
        service.handle(BridgeSendMessageRequest{
            "whatsapp",
            {.conversationId = "room", .text = "Hi", .replyToMessageId = {}, .attachments = {{attachment}}}});
    }
    std::vector<std::string> textsInOrderOfNames() {
        std::vector<std::string> texts;
        for (const auto& name : test::namesIn(data / "outbound")) {
            texts.push_back(test::readJsonFile(data / "outbound" / name)["text"]);
        }
        return texts;
    }
    std::vector<std::string> visibleOutbound() { return files.visibleEntries(data / "outbound"); }
    std::string status() const { return test::readFile(data / "runtime" / "runtime-status.json"); }
    std::string control() const { return test::readFile(data / "runtime" / "worker-control.json"); }
};

struct SendResult {
    std::optional<std::string> failure;
    std::vector<std::string> failures;
    std::vector<std::string> operations;
};

SendResult sendWith(Sending& sending, const Fault& fault) {
    SendResult result;
    sending.files.set(fault);
    try {
        sending.send();
    } catch (const FileSystemFailure& failure) {
        result.failure = failure.what();
    }
    result.failures = sending.files.failures();
    result.operations = sending.files.operations();
    sending.files.clear();
    return result;
}

TEST_P(FaultInjectionTests, FailedSendHasNoEffectAndSendingWorksAgain) {
    for (const auto stage : {Stage::beforeAnyEffect, Stage::afterTemporaryFile}) {
        const int met = forEveryOperation(stage, [&](const Fault& fault) {
            Sending sending;
            sending.sendFirst();
            const auto status = sending.status();
            const auto control = sending.control();
            const auto result = sendWith(sending, fault);
            const auto outbound = sending.visibleOutbound();
            const bool unchanged = sending.status() == status && sending.control() == control;
            sending.send();
            const auto outboundAfter = sending.visibleOutbound();
            const auto text = sending.streams.text();
            EXPECT_TRUE(unchanged);
            const bool messageFailed =
                !result.failures.empty() && result.failures[0].find("/outbound/") != std::string::npos;
            EXPECT_EQ(result.failure.has_value(), messageFailed);
            if (messageFailed) {
                EXPECT_EQ(result.failure, descriptionOf(result.failures[0]));
                EXPECT_THAT(outbound, IsEmpty());
                EXPECT_EQ(result.operations.size(), 1U)
                    << "nothing may be tried after the message has failed";
                EXPECT_EQ(text.error, "");
            } else {
                EXPECT_EQ(outbound.size(), 1U);
                expectExactLog(linesOf(text.error), result.failures);
            }
            EXPECT_EQ(outboundAfter.size(), outbound.size() + 1);
            return !result.failures.empty();
        });
        // The message, the runtime status, the worker control.
        EXPECT_EQ(met, 3);
    }
}

TEST_P(FaultInjectionTests, LargeMessageIsThereWholeOrNotAtAll) {
    const std::string data(5 * JsonWriter::piece_bytes, '/');
    const int met = forEveryOperation(Stage::beforeAPiece, [&](const Fault& fault) {
        Sending sending;
        sending.files.set(fault);
        std::optional<std::string> failure;
        try {
            sending.sendAttachment(data);
        } catch (const FileSystemFailure& thrown) {
            failure = thrown.what();
        }
        const auto failures = sending.files.failures();
        sending.files.clear();
        const bool messageFailed = !failures.empty() && failures[0].find("/outbound/") != std::string::npos;
        EXPECT_EQ(failure.has_value(), messageFailed);
        const auto names = test::namesIn(sending.data / "outbound");
        EXPECT_EQ(names.size(), messageFailed ? 0U : 1U);
        for (const auto& name : names) {
            const auto record = test::readJsonFile(sending.data / "outbound" / name);
            EXPECT_TRUE(record["attachments"][0]["dataBase64"] == data);
        }
        return !failures.empty();
    });
    // Each slash takes two bytes; and then the runtime status and the worker control.
    EXPECT_GE(met, 10 + 2);
}

TEST(SendTests, MessagesStandInTheOrderOfTheRequests) {
    Sending sending;
    std::vector<std::string> sent;
    for (int i = 0; i < 50; ++i) {
        sent.push_back(std::to_string(i));
        sending.send(sent.back());
    }
    EXPECT_EQ(sending.textsInOrderOfNames(), sent);
}

TEST(SendTests, DirectoryThatCannotBeListedDoesNotKeepAMessageBack) {
    Sending sending;
    const auto result = sendWith(sending, {.operation = 1, .code = EMFILE});
    EXPECT_THAT(result.failures, ElementsAre("list " + (sending.data / "outbound").string()));
    EXPECT_EQ(result.failure, std::nullopt);
    EXPECT_EQ(sending.visibleOutbound().size(), 1U);
}

TEST(SendTests, OnlyTheMessageIsWrittenThroughToTheDisk) {
    Sending sending;
    sending.sendFirst();
    const auto result = sendWith(sending, {.operation = far_too_many_operations});
    ASSERT_EQ(result.operations.size(), 3U);
    EXPECT_THAT(result.operations[0], StartsWith("write through " + (sending.data / "outbound/").string()));
    EXPECT_EQ(result.operations[1], "write " + (sending.data / "runtime/runtime-status.json").string());
    EXPECT_EQ(result.operations[2], "write " + (sending.data / "runtime/worker-control.json").string());
}

}  // namespace
}  // namespace brindle

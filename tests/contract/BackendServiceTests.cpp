#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "support/BackendProcess.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/TextForms.h"
#include "support/WorkerScript.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

const std::string account_display_name = "Brindle Managed WhatsApp Backend";

Json stateEnvelope(const Json& state) {
    return {{"stateChanged", {{"_0", {{"state", state}}}}}};
}

const Json disconnected = stateEnvelope({{"disconnected", Json::object()}});
const Json connecting = stateEnvelope({{"connecting", Json::object()}});
const Json connected = stateEnvelope({{"connected", {{"accountDisplayName", account_display_name}}}});

/// Sends a line that is always answered by exactly one `error`; every request sent before it has been handled
/// when that answer comes. Returns the envelopes that came before the answer.
std::vector<Json> envelopesUpToHere(BackendProcess& backend) {
    backend.send(std::string("{"));
    std::vector<Json> envelopes;
    for (;;) {
        Json envelope = backend.nextEnvelope();
        if (envelope.contains("error")) return envelopes;
        envelopes.push_back(std::move(envelope));
    }
}

std::string messageInError(const Json& envelope) {
    return envelope.at("error").at("_0").at("message");
}

TEST(BackendService, GreetsWithHelloAndDisconnectedBeforeAnyRequest) {
    BackendProcess backend;
    EXPECT_EQ(
        backend.nextEnvelope(),
        (Json{{"hello",
               {{"_0", {{"platform", "whatsapp"}, {"bridgeVersion", "managed-whatsapp-backend-3"}}}}}}));
    EXPECT_EQ(backend.nextEnvelope(), disconnected);
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(BackendService, StatusFilesExistBeforeTheGreeting) {
    BackendProcess backend;
    backend.nextLine();
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("connectionState"), "disconnected");
    EXPECT_EQ(backend.readJson("runtime/worker-control.json").at("platform"), "whatsapp");
}

TEST(BackendService, ConnectYieldsConnectingThenConnectedAndNothingElse) {
    BackendProcess backend;
    backend.greet();
    backend.send(connectRequest());
    EXPECT_EQ(backend.nextEnvelope(), connecting);
    EXPECT_EQ(backend.nextEnvelope(), connected);
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(BackendService, ConnectReportsConnectedWhateverTheWorkerSays) {
    const WorkerScript worker(
        R"(publish worker-status.json '{"state":"waiting_for_qr","supportsLiveCapture":true,"supportsOutbound":false}'
stay)");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.waitForRuntimeStatus(
        [](const Json& status) { return status["workerState"] == "waiting_for_qr"; });
    backend.greet();
    backend.send(connectRequest());
    EXPECT_EQ(envelopesUpToHere(backend), (std::vector<Json>{connecting, connected}));
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("workerState"), "waiting_for_qr");
}

TEST(BackendService, ConnectIsPublishedBeforeTheNextRequestIsRead) {
    BackendProcess backend;
    backend.greet();
    backend.send(connectRequest());
    envelopesUpToHere(backend);
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("connectionState"), "connected");
}

TEST(BackendService, ConnectWhileConnectedRepeatsBothEnvelopes) {
    BackendProcess backend;
    backend.greet();
    backend.send(connectRequest());
    backend.send(connectRequest());
    EXPECT_EQ(envelopesUpToHere(backend), (std::vector<Json>{connecting, connected, connecting, connected}));
}

TEST(BackendService, DisconnectWhileDisconnectedRepeatsItsEnvelope) {
    BackendProcess backend;
    backend.greet();
    backend.send(disconnectRequest());
    backend.send(disconnectRequest());
    EXPECT_EQ(envelopesUpToHere(backend), (std::vector<Json>{disconnected, disconnected}));
}

TEST(BackendService, ConnectForAnotherPlatformYieldsNothing) {
    BackendProcess backend;
    backend.greet();
    backend.send(connectRequest("other"));
    EXPECT_TRUE(envelopesUpToHere(backend).empty());
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("connectionState"), "disconnected");
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(BackendService, PlatformOfARequestIsComparedWithRegardToCase) {
    BackendProcess backend;
    backend.greet();
    backend.send(connectRequest("WhatsApp"));
    EXPECT_TRUE(envelopesUpToHere(backend).empty());
}

TEST(BackendService, PlatformOfARequestIsComparedByCanonicalEquivalence) {
    const std::string composed = "caf\xC3\xA9";
    const std::string decomposed = "cafe\xCC\x81";
    BackendOptions options;
    options.arguments = {"--platform", decomposed};
    BackendProcess backend(options);
    EXPECT_EQ(backend.nextEnvelope().at("hello").at("_0").at("platform"), decomposed);
    EXPECT_EQ(backend.nextEnvelope(), disconnected);
    backend.send(connectRequest(composed));
    EXPECT_EQ(envelopesUpToHere(backend), (std::vector<Json>{connecting, connected}));
}

TEST(BackendService, RequestsForAnotherPlatformChangeNoStateAndNoFile) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.send(disconnectRequest("other"));
    backend.send(startListeningRequest(conversationScope("elsewhere", "Elsewhere"), "other"));
    backend.send(startListeningRequest(testOnlyScope("Elsewhere"), "other"));
    backend.send(stopListeningRequest("other"));
    backend.send(sendMessageRequest(teamRoomMessage("hi"), "other"));
    EXPECT_TRUE(envelopesUpToHere(backend).empty());
    backend.waitForStatusWrites(2);
    const Json status = backend.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status.at("connectionState"), "connected");
    EXPECT_EQ(status.at("activeScopeDescription"), "Conversation Team Room [team-room]");
    EXPECT_TRUE(namesIn(backend.path("outbound")).empty());
    EXPECT_EQ(backend.standardError(), "");
}

TEST(BackendService, PlatformOfTheCommandLineDecidesWhichRequestsAreMeant) {
    BackendOptions options;
    options.arguments = {"--platform", "signal"};
    BackendProcess backend(options);
    EXPECT_EQ(backend.nextEnvelope().at("hello").at("_0").at("platform"), "signal");
    EXPECT_EQ(backend.nextEnvelope(), disconnected);
    backend.send(connectRequest("whatsapp"));
    EXPECT_TRUE(envelopesUpToHere(backend).empty());
    backend.send(connectRequest("signal"));
    EXPECT_EQ(envelopesUpToHere(backend), (std::vector<Json>{connecting, connected}));
}

TEST(BackendService, EnvelopesMeantForTheParentAreIgnored) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.send(Json{{"hello", {{"_0", {{"platform", "whatsapp"}, {"bridgeVersion", "parent"}}}}}});
    backend.send(disconnected);
    backend.send(Json{{"error", {{"_0", {{"message", "not for you"}}}}}});
    backend.send(Json{{"inboundEvent", {{"_0", {{"event", inboundRecord("m-1", "hi")}}}}}});
    EXPECT_TRUE(envelopesUpToHere(backend).empty());
    const Json status = backend.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status.at("connectionState"), "connected");
    EXPECT_EQ(status.at("activeScopeDescription"), "Conversation Team Room [team-room]");
}

TEST(BackendService, BlankLineYieldsNothing) {
    BackendProcess backend;
    backend.greet();
    backend.send(std::string());
    backend.send(std::string("  \r"));
    EXPECT_TRUE(envelopesUpToHere(backend).empty());
}

TEST(BackendService, MalformedLineYieldsOneErrorAndTheLoopContinues) {
    BackendProcess backend;
    backend.greet();
    backend.send(std::string("{"));
    const std::string description = messageInError(backend.nextEnvelope());
    EXPECT_FALSE(description.empty());
    EXPECT_EQ(description.find('\n'), std::string::npos);
    backend.send(connectRequest());
    EXPECT_EQ(backend.nextEnvelope(), connecting);
    EXPECT_EQ(backend.nextEnvelope(), connected);
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(BackendService, MalformedLineLeavesTheStateUnchangedAndIsNotLogged) {
    BackendProcess backend;
    backend.connectAndListen();
    const Json badScope = {{"conversation", {{"id", "x"}}}};
    backend.send(startListeningRequest(badScope));
    EXPECT_NE(messageInError(backend.nextEnvelope()), "");
    backend.waitForStatusWrites(2);
    const Json status = backend.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status.at("connectionState"), "connected");
    EXPECT_EQ(status.at("activeScopeDescription"), "Conversation Team Room [team-room]");
    EXPECT_EQ(backend.standardError(), "");
}

TEST(BackendService, DisconnectClearsConnectionAndScopeAtOnce) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.send(disconnectRequest());
    EXPECT_EQ(envelopesUpToHere(backend), (std::vector<Json>{disconnected}));
    const Json status = backend.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status.at("connectionState"), "disconnected");
    EXPECT_FALSE(status.contains("activeScopeDescription"));
    EXPECT_FALSE(backend.readJson("runtime/worker-control.json").contains("activeScope"));
}

TEST(BackendService, DisconnectLeavesTheWorkerRunning) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    const pid_t pid = worker.waitForPid();
    backend.connectAndListen();
    backend.send(disconnectRequest());
    backend.waitForRuntimeStatus(
        [](const Json& status) { return status["connectionState"] == "disconnected"; });
    backend.waitForStatusWrites(2);
    EXPECT_TRUE(processIsRunning(pid));
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("workerProcessRunning"), true);
}

TEST(BackendService, AfterDisconnectDeliveryNeedsConnectAndStartListeningAgain) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.send(disconnectRequest());
    EXPECT_EQ(backend.nextEnvelope(), disconnected);
    backend.writeInbound("m-1.json", inboundRecord("m-1", "later"));
    backend.send(connectRequest());
    EXPECT_EQ(envelopesUpToHere(backend), (std::vector<Json>{connecting, connected}));
    backend.waitForStatusWrites(2);
    EXPECT_EQ(namesIn(backend.path("inbound")), std::vector<std::string>{"m-1.json"});
    backend.send(startListeningRequest(conversationScope()));
    EXPECT_EQ(backend.nextEnvelope().at("inboundEvent").at("_0").at("event").at("messageId"), "m-1");
}

TEST(BackendService, StartListeningReplacesTheScope) {
    BackendProcess backend;
    backend.greet();
    backend.send(startListeningRequest(conversationScope()));
    backend.send(startListeningRequest(channelScope("news", "News")));
    EXPECT_TRUE(envelopesUpToHere(backend).empty());
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("activeScopeDescription"),
              "Channel News [news]");
    EXPECT_EQ(backend.readJson("runtime/worker-control.json").at("activeScope"),
              (Json{{"kind", "channel"}, {"id", "news"}, {"title", "News"}}));
}

TEST(BackendService, StopListeningClearsTheScopeWithoutAReplyAndKeepsTheConnection) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.send(stopListeningRequest());
    EXPECT_TRUE(envelopesUpToHere(backend).empty());
    const Json status = backend.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status.at("connectionState"), "connected");
    EXPECT_FALSE(status.contains("activeScopeDescription"));
    EXPECT_FALSE(backend.readJson("runtime/worker-control.json").contains("activeScope"));
}

TEST(BackendService, ConnectLeavesTheScopeAsItIs) {
    BackendProcess backend;
    backend.greet();
    backend.send(startListeningRequest(threadScope("t-9", "Launch")));
    backend.send(connectRequest());
    envelopesUpToHere(backend);
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("activeScopeDescription"),
              "Thread Launch [t-9]");
}

TEST(BackendService, SelfTestYieldsItsOneEventEvenWhenNotConnected) {
    BackendProcess backend;
    backend.greet();
    backend.send(startListeningRequest(testOnlyScope("X")));
    Json event = backend.nextEnvelope().at("inboundEvent").at("_0").at("event");
    EXPECT_TRUE(isCanonicalUuid(event.at("messageId").get<std::string>())) << event;
    EXPECT_TRUE(isTimestamp(event.at("timestampISO8601").get<std::string>())) << event;
    event.erase("messageId");
    event.erase("timestampISO8601");
    EXPECT_EQ(event, (Json{{"conversationId", "managed-whatsapp-backend-self-test"},
                           {"conversationTitle", "X"},
                           {"senderId", "managed-whatsapp-backend"},
                           {"senderDisplayName", account_display_name},
                           {"text", "/skiff help"},
                           {"isDirectMessage", true},
                           {"rawReference", "managed-whatsapp-backend-self-test"}}));
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(BackendService, EverySelfTestHasAMessageIdOfItsOwn) {
    BackendProcess backend;
    backend.greet();
    backend.send(startListeningRequest(testOnlyScope("X")));
    backend.send(startListeningRequest(testOnlyScope("X")));
    const Json first = backend.nextEnvelope();
    const Json second = backend.nextEnvelope();
    EXPECT_NE(first.at("inboundEvent").at("_0").at("event").at("messageId"),
              second.at("inboundEvent").at("_0").at("event").at("messageId"));
}

TEST(BackendService, SelfTestScopeIsPublished) {
    BackendProcess backend;
    backend.greet();
    backend.send(startListeningRequest(testOnlyScope("X")));
    envelopesUpToHere(backend);
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("activeScopeDescription"), "Self-test X");
}

TEST(BackendService, SendMessageWritesOneRecordAndAnswersNothing) {
    BackendProcess backend;
    backend.greet();
    backend.send(sendMessageRequest(teamRoomMessage("On my way")));
    EXPECT_TRUE(envelopesUpToHere(backend).empty());
    EXPECT_EQ(namesIn(backend.path("outbound")).size(), 1U);
}

TEST(BackendService, SendMessageNeedsNoConnectionAndNoScope) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.send(disconnectRequest());
    backend.send(sendMessageRequest(teamRoomMessage("while disconnected")));
    EXPECT_EQ(envelopesUpToHere(backend), (std::vector<Json>{disconnected}));
    EXPECT_EQ(namesIn(backend.path("outbound")).size(), 1U);
}

TEST(BackendService, SameTextSentTwiceMakesTwoRecordsWithIdsOfTheirOwn) {
    BackendProcess backend;
    backend.greet();
    backend.send(sendMessageRequest(teamRoomMessage("again")));
    backend.send(sendMessageRequest(teamRoomMessage("again")));
    envelopesUpToHere(backend);
    const std::vector<std::string> names = namesIn(backend.path("outbound"));
    ASSERT_EQ(names.size(), 2U);
    for (const std::string& name : names) {
        const Json record = backend.readJson(fs::path("outbound") / name);
        EXPECT_TRUE(isCanonicalUuid(record.at("messageId").get<std::string>())) << record;
        EXPECT_EQ(name, record.at("messageId").get<std::string>() + ".json");
        EXPECT_EQ(record.at("text"), "again");
    }
}

/// What waits in "outbound", in order of the names.
std::vector<std::string> waitingTexts(const BackendProcess& backend) {
    std::vector<std::string> texts;
    for (const auto& name : namesIn(backend.path("outbound"))) {
        texts.push_back(backend.readJson(fs::path("outbound") / name).at("text"));
    }
    return texts;
}

TEST(BackendService, FiftyQuickMessagesKeepTheirOrderByName) {
    BackendProcess backend;
    backend.greet();
    std::vector<std::string> sent;
    for (int i = 0; i < 50; ++i) {
        sent.push_back("no " + std::to_string(i));
        backend.send(sendMessageRequest(teamRoomMessage(sent.back())));
    }
    envelopesUpToHere(backend);
    EXPECT_EQ(waitingTexts(backend), sent);
}

TEST(BackendService, OrderOfMessagesThatNoWorkerTookSurvivesRestarts) {
    const BackendOptions options;
    std::vector<std::string> sent;
    for (int start = 0; start < 5; ++start) {
        BackendProcess backend(options);
        backend.greet();
        for (int i = 0; i < 3; ++i) {
            sent.push_back(std::to_string(start) + " " + std::to_string(i));
            backend.send(sendMessageRequest(teamRoomMessage(sent.back())));
        }
        envelopesUpToHere(backend);
        EXPECT_EQ(waitingTexts(backend), sent);
        // A killed one leaves as much behind as one that ends.
        backend.signal(start % 2 == 0 ? SIGKILL : SIGTERM);
        backend.waitForExit();
    }
}

TEST(BackendService, MessageIdInARequestIsNeverUsed) {
    BackendProcess backend;
    backend.greet();
    Json request = teamRoomMessage("hi");
    request["messageId"] = "chosen-by-the-parent";
    backend.send(sendMessageRequest(request));
    envelopesUpToHere(backend);
    const std::vector<std::string> names = namesIn(backend.path("outbound"));
    ASSERT_EQ(names.size(), 1U);
    EXPECT_TRUE(isCanonicalUuid(names.front().substr(0, names.front().find('.')))) << names.front();
}

TEST(BackendService, OutboundRecordsAreNeverReadOrRemoved) {
    BackendProcess backend;
    backend.connectAndListen();
    writeFileAtomically(backend.path("outbound/foreign.json"), "{ not a record");
    backend.send(sendMessageRequest(teamRoomMessage("stays")));
    envelopesUpToHere(backend);
    backend.waitForStatusWrites(3);
    EXPECT_EQ(namesIn(backend.path("outbound")).size(), 2U);
    backend.finish();
    EXPECT_EQ(namesIn(backend.path("outbound")).size(), 2U);
    EXPECT_EQ(backend.standardError(), "");
}

TEST(BackendService, FailedOutboundWriteIsAnsweredByAnErrorNamingPathAndReason) {
    BackendProcess backend;
    backend.connectAndListen();
    makeVanish(backend.path("outbound"));
    backend.send(sendMessageRequest(teamRoomMessage("lost")));
    const std::string description = messageInError(backend.nextEnvelope());
    EXPECT_NE(description.find(backend.path("outbound").string()), std::string::npos) << description;
    EXPECT_NE(description.find("No such file or directory"), std::string::npos) << description;
    EXPECT_EQ(description.find('\n'), std::string::npos);
}

TEST(BackendService, VanishedOutboundDirectoryIsNotMadeAgain) {
    BackendProcess backend;
    backend.greet();
    makeVanish(backend.path("outbound"));
    backend.send(sendMessageRequest(teamRoomMessage("lost")));
    EXPECT_NE(messageInError(backend.nextEnvelope()), "");
    EXPECT_FALSE(fs::exists(backend.path("outbound")));
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
    EXPECT_FALSE(fs::exists(backend.path("outbound")));
}

TEST(BackendService, FailedOutboundWriteLeavesConnectionAndScopeUnchanged) {
    BackendProcess backend;
    backend.connectAndListen();
    makeVanish(backend.path("outbound"));
    backend.send(sendMessageRequest(teamRoomMessage("lost")));
    EXPECT_NE(messageInError(backend.nextEnvelope()), "");
    backend.waitForStatusWrites(2);
    const Json status = backend.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status.at("connectionState"), "connected");
    EXPECT_EQ(status.at("activeScopeDescription"), "Conversation Team Room [team-room]");
}

TEST(BackendService, SendingWorksAgainOnceTheOutboundDirectoryIsBack) {
    BackendProcess backend;
    backend.greet();
    makeVanish(backend.path("outbound"));
    backend.send(sendMessageRequest(teamRoomMessage("lost")));
    EXPECT_NE(messageInError(backend.nextEnvelope()), "");
    fs::create_directory(backend.path("outbound"));
    backend.send(sendMessageRequest(teamRoomMessage("arrives")));
    EXPECT_TRUE(envelopesUpToHere(backend).empty());
    EXPECT_EQ(namesIn(backend.path("outbound")).size(), 1U);
}

TEST(BackendService, EveryDiagnosticIsOneLineWithThePrefixOfTheBackend) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.writeInboundRaw("broken.json", "{");
    backend.waitForEntries("rejected", 1);
    makeVanish(backend.path("runtime"));
    backend.waitForStandardError("failed to write worker control: ");
    backend.finish();
    const std::string all = backend.standardError();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.back(), '\n');
    for (const std::string& line : backend.standardErrorLines()) {
        EXPECT_TRUE(line.starts_with("[ManagedWhatsAppBackend] ")) << line;
    }
}

TEST(BackendService, FileFailuresReachTheParentAsNoEnvelope) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.writeInboundRaw("broken.json", "{");
    backend.waitForEntries("rejected", 1);
    makeVanish(backend.path("runtime"));
    backend.waitForStandardError("failed to write runtime status: ");
    backend.waitForStandardError("failed to write worker control: ");
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(BackendService, EndOfInputKeepsConnectionAndScopeInTheLastStatus) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.finish();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    const Json status = backend.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status.at("connectionState"), "connected");
    EXPECT_EQ(status.at("activeScopeDescription"), "Conversation Team Room [team-room]");
    EXPECT_EQ(status.at("workerState"), "not_configured");
    EXPECT_EQ(status.at("workerDetail"), "No managed WhatsApp worker configured.");
}

TEST(BackendService, RequestsAreAnsweredWhileNothingIsKnownOfTheWorker) {
    const WorkerScript worker("exit 3");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.waitForStandardError("exited unexpectedly");
    backend.greet();
    backend.send(connectRequest());
    backend.send(sendMessageRequest(teamRoomMessage("no worker takes it")));
    EXPECT_EQ(envelopesUpToHere(backend), (std::vector<Json>{connecting, connected}));
    EXPECT_EQ(namesIn(backend.path("outbound")).size(), 1U);
}

}  // namespace
}  // namespace brindle::test

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Requests.h"
#include "support/TextForms.h"
#include "support/Waiting.h"
#include "support/WorkerScript.h"

namespace brindle::test {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* status_file = "runtime/runtime-status.json";
constexpr const char* control_file = "runtime/worker-control.json";
constexpr int small_pipe_bytes = 4096;
constexpr std::size_t nearly_full_bytes = 3500;

/// What a backend answers to these bytes, which are all of its input.
Lines repliesToBytes(std::string_view bytes) {
    BackendProcess process;
    process.greet();
    process.sendRaw(bytes);
    auto replies = process.finishAndTakeRest();
    if (process.waitForExit() != exitedWith(0)) throw TestFailure("the backend did not end normally");
    return replies;
}

std::string connectLine() {
    return connectRequest().dump();
}

Lines connectReplies() {
    return {connecting_line, connected_line};
}

Json controlScopeAfter(const Json& scope) {
    BackendProcess process;
    process.greet();
    process.send(startListeningRequest(scope));
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    return process.readJson(control_file)["activeScope"];
}

/// Counts how often a file is renamed into place.
class ReplacementCounter {
  public:
    ReplacementCounter(const std::filesystem::path& directory, std::string name)
        : name_(std::move(name)), descriptor_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        if (descriptor_ < 0 || ::inotify_add_watch(descriptor_, directory.c_str(), IN_MOVED_TO) < 0) {
            throw TestFailure("cannot watch " + directory.string());
        }
    }
    ~ReplacementCounter() { ::close(descriptor_); }
    ReplacementCounter(const ReplacementCounter&) = delete;
    ReplacementCounter& operator=(const ReplacementCounter&) = delete;

    int count() {
        alignas(inotify_event) std::array<char, 64 * 1024> buffer{};
        for (;;) {
            const auto size = ::read(descriptor_, buffer.data(), buffer.size());
            if (size <= 0) return count_;
            for (const char* place = buffer.data(); place < buffer.data() + size;) {
                inotify_event event{};
                std::memcpy(&event, place, sizeof event);
                if (name_ == place + sizeof event) ++count_;
                place += sizeof event + event.len;
            }
        }
    }

  private:
    std::string name_;
    int descriptor_;
    int count_ = 0;
};

/// How often the status is written while the backend deals with `count` copies of a request.
int statusWritesFor(const Json& request, int count) {
    BackendProcess process;
    process.greet();
    process.waitForFile(control_file);
    ReplacementCounter counter(process.path("runtime"), "runtime-status.json");
    for (int sent = 0; sent < count; ++sent) process.send(request);
    process.finish();
    return counter.count();
}

BackendOptions optionsWithUnreadOutput() {
    BackendOptions options;
    options.stdoutPipeBytes = small_pipe_bytes;
    options.readOutputAtOnce = false;
    return options;
}

/// Makes the backend answer until its output pipe holds no more.
void fillOutput(BackendProcess& process) {
    for (int sent = 0; sent < 100; ++sent) process.send(connectRequest());
    process.waitUntil([&] { return process.unreadOutputBytes() > nearly_full_bytes; }, "a full output pipe");
}

// The greeting and the end.

TEST(BridgeChannel, ClosedInputYieldsExactlyTheGreeting) {
    BackendProcess process;
    EXPECT_EQ(process.finish(), (Lines{hello_line, disconnected_line}));
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

TEST(BridgeChannel, GreetingPrecedesEveryReply) {
    BackendProcess process;
    process.send(connectRequest());
    process.send("{");
    const auto lines = process.finish();
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ((Lines{lines.begin(), lines.begin() + 4}),
              (Lines{hello_line, disconnected_line, connecting_line, connected_line}));
    EXPECT_NO_THROW(errorMessageOf(lines[4]));
}

TEST(BridgeChannel, StatusAndControlAreWrittenWithTheGreeting) {
    BackendProcess process;
    process.greet();
    process.finish();
    EXPECT_EQ(process.readJson(status_file)["connectionState"], "disconnected");
    EXPECT_FALSE(process.readJson(control_file).contains("activeScope"));
}

TEST(BridgeChannel, EndOfInputStopsTheWorkerAndRecordsIt) {
    BackendProcess process(optionsWithPoliteWorker());
    process.greet();
    process.waitForFile("worker-ready");
    process.finish();
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
    EXPECT_EQ(process.readJson(status_file)["workerState"], "stopped");
    process.waitForFile("worker-was-asked");
}

TEST(BridgeChannel, EndOfInputRecordsTheStateOfTheConnection) {
    BackendProcess process;
    process.connectAndListen();
    process.finish();
    const auto status = process.readJson(status_file);
    EXPECT_EQ(status["connectionState"], "connected");
    EXPECT_EQ(status["workerDetail"], "No managed WhatsApp worker configured.");
    EXPECT_TRUE(process.readJson(control_file).contains("activeScope"));
}

TEST(BridgeChannel, RequestsAreServedWhileTheWorkerIsNotUpYet) {
    auto options = optionsWithPoliteWorker();
    writeScript(politeWorker(options), "exec sleep 1000");
    BackendProcess process(options);
    process.greet();
    process.send(connectRequest());
    EXPECT_EQ(process.nextLine(), connecting_line);
    EXPECT_EQ(process.nextLine(), connected_line);
}

// Lines.

class BridgeChannelBlankLine : public testing::TestWithParam<const char*> {};

TEST_P(BridgeChannelBlankLine, YieldsNothing) {
    EXPECT_EQ(repliesToBytes(std::string(GetParam()) + "\n" + connectLine() + "\n" + GetParam() + "\n"),
              connectReplies());
}

TEST_P(BridgeChannelBlankLine, YieldsNothingAsTheUnterminatedLastLine) {
    EXPECT_EQ(repliesToBytes(connectLine() + "\n" + GetParam()), connectReplies());
}

TEST_P(BridgeChannelBlankLine, AroundAnEnvelopeIsTrimmed) {
    EXPECT_EQ(repliesToBytes(GetParam() + connectLine() + GetParam() + "\n"), connectReplies());
}

INSTANTIATE_TEST_SUITE_P(Texts, BridgeChannelBlankLine,
                         testing::Values("", " ", "  \r", "\r", "\t\t", "\v\f", "\u0085", "\u00a0", "\u1680",
                                         "\u2000\u2001\u2002\u2003\u2004\u2005\u2006\u2007\u2008\u2009\u200a",
                                         "\u2028", "\u2029", "\u202f\u205f", "\u3000", " \u00a0\t\u2028\r"));

TEST(BridgeChannel, ManyBlankLinesYieldNothing) {
    std::string bytes;
    for (int count = 0; count < 10000; ++count) bytes += count % 2 == 0 ? "\n" : "  \r\n";
    EXPECT_EQ(repliesToBytes(bytes + connectLine() + "\n"), connectReplies());
}

TEST(BridgeChannel, CarriageReturnBeforeTheLineFeedIsNoPartOfTheLine) {
    EXPECT_EQ(repliesToBytes(connectLine() + "\r\n" + disconnectRequest().dump() + "\r\n"),
              (Lines{connecting_line, connected_line, disconnected_line}));
}

TEST(BridgeChannel, LastLineWithoutLineFeedIsServed) {
    EXPECT_EQ(repliesToBytes(connectLine()), connectReplies());
}

TEST(BridgeChannel, LastLineWithOnlyACarriageReturnIsServed) {
    EXPECT_EQ(repliesToBytes(connectLine() + "\r"), connectReplies());
}

TEST(BridgeChannel, MessageInTheUnterminatedLastLineIsRecorded) {
    BackendProcess process;
    process.sendRaw(sendMessageRequest(teamRoomMessage("last words")).dump());
    process.finish();
    const auto names = namesIn(process.path("outbound"));
    ASSERT_EQ(names.size(), 1U);
    EXPECT_EQ(process.readJson("outbound/" + names.front())["text"], "last words");
}

TEST(BridgeChannel, BrokenUnterminatedLastLineIsOneError) {
    const auto replies = repliesToBytes(connectLine() + "\n" + R"({"connect")");
    ASSERT_EQ(replies.size(), 3U);
    EXPECT_NO_THROW(errorMessageOf(replies[2]));
}

TEST(BridgeChannel, EnvelopesMayArriveInAnyPieces) {
    BackendProcess process;
    process.greet();
    for (const char character : connectLine() + "\n" + connectLine() + "\n") {
        process.sendRaw({&character, 1});
        process.waitUntil([&] { return process.unreadInputBytes() == 0; }, "the byte to be taken");
    }
    EXPECT_EQ(process.finishAndTakeRest(),
              (Lines{connecting_line, connected_line, connecting_line, connected_line}));
}

TEST(BridgeChannel, ManyEnvelopesInOnePieceAreServedInOrder) {
    std::string bytes;
    Lines expected;
    for (int count = 0; count < 500; ++count) {
        bytes += connectLine() + "\n" + disconnectRequest().dump() + "\n";
        expected.insert(expected.end(), {connecting_line, connected_line, disconnected_line});
    }
    EXPECT_EQ(repliesToBytes(bytes), expected);
}

class BridgeChannelOtherBreak : public testing::TestWithParam<const char*> {};

TEST_P(BridgeChannelOtherBreak, DoesNotEndALine) {
    const auto replies = repliesToBytes(connectLine() + GetParam() + connectLine() + "\n");
    ASSERT_EQ(replies.size(), 1U);
    EXPECT_NO_THROW(errorMessageOf(replies.front()));
}

INSTANTIATE_TEST_SUITE_P(Breaks, BridgeChannelOtherBreak,
                         testing::Values("", " ", "\r", "\v", "\f", "\u0085", "\u2028", "\u2029"));

class BridgeChannelUnicodeBreak : public testing::TestWithParam<const char*> {};

TEST_P(BridgeChannelUnicodeBreak, InsideATextIsContent) {
    const auto title = std::string("a") + GetParam() + "b" + GetParam();
    BackendProcess process;
    process.greet();
    process.send(startListeningRequest(testOnlyScope(title)));
    EXPECT_EQ(selfTestTitleOf(process.nextLine()), title);
}

INSTANTIATE_TEST_SUITE_P(Breaks, BridgeChannelUnicodeBreak, testing::Values("\u0085", "\u2028", "\u2029"));

TEST(BridgeChannel, BrokenEnvelopeHasNoOtherEffect) {
    BackendProcess process;
    process.connectAndListen();
    process.send(R"({"disconnect":{"_0":{"platform":7}}})");
    errorMessageOf(process.nextLine());
    process.finish();
    EXPECT_EQ(process.readJson(status_file)["connectionState"], "connected");
    EXPECT_TRUE(process.readJson(control_file).contains("activeScope"));
}

TEST(BridgeChannel, BrokenEnvelopeIsNotLogged) {
    BackendProcess process;
    process.send("{");
    process.send("{}");
    process.send(R"({"connect":{}})");
    process.finish();
    EXPECT_EQ(process.standardError(), "");
}

// The requests.

TEST(BridgeChannel, ConnectYieldsConnectingThenConnected) {
    EXPECT_EQ(repliesToBytes(connectLine() + "\n"), connectReplies());
}

TEST(BridgeChannel, ConnectIsRecordedInTheStatus) {
    BackendProcess process;
    process.greet();
    process.send(connectRequest());
    process.waitForRuntimeStatus([](const Json& status) { return status["connectionState"] == "connected"; });
}

TEST(BridgeChannel, SecondConnectRepeatsTheReplies) {
    EXPECT_EQ(repliesToBytes(connectLine() + "\n" + connectLine() + "\n"),
              (Lines{connecting_line, connected_line, connecting_line, connected_line}));
}

TEST(BridgeChannel, ConnectKeepsTheScope) {
    BackendProcess process;
    process.connectAndListen();
    process.send(connectRequest());
    process.finish();
    EXPECT_EQ(process.readJson(control_file)["activeScope"]["id"], "team-room");
}

TEST(BridgeChannel, DisconnectYieldsDisconnected) {
    EXPECT_EQ(repliesToBytes(connectLine() + "\n" + disconnectRequest().dump() + "\n"),
              (Lines{connecting_line, connected_line, disconnected_line}));
}

TEST(BridgeChannel, DisconnectWhileDisconnectedRepeatsTheReply) {
    EXPECT_EQ(repliesToBytes(disconnectRequest().dump() + "\n"), Lines{disconnected_line});
}

TEST(BridgeChannel, DisconnectEndsConnectionAndScope) {
    BackendProcess process;
    process.connectAndListen();
    process.send(disconnectRequest());
    process.waitForControl([](const Json& control) { return !control.contains("activeScope"); });
    process.finish();
    const auto status = process.readJson(status_file);
    EXPECT_EQ(status["connectionState"], "disconnected");
    EXPECT_FALSE(status.contains("activeScopeDescription"));
}

TEST(BridgeChannel, ListeningToAConversationIsRecorded) {
    EXPECT_EQ(controlScopeAfter(conversationScope("c-1", "Chat")),
              (Json{{"kind", "conversation"}, {"id", "c-1"}, {"title", "Chat"}}));
}

TEST(BridgeChannel, ListeningToAChannelIsRecorded) {
    EXPECT_EQ(controlScopeAfter(channelScope("news", "News")),
              (Json{{"kind", "channel"}, {"id", "news"}, {"title", "News"}}));
}

TEST(BridgeChannel, ListeningToAThreadIsRecorded) {
    EXPECT_EQ(controlScopeAfter(threadScope("t-9", "Launch")),
              (Json{{"kind", "thread"}, {"id", "t-9"}, {"title", "Launch"}}));
}

TEST(BridgeChannel, ListeningToAThreadWithoutTitleIsRecorded) {
    EXPECT_EQ(controlScopeAfter(threadScope("t-9")), (Json{{"kind", "thread"}, {"id", "t-9"}}));
}

TEST(BridgeChannel, LaterScopeReplacesTheEarlier) {
    BackendProcess process;
    process.connectAndListen();
    process.send(startListeningRequest(channelScope("news", "News")));
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    EXPECT_EQ(process.readJson(control_file)["activeScope"],
              (Json{{"kind", "channel"}, {"id", "news"}, {"title", "News"}}));
}

TEST(BridgeChannel, StartListeningDeliversWhatWaitsBeforeTheNextRequest) {
    BackendProcess process;
    process.greet();
    process.writeInbound("waiting.json", inboundRecord("m-1", "hello"));
    const auto listen = startListeningRequest(conversationScope()).dump() + "\n";
    const auto selfTest = startListeningRequest(testOnlyScope("after")).dump() + "\n";
    process.sendRaw(connectLine() + "\n" + listen + selfTest);
    process.nextLine();
    process.nextLine();
    EXPECT_EQ(process.nextEnvelope()["inboundEvent"]["_0"]["event"]["messageId"], "m-1");
    EXPECT_EQ(selfTestTitleOf(process.nextLine()), "after");
}

TEST(BridgeChannel, StopListeningEndsTheScopeWithoutReply) {
    BackendProcess process;
    process.connectAndListen();
    process.send(stopListeningRequest());
    process.waitForControl([](const Json& control) { return !control.contains("activeScope"); });
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    EXPECT_EQ(process.readJson(status_file)["connectionState"], "connected");
}

TEST(BridgeChannel, SendMessageRecordsTheMessageWithoutReply) {
    BackendProcess process;
    process.greet();
    process.send(sendMessageRequest(teamRoomMessage("On my way")));
    const auto name = process.waitForEntries("outbound", 1).front();
    EXPECT_EQ(process.readJson("outbound/" + name)["text"], "On my way");
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
}

TEST(BridgeChannel, EveryRequestWritesTheStatus) {
    for (const auto& request :
         {connectRequest(), disconnectRequest(), startListeningRequest(conversationScope()),
          startListeningRequest(testOnlyScope("t")), stopListeningRequest(),
          sendMessageRequest(teamRoomMessage("hi"))}) {
        EXPECT_GE(statusWritesFor(request, 100), 100) << request;
    }
}

TEST(BridgeChannel, CasesOfTheOtherDirectionWriteNoStatus) {
    const Json event = {{"inboundEvent", {{"_0", {{"event", inboundRecord("m-1", "x")}}}}}};
    const Json state = {{"stateChanged", {{"_0", {{"state", {{"connecting", Json::object()}}}}}}}};
    const Json error = {{"error", {{"_0", {{"message", "x"}}}}}};
    for (const auto& envelope : {Json::parse(hello_line), event, state, error}) {
        EXPECT_LT(statusWritesFor(envelope, 1000), 500) << envelope;
    }
}

TEST(BridgeChannel, RequestForAnotherPlatformWritesNoStatus) {
    for (const auto& request :
         {connectRequest("other"), disconnectRequest("other"), stopListeningRequest("other"),
          startListeningRequest(conversationScope(), "other"),
          sendMessageRequest(teamRoomMessage("hi"), "other")}) {
        EXPECT_LT(statusWritesFor(request, 1000), 500) << request;
    }
}

TEST(BridgeChannel, BrokenEnvelopeWritesNoStatus) {
    EXPECT_LT(statusWritesFor(Json::object(), 1000), 500);
}

// The platform.

TEST(BridgeChannel, RequestForAnotherPlatformIsIgnored) {
    BackendProcess process;
    process.connectAndListen();
    for (const auto& request :
         {connectRequest("other"), disconnectRequest("other"), stopListeningRequest("other"),
          startListeningRequest(channelScope("news", "News"), "other"),
          startListeningRequest(testOnlyScope("t"), "other"),
          sendMessageRequest(teamRoomMessage("hi"), "other")}) {
        process.send(request);
    }
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    EXPECT_EQ(process.readJson(status_file)["connectionState"], "connected");
    EXPECT_EQ(process.readJson(control_file)["activeScope"]["id"], "team-room");
    EXPECT_EQ(namesIn(process.path("outbound")), Lines{});
}

TEST(BridgeChannel, PlatformIsComparedWithRegardToCaseAndSpaces) {
    std::string bytes;
    for (const char* platform : {"WhatsApp", "WHATSAPP", " whatsapp", "whatsapp ", "", "whatsap"}) {
        bytes += connectRequest(platform).dump() + "\n";
    }
    EXPECT_EQ(repliesToBytes(bytes), Lines{});
}

TEST(BridgeChannel, CanonicallyEquivalentPlatformsAreTheSame) {
    BackendOptions options;
    options.arguments = {"--platform", "caf\u00e9"};
    BackendProcess process(options);
    process.greet();
    process.send(connectRequest("cafe\u0301"));
    EXPECT_EQ(process.finishAndTakeRest(), connectReplies());
}

TEST(BridgeChannel, DecomposedPlatformServesComposedRequests) {
    BackendOptions options;
    options.arguments = {"--platform", "cafe\u0301 \u1100\u1161"};
    BackendProcess process(options);
    process.greet();
    process.send(connectRequest("caf\u00e9 \uac00"));
    EXPECT_EQ(process.finishAndTakeRest(), connectReplies());
}

TEST(BridgeChannel, MerelyCompatiblePlatformsAreDifferent) {
    BackendOptions options;
    options.arguments = {"--platform", "fi"};
    BackendProcess process(options);
    process.greet();
    process.send(connectRequest("\ufb01"));
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
}

TEST(BridgeChannel, TitlesAndIdentifiersAreComparedByCodePoints) {
    BackendProcess process;
    process.connectAndListen(conversationScope("caf\u00e9", "Caf\u00e9"));
    auto record = inboundRecord("m-1", "decomposed");
    record["conversationId"] = "cafe\u0301";
    record["conversationTitle"] = "Cafe\u0301";
    process.writeInbound("1-decomposed.json", record);
    record["text"] = "composed";
    record["conversationTitle"] = "Caf\u00e9";
    process.writeInbound("2-composed.json", record);
    EXPECT_EQ(process.nextEnvelope()["inboundEvent"]["_0"]["event"]["text"], "composed");
    process.waitForStatusWrites();
    EXPECT_EQ(namesIn(process.path("inbound")), Lines{"1-decomposed.json"});
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
}

TEST(BridgeChannel, EmptyThreadTitleSelectsLikeAnyTitle) {
    BackendProcess process;
    process.connectAndListen(threadScope("t-9", ""));
    auto record = inboundRecord("m-1", "other title");
    process.writeInbound("1-titled.json", record);
    record["text"] = "empty title";
    record["conversationTitle"] = "";
    process.writeInbound("2-untitled.json", record);
    EXPECT_EQ(process.nextEnvelope()["inboundEvent"]["_0"]["event"]["text"], "empty title");
    process.waitForStatusWrites();
    EXPECT_EQ(namesIn(process.path("inbound")), Lines{"1-titled.json"});
}

// The self-test.

Json selfTestEvent(const std::string& title) {
    BackendProcess process;
    process.greet();
    process.send(startListeningRequest(testOnlyScope(title)));
    return process.nextEnvelope()["inboundEvent"]["_0"]["event"];
}

TEST(BridgeSelfTest, YieldsOneEventWithoutConnection) {
    const auto replies = repliesToBytes(startListeningRequest(testOnlyScope("X")).dump() + "\n");
    ASSERT_EQ(replies.size(), 1U);
    EXPECT_EQ(selfTestTitleOf(replies.front()), "X");
}

TEST(BridgeSelfTest, EventHasItsFixedValues) {
    auto event = selfTestEvent("Smoke test");
    event.erase("messageId");
    event.erase("timestampISO8601");
    EXPECT_EQ(event, (Json{{"conversationId", "managed-whatsapp-backend-self-test"},
                           {"conversationTitle", "Smoke test"},
                           {"senderId", "managed-whatsapp-backend"},
                           {"senderDisplayName", "Brindle Managed WhatsApp Backend"},
                           {"text", "/skiff help"},
                           {"isDirectMessage", true},
                           {"rawReference", "managed-whatsapp-backend-self-test"}}));
}

TEST(BridgeSelfTest, EventHasAFreshIdentifierEachTime) {
    BackendProcess process;
    process.greet();
    std::vector<std::string> identifiers;
    for (int count = 0; count < 20; ++count) process.send(startListeningRequest(testOnlyScope("t")));
    for (int count = 0; count < 20; ++count) {
        identifiers.push_back(process.nextEnvelope()["inboundEvent"]["_0"]["event"]["messageId"]);
        EXPECT_TRUE(isCanonicalUuid(identifiers.back())) << identifiers.back();
        EXPECT_EQ(identifiers.back()[14], '4') << "not a random identifier: " << identifiers.back();
    }
    std::sort(identifiers.begin(), identifiers.end());
    EXPECT_EQ(std::adjacent_find(identifiers.begin(), identifiers.end()), identifiers.end());
}

/// By the clock of the backend; std::time() reads one that lags behind it by some milliseconds.
std::time_t currentTime() {
    return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

TEST(BridgeSelfTest, EventHasTheCurrentTimeInWholeSeconds) {
    const auto textOf = [](std::time_t time) {
        std::tm parts{};
        ::gmtime_r(&time, &parts);
        std::array<char, 32> text{};
        return std::string(text.data(),
                           std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts));
    };
    const auto before = textOf(currentTime());
    const std::string timestamp = selfTestEvent("t")["timestampISO8601"];
    const auto after = textOf(currentTime());
    EXPECT_TRUE(isTimestamp(timestamp)) << timestamp;
    EXPECT_LE(before, timestamp);
    EXPECT_LE(timestamp, after);
}

TEST(BridgeSelfTest, TimeIsUniversalWhateverTheTimeZone) {
    BackendOptions options;
    options.environment["TZ"] = "XXX-11:30";
    BackendProcess process(options);
    process.greet();
    const auto before = currentTime();
    process.send(startListeningRequest(testOnlyScope("t")));
    const std::string timestamp = process.nextEnvelope()["inboundEvent"]["_0"]["event"]["timestampISO8601"];
    std::tm parts{};
    ASSERT_NE(::strptime(timestamp.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts), nullptr);
    EXPECT_LT(std::abs(::timegm(&parts) - before), 600);
}

TEST(BridgeSelfTest, TitleMayBeEmpty) {
    EXPECT_EQ(selfTestEvent("")["conversationTitle"], "");
}

TEST(BridgeSelfTest, ScopeIsRecordedWithoutIdentifier) {
    BackendProcess process;
    process.greet();
    process.send(startListeningRequest(testOnlyScope("Smoke test")));
    process.finish();
    EXPECT_EQ(process.readJson(control_file)["activeScope"],
              (Json{{"kind", "testOnly"}, {"title", "Smoke test"}}));
    EXPECT_EQ(process.readJson(status_file)["activeScopeDescription"], "Self-test Smoke test");
}

TEST(BridgeSelfTest, ReadsNoInboundFiles) {
    BackendProcess process;
    process.greet();
    process.send(connectRequest());
    process.send(startListeningRequest(testOnlyScope("Team Room")));
    process.writeInbound("waiting.json", inboundRecord("m-1", "hello"));
    process.waitForStatusWrites(4);
    EXPECT_EQ(process.finishAndTakeRest().size(), 3U);
    EXPECT_EQ(namesIn(process.path("inbound")), Lines{"waiting.json"});
}

// Output that cannot be written.

TEST(BridgeOutputLoss, EndsTheBackendWithOneFatalLine) {
    BackendProcess process;
    process.greet();
    process.closeOutputReader();
    process.send(connectRequest());
    EXPECT_EQ(process.waitForExit(), exitedWith(software_failure));
    ASSERT_EQ(process.standardErrorLines().size(), 1U) << process.standardError();
    EXPECT_TRUE(process.standardError().starts_with(fatal_prefix)) << process.standardError();
}

TEST(BridgeOutputLoss, OfAnErrorReplyEndsTheBackend) {
    BackendProcess process;
    process.greet();
    process.closeOutputReader();
    process.send("{");
    EXPECT_EQ(process.waitForExit(), exitedWith(software_failure));
    EXPECT_TRUE(process.standardError().starts_with(fatal_prefix)) << process.standardError();
}

TEST(BridgeOutputLoss, OfASelfTestEventEndsTheBackend) {
    BackendProcess process;
    process.greet();
    process.closeOutputReader();
    process.send(startListeningRequest(testOnlyScope("t")));
    EXPECT_EQ(process.waitForExit(), exitedWith(software_failure));
}

TEST(BridgeOutputLoss, OfTheGreetingEndsTheBackend) {
    BackendOptions options;
    options.closeStdout = true;
    BackendProcess process(options);
    EXPECT_EQ(process.waitForExit(), exitedWith(software_failure));
    EXPECT_EQ(process.readJson(status_file)["workerDetail"], "No managed WhatsApp worker configured.");
}

TEST(BridgeOutputLoss, OfTheGreetingStopsTheWorker) {
    auto options = optionsWithPoliteWorker();
    options.closeStdout = true;
    BackendProcess process(options);
    EXPECT_EQ(process.waitForExit(), exitedWith(software_failure));
    EXPECT_EQ(process.readJson(status_file)["workerState"], "stopped");
}

TEST(BridgeOutputLoss, StopsTheWorkerAndRecordsIt) {
    BackendProcess process(optionsWithPoliteWorker());
    process.greet();
    process.waitForFile("worker-ready");
    process.closeOutputReader();
    process.send(connectRequest());
    EXPECT_EQ(process.waitForExit(), exitedWith(software_failure));
    EXPECT_EQ(process.readJson(status_file)["workerState"], "stopped");
    process.waitForFile("worker-was-asked");
}

TEST(BridgeOutputLoss, ServesNoFurtherRequest) {
    BackendProcess process;
    process.greet();
    process.closeOutputReader();
    process.sendRaw(connectLine() + "\n" + sendMessageRequest(teamRoomMessage("too late")).dump() + "\n");
    EXPECT_EQ(process.waitForExit(), exitedWith(software_failure));
    EXPECT_EQ(namesIn(process.path("outbound")), Lines{});
}

TEST(BridgeOutputLoss, KeepsTheConnectionThatWasMadeBeforeTheReply) {
    BackendProcess process;
    process.greet();
    process.closeOutputReader();
    process.send(connectRequest());
    process.waitForExit();
    EXPECT_EQ(process.readJson(status_file)["connectionState"], "connected");
}

TEST(BridgeOutputLoss, DoesNotMatterToRequestsWithoutReply) {
    BackendProcess process;
    process.greet();
    process.closeOutputReader();
    process.send(startListeningRequest(conversationScope()));
    process.send(sendMessageRequest(teamRoomMessage("hi")));
    process.waitForEntries("outbound", 1);
    process.closeInput();
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

TEST(BridgeOutputLoss, OfAnInboundEventRejectsItsFile) {
    BackendProcess process;
    process.connectAndListen();
    process.closeOutputReader();
    process.writeInbound("late.json", inboundRecord("m-1", "hello"));
    process.waitForFile("rejected/late.json");
    process.waitForStandardError("[ManagedWhatsAppBackend] rejected inbound event at late.json: ");
    process.closeInput();
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

// A failing file system.

TEST(BridgeFailedRequest, ErrorNamesThePathAndTheReason) {
    BackendProcess process;
    process.greet();
    std::filesystem::remove(process.path("outbound"));
    process.send(sendMessageRequest(teamRoomMessage("hi")));
    const auto text = errorMessageOf(process.nextLine());
    EXPECT_NE(text.find(process.path("outbound").string()), std::string::npos) << text;
    EXPECT_NE(text.find("No such file or directory"), std::string::npos) << text;
}

TEST(BridgeFailedRequest, IsOneErrorAndTheNextRequestIsServed) {
    BackendProcess process;
    process.greet();
    std::filesystem::remove(process.path("outbound"));
    process.send(sendMessageRequest(teamRoomMessage("hi")));
    process.send(connectRequest());
    const auto replies = process.finishAndTakeRest();
    ASSERT_EQ(replies.size(), 3U);
    EXPECT_NO_THROW(errorMessageOf(replies[0]));
    EXPECT_EQ((Lines{replies.begin() + 1, replies.end()}), connectReplies());
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

TEST(BridgeFailedRequest, LeavesConnectionAndScopeAsTheyWere) {
    BackendProcess process;
    process.connectAndListen();
    std::filesystem::remove(process.path("outbound"));
    process.send(sendMessageRequest(teamRoomMessage("hi")));
    process.finish();
    EXPECT_EQ(process.readJson(status_file)["connectionState"], "connected");
    EXPECT_EQ(process.readJson(control_file)["activeScope"]["id"], "team-room");
}

TEST(BridgeFailedRequest, IsNotLogged) {
    BackendProcess process;
    process.greet();
    std::filesystem::remove(process.path("outbound"));
    process.send(sendMessageRequest(teamRoomMessage("hi")));
    process.finish();
    EXPECT_EQ(process.standardError(), "");
}

TEST(BridgeFailedRequest, WritesNoStatus) {
    BackendProcess process;
    process.greet();
    process.waitForFile(control_file);
    std::filesystem::remove(process.path("outbound"));
    ReplacementCounter counter(process.path("runtime"), "runtime-status.json");
    for (int sent = 0; sent < 1000; ++sent) process.send(sendMessageRequest(teamRoomMessage("hi")));
    EXPECT_EQ(process.finishAndTakeRest().size(), 1000U);
    EXPECT_LT(counter.count(), 500);
}

TEST(BridgeFailedRequest, SucceedsWhenTheDirectoryIsBack) {
    BackendProcess process;
    process.greet();
    std::filesystem::remove(process.path("outbound"));
    process.send(sendMessageRequest(teamRoomMessage("lost")));
    errorMessageOf(process.nextLine());
    std::filesystem::create_directory(process.path("outbound"));
    process.send(sendMessageRequest(teamRoomMessage("kept")));
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    EXPECT_EQ(namesIn(process.path("outbound")).size(), 1U);
}

// Standard error that is lost or not read.

TEST(BridgeLog, LostStandardErrorDoesNoHarm) {
    BackendProcess process;
    process.connectAndListen();
    process.closeErrorReader();
    process.writeInboundRaw("broken.json", "{");
    process.waitForFile("rejected/broken.json");
    process.send(disconnectRequest());
    EXPECT_EQ(process.finishAndTakeRest(), Lines{disconnected_line});
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

TEST(BridgeLog, UnreadStandardErrorDoesNotPreventTheEnd) {
    BackendOptions options;
    options.stderrPipeBytes = small_pipe_bytes;
    BackendProcess process(options);
    process.pauseReadingError();
    process.connectAndListen();
    for (int number = 0; number < 200; ++number) {
        process.writeInboundRaw("broken-" + std::to_string(number) + ".json", "{");
    }
    process.waitUntil([&] { return process.unreadErrorBytes() > nearly_full_bytes; }, "a full error pipe");
    process.closeInput();
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

// Output that nobody reads.

TEST(BridgeUnreadOutput, ComesInOrderOnceItIsRead) {
    BackendProcess process(optionsWithUnreadOutput());
    fillOutput(process);
    process.resumeReadingOutput();
    const auto lines = process.finish();
    ASSERT_EQ(lines.size(), 202U);
    for (std::size_t index = 2; index < lines.size(); index += 2) {
        EXPECT_EQ(lines[index], connecting_line);
        EXPECT_EQ(lines[index + 1], connected_line);
    }
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

TEST(BridgeUnreadOutput, DoesNotPreventTheEndOfTheProcess) {
    BackendProcess process(optionsWithUnreadOutput());
    fillOutput(process);
    process.closeInput();
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

TEST(BridgeUnreadOutput, DoesNotPreventTheShutdown) {
    auto options = optionsWithPoliteWorker();
    options.stdoutPipeBytes = small_pipe_bytes;
    options.readOutputAtOnce = false;
    BackendProcess process(options);
    process.waitForFile("worker-ready");
    fillOutput(process);
    process.closeInput();
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
    EXPECT_EQ(process.readJson(status_file)["workerState"], "stopped");
    process.waitForFile("worker-was-asked");
}

TEST(BridgeUnreadOutput, LosesNoMessageThatWasSentBeforeTheEndOfInput) {
    BackendProcess process(optionsWithUnreadOutput());
    fillOutput(process);
    Lines expected;
    for (int number = 100; number < 130; ++number) {
        expected.push_back("message " + std::to_string(number));
        process.send(sendMessageRequest(teamRoomMessage(expected.back())));
    }
    process.closeInput();
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
    Lines recorded;
    for (const auto& name : namesIn(process.path("outbound"))) {
        recorded.push_back(process.readJson("outbound/" + name)["text"]);
    }
    std::sort(recorded.begin(), recorded.end());
    EXPECT_EQ(recorded, expected);
}

TEST(BridgeUnreadOutput, DoesNotKeepTheBackendAfterItsParent) {
    auto process = BackendProcess::startUnderIntermediateParent(optionsWithUnreadOutput());
    fillOutput(*process);
    process->killIntermediateParent();
    EXPECT_EQ(process->waitForExit(), exitedWith(0));
}

TEST(BridgeUnreadOutput, DoesNotKeepTheStatusFromBeingWritten) {
    BackendProcess process(optionsWithUnreadOutput());
    fillOutput(process);
    process.waitForStatusWrites();
    EXPECT_TRUE(process.isRunning());
    EXPECT_GT(process.unreadOutputBytes(), nearly_full_bytes);
}

// Several threads write.

TEST(BridgeEmitter, LinesOfSeveralThreadsNeverMix) {
    constexpr int record_count = 100;
    constexpr int connect_count = 2000;
    BackendProcess process;
    process.connectAndListen();
    for (int number = 0; number < record_count; ++number) {
        const auto name = "m-" + std::to_string(1000 + number);
        process.writeInbound(name + ".json", inboundRecord(name, std::string(20000, 'x')));
    }
    for (int sent = 0; sent < connect_count; ++sent) process.send(connectRequest());
    process.waitForEntries("processed", record_count);
    int events = 0;
    Lines states;
    for (auto& line : process.finishAndTakeRest()) {
        const auto envelope = Json::parse(line);
        if (envelope.contains("inboundEvent")) {
            ++events;
            EXPECT_EQ(envelope["inboundEvent"]["_0"]["event"]["text"].get<std::string>().size(), 20000U);
        } else {
            states.push_back(std::move(line));
        }
    }
    EXPECT_EQ(events, record_count);
    ASSERT_EQ(states.size(), 2U * connect_count);
    for (std::size_t index = 0; index < states.size(); index += 2) {
        EXPECT_EQ(states[index], connecting_line);
        EXPECT_EQ(states[index + 1], connected_line);
    }
}

TEST(BridgeEmitter, LinesLongerThanThePipeArriveWhole) {
    BackendOptions options;
    options.stdoutPipeBytes = small_pipe_bytes;
    BackendProcess process(options);
    process.connectAndListen();
    const std::string text(3000000, 'x');
    process.writeInbound("large.json", inboundRecord("m-1", text));
    EXPECT_EQ(process.nextEnvelope()["inboundEvent"]["_0"]["event"]["text"], text);
}

}  // namespace
}  // namespace brindle::test

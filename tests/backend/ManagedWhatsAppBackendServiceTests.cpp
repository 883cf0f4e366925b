#include "backend/ManagedWhatsAppBackendService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "support/BackendLines.h"
#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Pipes.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/StuckFileManager.h"
#include "support/TemporaryDirectory.h"
#include "support/TextForms.h"
#include "support/Waiting.h"
#include "support/WantOfMemory.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

using test::linesOf;
using test::namesIn;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class BackendServiceTests : public testing::Test {
  protected:
    std::filesystem::path data(const std::string& name) const { return home_.path() / "data" / name; }
    test::Json status() const { return test::readJsonFile(data("runtime/runtime-status.json")); }
    test::Json control() const { return test::readJsonFile(data("runtime/worker-control.json")); }
    void listen(BridgeScope scope) {
        service_.handle(BridgeStartListeningRequest{"whatsapp", std::move(scope)});
    }
    std::vector<std::string> outputLines() const { return linesOf(streams_.text().output); }

    test::TemporaryDirectory home_;
    PosixFileManager files_;
    test::TestClock clock_;
    test::MemoryStreams streams_;
    BridgeChannel channel_{{.input = -1, .output = streams_.output(), .error = streams_.error()}};
    ManagedWhatsAppBackendService service_{
        "whatsapp", {{std::string(environment_key::data_directory), (home_.path() / "data").string()}},
        files_,     clock_,
        channel_,   ::getppid()};
};

TEST_F(BackendServiceTests, ConstructionWritesTheFirstStatusAndSaysNothing) {
    EXPECT_EQ(status()["workerState"], "not_configured");
    EXPECT_EQ(control(),
              (test::Json{{"platform", "whatsapp"}, {"updatedAtISO8601", "2026-01-05T09:30:00Z"}}));
    EXPECT_THAT(outputLines(), IsEmpty());
}

TEST_F(BackendServiceTests, ConnectAnswersWithTwoStates) {
    service_.handle(BridgeConnectRequest{"whatsapp"});
    EXPECT_THAT(
        outputLines(),
        ElementsAre(
            R"({"stateChanged":{"_0":{"state":{"connecting":{}}}}})",
            R"({"stateChanged":{"_0":{"state":{"connected":{"accountDisplayName":"Brindle Managed WhatsApp Backend"}}}}})"));
    EXPECT_EQ(status()["connectionState"], "connected");
}

TEST_F(BackendServiceTests, DisconnectClearsTheScope) {
    service_.handle(BridgeConnectRequest{"whatsapp"});
    listen(BridgeConversationScope{"I", "T"});
    service_.handle(BridgeDisconnectRequest{"whatsapp"});
    const auto published = status();
    EXPECT_EQ(outputLines().back(), R"({"stateChanged":{"_0":{"state":{"disconnected":{}}}}})");
    EXPECT_EQ(published["connectionState"], "disconnected");
    EXPECT_FALSE(published.contains("activeScopeDescription"));
    EXPECT_FALSE(control().contains("activeScope"));
}

TEST_F(BackendServiceTests, ListeningDeliversWhatWaits) {
    test::writeFileAtomically(data("inbound/a.json"), test::inboundRecord("1", "I", "x").dump());
    service_.handle(BridgeConnectRequest{"whatsapp"});
    listen(BridgeConversationScope{"I", "T"});
    const auto output = outputLines();
    ASSERT_EQ(output.size(), 3U);
    EXPECT_EQ(test::Json::parse(output[2])["inboundEvent"]["_0"]["event"]["messageId"], "1");
    EXPECT_THAT(namesIn(data("processed")), ElementsAre("a.json"));
    EXPECT_EQ(status()["activeScopeDescription"], "Conversation T [I]");
}

TEST_F(BackendServiceTests, StopListeningClearsTheScopeAndStaysConnected) {
    service_.handle(BridgeConnectRequest{"whatsapp"});
    listen(BridgeChannelScope{"I", "T"});
    service_.handle(BridgeStopListeningRequest{"whatsapp"});
    EXPECT_FALSE(status().contains("activeScopeDescription"));
    EXPECT_EQ(status()["connectionState"], "connected");
}

TEST_F(BackendServiceTests, SelfTestIsAnsweredWithoutConnectionAndFiles) {
    test::writeFileAtomically(data("inbound/a.json"), test::inboundRecord("1").dump());
    listen(BridgeTestOnlyScope{"X"});
    const auto output = outputLines();
    ASSERT_EQ(output.size(), 1U);
    auto event = test::Json::parse(output[0])["inboundEvent"]["_0"]["event"];
    EXPECT_TRUE(test::isCanonicalUuid(event["messageId"].get<std::string>()));
    event.erase("messageId");
    EXPECT_EQ(event, (test::Json{{"conversationId", "managed-whatsapp-backend-self-test"},
                                 {"conversationTitle", "X"},
                                 {"senderId", "managed-whatsapp-backend"},
                                 {"senderDisplayName", "Brindle Managed WhatsApp Backend"},
                                 {"text", "/skiff help"},
                                 {"timestampISO8601", "2026-01-05T09:30:00Z"},
                                 {"isDirectMessage", true},
                                 {"rawReference", "managed-whatsapp-backend-self-test"}}));
    EXPECT_THAT(namesIn(data("inbound")), ElementsAre("a.json"));
    EXPECT_EQ(status()["activeScopeDescription"], "Self-test X");
}

TEST_F(BackendServiceTests, SendWritesAnOutboundRecordUnderAFreshName) {
    const BridgeSendMessageRequest request{
        "whatsapp", {.conversationId = "c", .text = "t", .replyToMessageId = "r", .attachments = {}}};
    service_.handle(request);
    service_.handle(request);
    const auto names = namesIn(data("outbound"));
    ASSERT_EQ(names.size(), 2U);
    for (const auto& name : names) {
        const auto id = name.substr(0, name.size() - std::string_view(".json").size());
        EXPECT_TRUE(test::isCanonicalUuid(id));
        EXPECT_EQ(test::readJsonFile(data("outbound/" + name)),
                  (test::Json{{"messageId", id},
                              {"conversationId", "c"},
                              {"text", "t"},
                              {"replyToMessageId", "r"},
                              {"createdAtISO8601", "2026-01-05T09:30:00Z"},
                              {"attachments", test::Json::array()}}));
    }
    EXPECT_THAT(outputLines(), IsEmpty());
}

/// The file that a line leaves, without what is fresh in each.
std::string outboundFileOf(const std::string& line) {
    const test::TemporaryDirectory home;
    PosixFileManager files;
    const test::TestClock clock;
    const test::MemoryStreams streams;
    const auto input = test::memoryFileWith(line + "\n");
    BridgeChannel channel({.input = input.get(), .output = streams.output(), .error = streams.error()});
    ManagedWhatsAppBackendService service(
        "whatsapp", {{std::string(environment_key::data_directory), home.path() / "data"}}, files, clock,
        channel, ::getppid());
    EXPECT_TRUE(channel.waitForRequest());
    {
        const test::LargePieces pieces(line.size() / 2);
        service.handle(channel.takeRequest());
        EXPECT_EQ(pieces.count(), 0);
    }
    const auto outbound = home.path() / "data" / "outbound";
    const auto names = namesIn(outbound);
    EXPECT_EQ(names.size(), 1U);
    auto text = test::readFile(outbound / names.front());
    constexpr std::size_t identifier_characters = 36;
    return text.replace(text.find(names.front().substr(0, identifier_characters)), identifier_characters,
                        "ID");
}

TEST(LargeRequestTests, AreWrittenAlikeHoweverTheyAreEscapedAndNeverCopied) {
    const auto lineWith = [](const std::string& data) {
        return R"({"sendMessage":{"_0":{"message":{"attachments":[{"dataBase64":")" + data +
               R"(","fileName":"f","kind":"image","mimeType":"m"}],"conversationId":"c","text":"t"},)" +
               R"("platform":"whatsapp"}}})";
    };
    std::string plain;
    std::string escaped;
    while (plain.size() < std::size_t{2} << 20U) {
        plain += "QUJD/+é";
        escaped += R"(QUJD\/+\u00e9)";
    }
    const auto file = outboundFileOf(lineWith(plain));
    EXPECT_TRUE(file == outboundFileOf(lineWith(escaped)));
    const auto record = test::Json::parse(file);
    EXPECT_EQ(record["messageId"], "ID");
    EXPECT_TRUE(record["attachments"][0]["dataBase64"] == plain);
}

TEST_F(BackendServiceTests, RequestsForAnotherPlatformHaveNoEffect) {
    clock_.turnTo(test::TestClock::start);
    const auto before = status();
    for (const std::string platform : {"other", "WhatsApp", "whatsapp ", ""}) {
        service_.handle(BridgeConnectRequest{platform});
        service_.handle(BridgeDisconnectRequest{platform});
        service_.handle(BridgeStartListeningRequest{platform, BridgeTestOnlyScope{"X"}});
        service_.handle(BridgeStopListeningRequest{platform});
        service_.handle(BridgeSendMessageRequest{
            platform, {.conversationId = "c", .text = "t", .replyToMessageId = {}, .attachments = {}}});
    }
    EXPECT_THAT(outputLines(), IsEmpty());
    EXPECT_EQ(status(), before);
    EXPECT_THAT(namesIn(data("outbound")), IsEmpty());
}

TEST_F(BackendServiceTests, MessagesMeantForTheParentAreIgnored) {
    const auto before = status();
    service_.handle(BridgeHello{"whatsapp", "x"});
    service_.handle(BridgeInboundEvent{});
    service_.handle(BridgeStateChangedEvent{BridgeConnectedState{"x"}});
    service_.handle(BridgeErrorEvent{"x"});
    EXPECT_THAT(outputLines(), IsEmpty());
    EXPECT_EQ(status(), before);
}

TEST(BackendServicePlatformTests, CanonicallyEquivalentPlatformsAreTheSame) {
    const test::TemporaryDirectory home;
    PosixFileManager files;
    const test::TestClock clock;
    const test::MemoryStreams streams;
    BridgeChannel channel({.input = -1, .output = streams.output(), .error = streams.error()});
    ManagedWhatsAppBackendService service(
        "caf\u00E9", {{std::string(environment_key::data_directory), home.path().string()}}, files, clock,
        channel, ::getppid());
    service.handle(BridgeConnectRequest{"cafe\u0301"});
    EXPECT_EQ(linesOf(streams.text().output).size(), 2U);
}

TEST(BackendServiceConstructionTests, FailsWhenADirectoryCannotBeCreated) {
    const test::TemporaryDirectory home;
    std::ofstream(home.path() / "outbound") << "";
    PosixFileManager files;
    const test::TestClock clock;
    const test::MemoryStreams streams;
    BridgeChannel channel({.input = -1, .output = streams.output(), .error = streams.error()});
    EXPECT_THROW(ManagedWhatsAppBackendService(
                     "whatsapp", {{std::string(environment_key::data_directory), home.path().string()}},
                     files, clock, channel, ::getppid()),
                 FileSystemFailure);
    EXPECT_THAT(namesIn(home.path()), ElementsAre("inbound", "outbound"));
}

/// A whole service in this process: its parent is the test, at the other ends of three pipes or files.
class BackendConversationTests : public testing::Test {
  protected:
    void SetUp() override { handler_ = ::signal(SIGPIPE, SIG_IGN); }
    void TearDown() override { ::signal(SIGPIPE, handler_); }

    std::filesystem::path data(const std::string& name) const { return home_.path() / name; }
    /// Runs the service to its end.
    void run(BridgeChannel& channel) {
        ManagedWhatsAppBackendService service(
            "whatsapp",
            {{std::string(environment_key::data_directory), home_.path().string()},
             {std::string(environment_key::disable_worker), "1"}},
            files_, clock_, channel, ::getppid());
        service.run();
    }
    /// What the service answers when its parent has said all of this and closed its end.
    std::vector<std::string> conversation(std::string_view requests) {
        const auto input = test::memoryFileWith(requests);
        BridgeChannel channel({.input = input.get(), .output = streams_.output(), .error = streams_.error()});
        run(channel);
        return linesOf(streams_.text().output);
    }

    /// A backend that runs on a thread of its own, and the test as its parent.
    class Backend {
      public:
        explicit Backend(BackendConversationTests& test) : thread_([this, &test] { run(test); }) {}
        Backend(const Backend&) = delete;
        Backend& operator=(const Backend&) = delete;
        ~Backend() { input_.writing.reset(); }

        void say(const std::string& request) { test::put(input_.writing, request + "\n"); }
        /// Waits until the backend has said this.
        void hear(std::string_view words) {
            while (said_.find(words) == std::string::npos) {
                const auto more = test::readSome(output_.reading);
                if (more.empty())
                    throw test::TestFailure("The backend ended without saying: " + std::string(words));
                said_ += more;
            }
        }
        /// Closes its input; answers all that it has said.
        std::vector<std::string> finish() {
            input_.writing.reset();
            said_ += test::readAll(output_.reading);
            return linesOf(said_);
        }

      private:
        void run(BackendConversationTests& test) {
            {
                BridgeChannel channel({.input = input_.reading.get(),
                                       .output = output_.writing.get(),
                                       .error = test.streams_.error()});
                test.run(channel);
            }
            output_.writing.reset();
        }

        test::PipeEnds input_ = test::makePipe();
        test::PipeEnds output_ = test::makePipe();
        std::string said_;
        std::jthread thread_;
    };

    test::TemporaryDirectory home_;
    PosixFileManager real_;
    test::StuckFileManager files_{real_};
    test::TestClock clock_;
    test::MemoryStreams streams_;

  private:
    sighandler_t handler_ = nullptr;
};

const std::string hello_line =
    R"({"hello":{"_0":{"bridgeVersion":"managed-whatsapp-backend-3","platform":"whatsapp"}}})";
const std::string disconnected_line = R"({"stateChanged":{"_0":{"state":{"disconnected":{}}}}})";
const std::string connecting_line = R"({"stateChanged":{"_0":{"state":{"connecting":{}}}}})";
const std::string connect_request = R"({"connect":{"_0":{"platform":"whatsapp"}}})";
const std::string self_test_request =
    R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"testOnly":{"title":"X"}}}}})";
const std::string listen_request =
    R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"conversation":{"id":"room","title":"Room"}}}}})";
const std::string send_request =
    R"({"sendMessage":{"_0":{"platform":"whatsapp","message":{"conversationId":"c","text":"t"}}}})";

TEST_F(BackendConversationTests, IsAGreetingAloneWhenTheParentSaysNothing) {
    EXPECT_THAT(conversation(""), ElementsAre(hello_line, disconnected_line));
    EXPECT_EQ(test::readJsonFile(data("runtime/runtime-status.json"))["connectionState"], "disconnected");
    EXPECT_EQ(streams_.text().error, "");
}

TEST_F(BackendConversationTests, AnswersRequestsInTheirOrder) {
    EXPECT_THAT(conversation(self_test_request + "\n\n \r\n" + connect_request + "\n" + self_test_request),
                ElementsAre(hello_line, disconnected_line, StartsWith(R"({"inboundEvent")"), connecting_line,
                            HasSubstr(R"("connected")"), StartsWith(R"({"inboundEvent")")));
}

TEST_F(BackendConversationTests, GoesOnAfterALineThatIsNoRequest) {
    EXPECT_THAT(conversation("nonsense\n" + connect_request + "\n"),
                ElementsAre(hello_line, disconnected_line, StartsWith(R"({"error")"), connecting_line,
                            HasSubstr(R"("connected")")));
}

TEST_F(BackendConversationTests, GoesOnAfterARequestThatFails) {
    Backend backend(*this);
    backend.hear(disconnected_line);
    std::filesystem::remove(data("outbound"));
    backend.say(send_request);
    backend.say(connect_request);
    EXPECT_THAT(backend.finish(),
                ElementsAre(hello_line, disconnected_line, HasSubstr("No such file or directory"),
                            connecting_line, HasSubstr(R"("connected")")));
}

TEST_F(BackendConversationTests, AnswersBeforeTheInputEnds) {
    Backend backend(*this);
    backend.hear(disconnected_line);
    backend.say(connect_request);
    backend.hear(connecting_line);
    EXPECT_EQ(backend.finish().size(), 4U);
}

TEST_F(BackendConversationTests, EndsWhenItsEndIsRequestedWhileTheInputStaysOpen) {
    auto [input, parent] = test::makePipe();
    const Descriptor endRequest(::eventfd(1, EFD_CLOEXEC));
    test::put(parent, connect_request + "\n");
    BridgeChannel channel({.input = input.get(),
                           .output = streams_.output(),
                           .error = streams_.error(),
                           .endRequest = endRequest.get()});
    run(channel);
    EXPECT_THAT(linesOf(streams_.text().output), testing::Contains(connecting_line))
        << "what had arrived is carried out";
}

TEST_F(BackendConversationTests, CarriesOutWhatWasSaidThoughNobodyReadsTheAnswers) {
    std::string requests;
    for (int i = 0; i < 20; ++i) requests += self_test_request + "\n";
    const auto input = test::memoryFileWith(requests + send_request);
    const auto unread = test::makeSmallPipe();
    BridgeChannel channel({.input = input.get(), .output = unread.writing.get(), .error = streams_.error()});
    channel.departureWatch().abandonOutput();
    run(channel);
    EXPECT_EQ(namesIn(data("outbound")).size(), 1U);
}

TEST_F(BackendConversationTests, FailsWhenItsOutputCannotBeWritten) {
    auto output = test::makePipe();
    output.reading.reset();
    const auto input = test::memoryFileWith(connect_request);
    BridgeChannel channel({.input = input.get(), .output = output.writing.get(), .error = streams_.error()});
    EXPECT_THROW(run(channel), FileSystemFailure);
}

TEST_F(BackendConversationTests, DeliversWhatAWorkerLeavesMeanwhile) {
    Backend backend(*this);
    backend.say(connect_request);
    backend.say(listen_request);
    backend.hear(R"("connected")");
    test::writeFileAtomically(data("inbound/a.json"), test::inboundRecord("m1").dump());
    backend.hear(R"("messageId":"m1")");
    EXPECT_EQ(backend.finish().size(), 5U);
}

TEST_F(BackendConversationTests, WhileItListensTheSystemTellsItOfNewRecords) {
    const auto isWatching = [] {
        const auto descriptors = test::descriptorsOf(::getpid());
        return std::any_of(descriptors.begin(), descriptors.end(),
                           [](const auto& each) { return each.second.find("inotify") != std::string::npos; });
    };
    Backend backend(*this);
    backend.say(connect_request);
    backend.hear(R"("connected")");
    EXPECT_FALSE(isWatching());
    backend.say(listen_request);
    test::waitUntil(isWatching, "a watch of the directory");
    backend.finish();
}

TEST_F(BackendConversationTests, EndOfTheInputLeavesNoHalfDeliveryToAParentThatReads) {
    Backend backend(*this);
    backend.say(connect_request);
    backend.hear(R"("connected")");
    // Longer than a pipe takes, so that the delivery is under way when the input ends.
    for (const std::string id : {"m1", "m2", "m3"}) {
        auto record = test::inboundRecord(id);
        record["text"] = std::string(300'000, 'x');
        test::writeFileAtomically(data("inbound/" + id + ".json"), record.dump());
    }
    backend.say(listen_request);
    const auto said = backend.finish();
    EXPECT_EQ(said.size(), 7U);
    EXPECT_THAT(test::visibleNamesIn(data("processed")), ElementsAre("m1.json", "m2.json", "m3.json"));
}

TEST_F(BackendConversationTests, GoesOnWhenSomebodySetsTheClock) {
    Backend backend(*this);
    backend.say(connect_request);
    backend.say(listen_request);
    backend.hear(R"("connected")");
    int message = 0;
    for (const auto jump : {std::chrono::hours(24 * 400), std::chrono::hours(-24 * 800)}) {
        clock_.turnTo(clock_.now() + jump);
        const auto time = iso8601(clock_.now());
        test::waitUntil(
            [&] {
                const auto status = test::contentOrNothing(data("runtime/runtime-status.json"));
                return status.find(time) != std::string::npos;
            },
            "a status of the new time");
        const auto name = "m" + std::to_string(++message);
        test::writeFileAtomically(data("inbound/" + name + ".json"), test::inboundRecord(name).dump());
        backend.hear(R"("messageId":")" + name + "\"");
    }
    EXPECT_EQ(backend.finish().size(), 6U);
    EXPECT_THAT(test::visibleNamesIn(data("processed")), ElementsAre("m1.json", "m2.json"));
}

TEST_F(BackendConversationTests, WaitsForADiskThatDoesNotAnswerAndGoesOnInOrder) {
    Backend backend(*this);
    backend.say(connect_request);
    backend.hear(R"("connected")");
    std::optional<test::StuckFileManager::Stuck> stuck(std::in_place, files_, data("outbound").string());
    for (const std::string text : {"1", "2", "3"})
        backend.say(test::sendMessageRequest({{"conversationId", "room"}, {"text", text}}).dump());
    files_.awaitVictim();
    EXPECT_THAT(test::visibleNamesIn(data("outbound")), IsEmpty());
    // What lies elsewhere does not wait.
    clock_.pass(std::chrono::seconds(10));
    test::waitUntil(
        [&] {
            const auto status = test::contentOrNothing(data("runtime/runtime-status.json"));
            return status.find(iso8601(clock_.now())) != std::string::npos;
        },
        "a later status");
    stuck.reset();
    EXPECT_EQ(backend.finish().size(), 4U);
    std::vector<std::string> texts;
    for (const auto& name : test::visibleNamesIn(data("outbound")))
        texts.push_back(test::readJsonFile(data("outbound/" + name))["text"]);
    EXPECT_THAT(texts, ElementsAre("1", "2", "3"));
}

}  // namespace
}  // namespace brindle

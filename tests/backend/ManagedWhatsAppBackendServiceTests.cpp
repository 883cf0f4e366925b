#include "backend/ManagedWhatsAppBackendService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/BackendParts.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

using nlohmann::json;
using test::linesOf;
using test::namesIn;
using testing::ElementsAre;
using testing::IsEmpty;

class BackendServiceTests : public testing::Test {
  protected:
    std::filesystem::path data(const std::string& name) const { return home_.path() / "data" / name; }
    json status() const { return test::readJsonFile(data("runtime/runtime-status.json")); }
    json control() const { return test::readJsonFile(data("runtime/worker-control.json")); }
    void listen(BridgeScope scope) {
        service_.handle(BridgeStartListeningRequest{"whatsapp", std::move(scope)});
    }
    std::vector<std::string> takeOutput() { return linesOf(streams_.take().output); }

    test::TemporaryDirectory home_;
    PosixFileManager files_;
    test::TestClock clock_;
    test::CapturedStreams streams_;
    ManagedWhatsAppBackendService service_{
        "whatsapp",
        {{std::string(environment_key::data_directory), (home_.path() / "data").string()}},
        files_,
        clock_,
        -1};
};

TEST_F(BackendServiceTests, ConstructionWritesTheFirstStatusAndSaysNothing) {
    EXPECT_EQ(status()["workerState"], "not_configured");
    EXPECT_EQ(control(), (json{{"platform", "whatsapp"}, {"updatedAtISO8601", "2026-01-05T09:30:00Z"}}));
    EXPECT_THAT(takeOutput(), IsEmpty());
}

TEST_F(BackendServiceTests, ConnectAnswersWithTwoStates) {
    service_.handle(BridgeConnectRequest{"whatsapp"});
    const auto published = status()["connectionState"];
    EXPECT_THAT(
        takeOutput(),
        ElementsAre(
            R"({"stateChanged":{"_0":{"state":{"connecting":{}}}}})",
            R"({"stateChanged":{"_0":{"state":{"connected":{"accountDisplayName":"Brindle Managed WhatsApp Backend"}}}}})"));
    EXPECT_EQ(published, "connected");
}

TEST_F(BackendServiceTests, DisconnectClearsTheScope) {
    service_.handle(BridgeConnectRequest{"whatsapp"});
    listen(BridgeConversationScope{"I", "T"});
    service_.handle(BridgeDisconnectRequest{"whatsapp"});
    const auto published = status();
    EXPECT_EQ(takeOutput().back(), R"({"stateChanged":{"_0":{"state":{"disconnected":{}}}}})");
    EXPECT_EQ(published["connectionState"], "disconnected");
    EXPECT_FALSE(published.contains("activeScopeDescription"));
    EXPECT_FALSE(control().contains("activeScope"));
}

TEST_F(BackendServiceTests, ListeningDeliversWhatWaits) {
    test::writeFileAtomically(data("inbound/a.json"), test::inboundRecord("1", "I", "x").dump());
    service_.handle(BridgeConnectRequest{"whatsapp"});
    listen(BridgeConversationScope{"I", "T"});
    const auto output = takeOutput();
    ASSERT_EQ(output.size(), 3U);
    EXPECT_EQ(json::parse(output[2])["inboundEvent"]["_0"]["event"]["messageId"], "1");
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
    const auto output = takeOutput();
    ASSERT_EQ(output.size(), 1U);
    auto event = json::parse(output[0])["inboundEvent"]["_0"]["event"];
    EXPECT_TRUE(test::isCanonicalUuid(event["messageId"].get<std::string>()));
    event.erase("messageId");
    EXPECT_EQ(event, (json{{"conversationId", "managed-whatsapp-backend-self-test"},
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
                  (json{{"messageId", id},
                        {"conversationId", "c"},
                        {"text", "t"},
                        {"replyToMessageId", "r"},
                        {"createdAtISO8601", "2026-01-05T09:30:00Z"},
                        {"attachments", json::array()}}));
    }
    EXPECT_THAT(takeOutput(), IsEmpty());
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
    EXPECT_THAT(takeOutput(), IsEmpty());
    EXPECT_EQ(status(), before);
    EXPECT_THAT(namesIn(data("outbound")), IsEmpty());
}

TEST_F(BackendServiceTests, MessagesMeantForTheParentAreIgnored) {
    const auto before = status();
    service_.handle(BridgeHello{"whatsapp", "x"});
    service_.handle(BridgeInboundEvent{});
    service_.handle(BridgeStateChangedEvent{BridgeConnectedState{"x"}});
    service_.handle(BridgeErrorEvent{"x"});
    EXPECT_THAT(takeOutput(), IsEmpty());
    EXPECT_EQ(status(), before);
}

TEST(BackendServicePlatformTests, CanonicallyEquivalentPlatformsAreTheSame) {
    const test::TemporaryDirectory home;
    PosixFileManager files;
    const test::TestClock clock;
    test::CapturedStreams streams;
    {
        ManagedWhatsAppBackendService service(
            "caf\u00E9", {{std::string(environment_key::data_directory), home.path().string()}}, files, clock,
            -1);
        service.handle(BridgeConnectRequest{"cafe\u0301"});
    }
    EXPECT_EQ(linesOf(streams.take().output).size(), 2U);
}

TEST(BackendServiceConstructionTests, FailsWhenADirectoryCannotBeCreated) {
    const test::TemporaryDirectory home;
    std::ofstream(home.path() / "outbound") << "";
    PosixFileManager files;
    const test::TestClock clock;
    EXPECT_THROW(ManagedWhatsAppBackendService(
                     "whatsapp", {{std::string(environment_key::data_directory), home.path().string()}},
                     files, clock, -1),
                 FileSystemFailure);
    EXPECT_THAT(namesIn(home.path()), ElementsAre("inbound", "outbound"));
}

}  // namespace
}  // namespace brindle

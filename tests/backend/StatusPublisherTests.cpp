#include "backend/StatusPublisher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Waiting.h"
#include "support/WantOfMemory.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

using test::BackendParts;
using test::WantOfMemory;
using testing::StartsWith;

TEST(ActiveScopeDescriptionTests, NamesTheScopeForPeople) {
    EXPECT_EQ(activeScopeDescription(BridgeConversationScope{"I", "T"}), "Conversation T [I]");
    EXPECT_EQ(activeScopeDescription(BridgeChannelScope{"I", "T"}), "Channel T [I]");
    EXPECT_EQ(activeScopeDescription(BridgeThreadScope{"I", "T"}), "Thread T [I]");
    EXPECT_EQ(activeScopeDescription(BridgeThreadScope{"I", std::nullopt}), "Thread I [I]");
    EXPECT_EQ(activeScopeDescription(BridgeThreadScope{"I", ""}), "Thread  [I]");
    EXPECT_EQ(activeScopeDescription(BridgeTestOnlyScope{"T"}), "Self-test T");
}

class StatusPublisherTests : public testing::Test {
  protected:
    void setWorkerRunning(bool running) {
        parts_.state.setWorkerState({.configuredExecutablePath = "/w",
                                     .state = "launching",
                                     .detail = "Own words.",
                                     .processRunning = running});
    }
    void putWorkerStatus(const std::string& content) {
        test::writeFileAtomically(parts_.directory.workerStatusFile, content);
    }
    /// Writes and answers the log.
    std::string publish() {
        publisher_.writeRuntimeStatus();
        return parts_.streams.text().error;
    }
    StatusPublisher::Uses with(FileManager& files) {
        const auto& uses = parts_.forPublisher();
        return {.platform = uses.platform,
                .directory = uses.directory,
                .fileManager = files,
                .clock = uses.clock,
                .state = uses.state,
                .log = uses.log};
    }

    BackendParts parts_;
    StatusPublisher publisher_{parts_.forPublisher()};
};

TEST_F(StatusPublisherTests, FirstStatusTellsThatNothingHasHappened) {
    EXPECT_EQ(publish(), "");
    EXPECT_EQ(parts_.runtimeStatus(), (test::Json{{"platform", "whatsapp"},
                                                  {"backendVersion", "managed-whatsapp-backend-3"},
                                                  {"dataDirectoryPath", parts_.directory.path},
                                                  {"connectionState", "disconnected"},
                                                  {"workerProcessRunning", false},
                                                  {"workerState", "not_configured"},
                                                  {"workerDetail", "No managed WhatsApp worker configured."},
                                                  {"workerSupportsLiveCapture", false},
                                                  {"workerSupportsOutbound", false},
                                                  {"updatedAtISO8601", "2026-01-05T09:30:00Z"}}));
    EXPECT_EQ(parts_.workerControl(),
              (test::Json{{"platform", "whatsapp"}, {"updatedAtISO8601", "2026-01-05T09:30:00Z"}}));
}

TEST_F(StatusPublisherTests, PublishesConnectionAndScope) {
    parts_.state.setConnected(true);
    parts_.state.setActiveScope(BridgeThreadScope{"I", std::nullopt});
    publish();
    EXPECT_EQ(parts_.runtimeStatus()["connectionState"], "connected");
    EXPECT_EQ(parts_.runtimeStatus()["activeScopeDescription"], "Thread I [I]");
    EXPECT_EQ(parts_.workerControl()["activeScope"], (test::Json{{"kind", "thread"}, {"id", "I"}}));
}

TEST_F(StatusPublisherTests, WorkerIsToldWhatToWatchWhileDisconnected) {
    parts_.state.setActiveScope(BridgeTestOnlyScope{"T"});
    publish();
    EXPECT_EQ(parts_.runtimeStatus()["connectionState"], "disconnected");
    EXPECT_EQ(parts_.workerControl()["activeScope"], (test::Json{{"kind", "testOnly"}, {"title", "T"}}));
}

TEST_F(StatusPublisherTests, TakesOverTheStatusOfARunningWorkerAsItStands) {
    setWorkerRunning(true);
    putWorkerStatus(R"({"state":"linked","displayName":"Zoë","lastHeartbeatISO8601":"h","contactQRLink":"q",)"
                    R"("supportsLiveCapture":true,"supportsOutbound":true})");
    EXPECT_EQ(publish(), "");
    const auto status = parts_.runtimeStatus();
    EXPECT_EQ(status["workerState"], "linked");
    EXPECT_EQ(status["workerDisplayName"], "Zoë");
    EXPECT_EQ(status["workerLastHeartbeatISO8601"], "h");
    EXPECT_EQ(status["workerContactQRLink"], "q");
    EXPECT_EQ(status["workerSupportsLiveCapture"], true);
    EXPECT_EQ(status["workerSupportsOutbound"], true);
    EXPECT_EQ(status["workerConfiguredExecutablePath"], "/w");
    EXPECT_EQ(status["workerProcessRunning"], true);
    EXPECT_FALSE(status.contains("workerDetail")) << "an absent detail is not filled in";
}

TEST_F(StatusPublisherTests, WorkerThatHasNotWrittenYetIsNothingToReport) {
    setWorkerRunning(true);
    EXPECT_EQ(publish(), "");
    EXPECT_EQ(parts_.runtimeStatus()["workerState"], "launching");
    EXPECT_EQ(parts_.runtimeStatus()["workerDetail"], "Own words.");
}

/// Lets something happen right after a read that found nothing.
class LateFiles final : public test::ForwardingFileManager {
  public:
    using ForwardingFileManager::ForwardingFileManager;

    std::string readFile(const std::string& path) override {
        try {
            return ForwardingFileManager::readFile(path);
        } catch (const FileSystemFailure&) {
            thereupon();
            throw;
        }
    }

    std::function<void()> thereupon;
};

TEST_F(StatusPublisherTests, WorkerThatWritesItsFirstStatusMeanwhileIsNothingToReport) {
    setWorkerRunning(true);
    LateFiles files(parts_.files);
    files.thereupon = [this] { putWorkerStatus("{}"); };
    StatusPublisher(with(files)).writeRuntimeStatus();
    EXPECT_EQ(parts_.streams.text().error, "");
    EXPECT_EQ(parts_.runtimeStatus()["workerState"], "launching");
}

TEST_F(StatusPublisherTests, StatusOfAnEarlierWorkerIsNotRead) {
    setWorkerRunning(false);
    putWorkerStatus("not even JSON");
    EXPECT_EQ(publish(), "");
    EXPECT_EQ(parts_.runtimeStatus()["workerState"], "launching");
    EXPECT_EQ(parts_.runtimeStatus()["workerProcessRunning"], false);
}

TEST_F(StatusPublisherTests, UndecodableWorkerStatusIsLoggedAndPassedOver) {
    setWorkerRunning(true);
    putWorkerStatus(R"({"state":"linked","supportsOutbound":true})");
    EXPECT_EQ(
        publish(),
        "[ManagedWhatsAppBackend] failed to decode worker status: The data cannot be used because a required value is missing (at supportsLiveCapture).\n");
    EXPECT_EQ(parts_.runtimeStatus()["workerState"], "launching");
    EXPECT_EQ(parts_.runtimeStatus()["workerSupportsOutbound"], false);
}

TEST_F(StatusPublisherTests, UnreadableWorkerStatusIsLoggedAndPassedOver) {
    setWorkerRunning(true);
    std::filesystem::create_directory(parts_.directory.workerStatusFile);
    EXPECT_EQ(publish(), "[ManagedWhatsAppBackend] failed to decode worker status: Cannot read \"" +
                             parts_.directory.workerStatusFile + "\": Not a regular file.\n");
    EXPECT_EQ(parts_.runtimeStatus()["workerState"], "launching");
}

TEST_F(StatusPublisherTests, ControlIsWrittenThoughStatusCannotBe) {
    std::filesystem::create_directories(parts_.directory.runtimeStatusFile + "/in the way");
    parts_.state.setActiveScope(BridgeTestOnlyScope{"T"});
    EXPECT_THAT(publish(),
                StartsWith("[ManagedWhatsAppBackend] failed to write runtime status: Cannot write \"" +
                           parts_.directory.runtimeStatusFile + "\": "));
    EXPECT_EQ(parts_.workerControl()["activeScope"]["title"], "T");
}

TEST_F(StatusPublisherTests, ControlThatCannotBeWrittenIsLogged) {
    std::filesystem::create_directories(parts_.directory.workerControlFile + "/in the way");
    EXPECT_THAT(publish(),
                StartsWith("[ManagedWhatsAppBackend] failed to write worker control: Cannot write \"" +
                           parts_.directory.workerControlFile + "\": "));
    EXPECT_EQ(parts_.runtimeStatus()["connectionState"], "disconnected");
}

/// Lets something else happen during the first write.
class InterruptedFiles final : public test::ForwardingFileManager {
  public:
    using ForwardingFileManager::ForwardingFileManager;

    void writeFileAtomically(const std::string& path, std::string_view bytes,
                             Durability durability) override {
        if (const auto happen = std::exchange(meanwhile, nullptr)) happen();
        ForwardingFileManager::writeFileAtomically(path, bytes, durability);
    }

    std::function<void()> meanwhile;
};

TEST_F(StatusPublisherTests, OlderStateIsNeverPublishedAfterANewerOne) {
    InterruptedFiles files(parts_.files);
    StatusPublisher publisher(with(files));
    std::atomic<pid_t> other = 0;
    std::atomic<bool> hasPublished = false;
    std::thread newer;
    files.meanwhile = [&] {
        parts_.state.setConnected(true);
        newer = std::thread([&] {
            other = ::gettid();
            publisher.writeRuntimeStatus();
            hasPublished = true;
        });
        test::waitUntil([&] { return hasPublished || (other != 0 && test::isAsleep(other)); },
                        "the newer state to overtake, or to wait for its turn");
    };
    publisher.writeRuntimeStatus();
    newer.join();
    EXPECT_EQ(parts_.runtimeStatus()["connectionState"], "connected");
}

TEST_F(StatusPublisherTests, LastOfSeveralWritersPublishesTheLastState) {
    const auto publishOften = [this] {
        for (int i = 0; i < 50; ++i) {
            parts_.state.setConnected(i % 2 == 0);
            publisher_.writeRuntimeStatus();
        }
        parts_.state.setConnected(true);
        publisher_.writeRuntimeStatus();
    };
    std::thread other(publishOften);
    publishOften();
    other.join();
    EXPECT_EQ(parts_.runtimeStatus()["connectionState"], "connected");
}

TEST_F(StatusPublisherTests, WantOfMemoryCostsNoMoreThanTheWrite) {
    parts_.state.setActiveScope(
        BridgeConversationScope{"an identifier of some length", "a title of some length"});
    setWorkerRunning(true);
    putWorkerStatus("not even JSON");
    for (const auto persistence : {WantOfMemory::Persistence::once, WantOfMemory::Persistence::fromThenOn}) {
        int allocation = 0;
        bool wasMet = true;
        while (wasMet) {
            WantOfMemory want(++allocation, persistence);
            publisher_.writeRuntimeStatus();
            wasMet = want.end();
        }
        EXPECT_GT(allocation, 10);
    }
    EXPECT_EQ(parts_.runtimeStatus()["workerDetail"], "Own words.");
    EXPECT_EQ(parts_.workerControl()["activeScope"]["title"], "a title of some length");
}

}  // namespace
}  // namespace brindle

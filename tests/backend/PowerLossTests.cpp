#include "support/PowerLossFileManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "backend/ManagedWhatsAppBackendService.h"
#include "exchange/EnvironmentKeys.h"
#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/MemoryStreams.h"
#include "support/Pipes.h"
#include "support/TemporaryDirectory.h"
#include "support/TestClock.h"
#include "system/FileSystemFailure.h"

/// The power goes at every file operation of the backend, and whatever the disk has kept of what was not
/// flushed, the next start finds what the guarantees promise.
namespace brindle {
namespace {

using test::PowerLossFileManager;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;

using Unflushed = PowerLossFileManager::Unflushed;
using PowerStage = PowerLossFileManager::Stage;

constexpr int more_operations_than_a_life_has = 200;

/// A data directory that outlives its backends.
class Disk {
  public:
    test::TemporaryDirectory home{test::TemporaryDirectory::Place::memory};
    test::QuickFileManager real;
    std::string platform = "whatsapp";
    Environment environment{{std::string(environment_key::data_directory), (home.path() / "data").string()}};
    DataDirectory directory{environment, real, platform};

    /// What a worker has left: two messages of the chat, one of another, and garbage.
    void putBacklog() {
        directory.createForBackend(real);
        put("m1", test::inboundRecord("m1").dump());
        put("m2", "{");
        put("m3", test::inboundRecord("m3").dump());
        put("m4", test::inboundRecord("m4", "other", "Other").dump());
    }
    void put(const std::string& name, const std::string& content) {
        test::writeFileAtomically(directory.inbound + "/" + name + ".json", content);
        contents_[name] = content;
    }
    /// The texts of the messages to send, in order of their names; fails the test when one is not whole.
    std::vector<std::string> outboundTexts() const {
        std::vector<std::string> texts;
        for (const auto& name : test::visibleNamesIn(directory.outbound)) {
            texts.push_back(test::readJsonFile(directory.outbound + "/" + name)["text"]);
        }
        return texts;
    }
    /// The one directory that holds the message that came in, whole; "" otherwise.
    std::string placeOf(const std::string& name) const {
        std::vector<std::string> places;
        for (const auto* place : {&directory.inbound, &directory.processed, &directory.rejected}) {
            for (const auto& file : test::visibleNamesIn(*place)) {
                if (!file.ends_with(name + ".json")) continue;
                const auto content = test::readFile(*place + "/" + file);
                places.push_back(content == contents_.at(name) ? *place : "a part of it in " + *place);
            }
        }
        return places.size() == 1 ? places[0] : "";
    }

  private:
    std::map<std::string, std::string> contents_;
};

/// One life of the backend: it listens to the backlog and is told to send.
struct BackendLife {
    std::vector<std::string> acknowledged;
    std::vector<std::string> emitted;
    bool hasStarted = false;
};

BackendLife live(const Disk& disk, FileManager& files, const std::vector<std::string>& texts) {
    BackendLife life;
    const test::TestClock clock;
    const test::MemoryStreams streams;
    try {
        BridgeChannel channel({.input = -1, .output = streams.output(), .error = streams.error()});
        ManagedWhatsAppBackendService service(disk.platform, disk.environment, files, clock, channel,
                                              ::getppid());
        life.hasStarted = true;
        service.handle(BridgeConnectRequest{disk.platform});
        service.handle(BridgeStartListeningRequest{disk.platform, BridgeConversationScope{"room", "Room"}});
        for (const auto& text : texts) {
            service.handle(BridgeSendMessageRequest{
                disk.platform,
                {.conversationId = "room", .text = text, .replyToMessageId = {}, .attachments = {}}});
            life.acknowledged.push_back(text);
        }
    } catch (const FileSystemFailure&) {
        // As the parent sees it: no answer, or an error.
    }
    for (const auto& event : test::inboundEventsIn(streams.text().output))
        life.emitted.push_back(event["messageId"]);
    return life;
}

void expectWholeOrAbsentOrEmpty(const std::string& file) {
    const auto content = test::contentOrNothing(file);
    EXPECT_TRUE(content.empty() || test::Json::parseIfPossible(content).has_value())
        << file << ": " << content;
}

class BackendPowerLossTests : public testing::TestWithParam<std::tuple<PowerStage, Unflushed>> {
  protected:
    static PowerStage stage() { return std::get<0>(GetParam()); }
    static Unflushed unflushed() { return std::get<1>(GetParam()); }

    /// Lets the power go at the first operation of `body`, the second and so on, until it has no more.
    static void forEveryOperation(const std::function<bool(int operation)>& body) {
        int operation = 1;
        while (operation < more_operations_than_a_life_has) {
            SCOPED_TRACE("operation " + std::to_string(operation));
            if (!body(operation)) break;
            ++operation;
        }
        EXPECT_GT(operation, 1) << "nothing was tried";
        EXPECT_LT(operation, more_operations_than_a_life_has);
    }
};

std::string nameOfLoss(const testing::TestParamInfo<std::tuple<PowerStage, Unflushed>>& info) {
    return test::nameOf(std::get<0>(info.param)) + test::nameOf(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Losses, BackendPowerLossTests,
                         testing::Combine(testing::ValuesIn(test::power_loss_stages),
                                          testing::ValuesIn(test::kinds_of_loss)),
                         nameOfLoss);

TEST_P(BackendPowerLossTests, EveryAcknowledgedMessageIsThereOnceInItsOrder) {
    forEveryOperation([](int operation) {
        Disk disk;
        PowerLossFileManager files;
        files.goAt(operation, stage());
        const auto life = live(disk, files, {"1", "2", "3"});
        const bool wasMet = files.isGone();
        files.comeBack(unflushed());
        const auto kept = disk.outboundTexts();
        // One more than was answered for may be there, whole.
        auto expected = life.acknowledged;
        if (kept.size() > expected.size()) expected.push_back(std::to_string(expected.size() + 1));
        EXPECT_EQ(kept, expected);
        // Those of the next life stand behind it.
        EXPECT_THAT(live(disk, disk.real, {"4"}).acknowledged, ElementsAre("4"));
        expected.emplace_back("4");
        EXPECT_EQ(disk.outboundTexts(), expected);
        return wasMet;
    });
}

TEST_P(BackendPowerLossTests, EveryMessageThatCameInIsDeliveredAndNoneIsLost) {
    forEveryOperation([](int operation) {
        Disk disk;
        disk.putBacklog();
        PowerLossFileManager files;
        files.goAt(operation, stage());
        const auto life = live(disk, files, {"1"});
        const bool wasMet = files.isGone();
        files.comeBack(unflushed());
        for (const std::string name : {"m1", "m3"}) {
            EXPECT_THAT(disk.placeOf(name), AnyOf(disk.directory.inbound, disk.directory.processed)) << name;
            if (disk.placeOf(name) == disk.directory.processed) {
                EXPECT_THAT(life.emitted, Contains(name));
            }
        }
        EXPECT_THAT(disk.placeOf("m2"), AnyOf(disk.directory.inbound, disk.directory.rejected));
        EXPECT_EQ(disk.placeOf("m4"), disk.directory.inbound);
        // What was undone comes again, in order, and what nobody has got comes.
        const auto next = live(disk, disk.real, {});
        for (const std::string name : {"m1", "m3"}) {
            EXPECT_EQ(disk.placeOf(name), disk.directory.processed);
            const auto times = std::count(life.emitted.begin(), life.emitted.end(), name) +
                               std::count(next.emitted.begin(), next.emitted.end(), name);
            EXPECT_GE(times, 1) << name;
            EXPECT_LE(times, 2) << name;
        }
        EXPECT_TRUE(std::is_sorted(next.emitted.begin(), next.emitted.end()));
        EXPECT_EQ(disk.placeOf("m2"), disk.directory.rejected);
        return wasMet;
    });
}

TEST_P(BackendPowerLossTests, StatusAndControlAreWholeOrGoneOrEmptyAndTheNextStartWritesThemAnew) {
    forEveryOperation([](int operation) {
        Disk disk;
        EXPECT_TRUE(live(disk, disk.real, {}).hasStarted);
        PowerLossFileManager files;
        files.goAt(operation, stage());
        live(disk, files, {"1"});
        const bool wasMet = files.isGone();
        files.comeBack(unflushed());
        expectWholeOrAbsentOrEmpty(disk.directory.runtimeStatusFile);
        expectWholeOrAbsentOrEmpty(disk.directory.workerControlFile);
        EXPECT_TRUE(live(disk, disk.real, {}).hasStarted);
        EXPECT_EQ(test::readJsonFile(disk.directory.runtimeStatusFile)["connectionState"], "connected");
        EXPECT_EQ(test::readJsonFile(disk.directory.workerControlFile)["activeScope"]["id"], "room");
        return wasMet;
    });
}

TEST_P(BackendPowerLossTests, WhatAParentLeftUnreadStaysOrCountsAsDelivered) {
    forEveryOperation([](int operation) {
        Disk disk;
        disk.putBacklog();
        PowerLossFileManager files;
        const test::TestClock clock;
        const test::MemoryStreams streams;
        auto output = test::makePipe();
        {
            BridgeChannel channel({.input = -1, .output = output.writing.get(), .error = streams.error()});
            ManagedWhatsAppBackendService service(disk.platform, disk.environment, files, clock, channel,
                                                  ::getppid());
            service.handle(BridgeConnectRequest{disk.platform});
            files.goAt(operation, stage());
            service.handle(
                BridgeStartListeningRequest{disk.platform, BridgeConversationScope{"room", "Room"}});
            output.reading.reset();
        }
        const bool wasMet = files.isGone();
        files.comeBack(unflushed());
        for (const std::string name : {"m1", "m3"})
            EXPECT_THAT(disk.placeOf(name), AnyOf(disk.directory.inbound, disk.directory.processed)) << name;
        return wasMet;
    });
}

}  // namespace
}  // namespace brindle

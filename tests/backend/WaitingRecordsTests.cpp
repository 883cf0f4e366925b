#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "backend/InboundDelivery.h"
#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/Json.h"
#include "support/Waiting.h"

/// What it costs that records wait, and that none is forgotten for it.
namespace brindle {
namespace {

namespace fs = std::filesystem;
using test::BackendParts;
using test::inboundEventsIn;
using test::inboundRecord;
using test::namesIn;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Le;
using testing::Not;

class WaitingRecordsTests : public testing::Test {
  protected:
    WaitingRecordsTests() {
        parts_.state.setConnected(true);
        parts_.state.setActiveScope(BridgeConversationScope{"room", "Room"});
        // Long after whatever the tests do to files.
        parts_.clock.turnTo(std::chrono::system_clock::now() + std::chrono::hours{24});
    }

    std::string at(const std::string& name) const { return parts_.directory.inbound + "/" + name; }
    void put(const std::string& id) { parts_.putInbound(id + ".json", inboundRecord(id).dump()); }
    void putForAnotherChat(const std::string& id) {
        parts_.putInbound(id + ".json", inboundRecord(id, "other", "Other").dump());
    }
    /// Writes a record that belongs into the very file that is there.
    void writeInPlace(const std::string& id) { std::ofstream(at(id + ".json")) << inboundRecord(id).dump(7); }
    void beat() { delivery_.drainUnlessUnderWay(); }
    /// What a drain asks the file system for, without the directory's path: "read a.json".
    template <class Drain>
    std::vector<std::string> operationsOf(const Drain& drain) {
        constexpr int never = 1'000'000;
        parts_.files.set({.operation = never});
        drain();
        auto operations = parts_.files.operations();
        parts_.files.clear();
        for (auto& each : operations) {
            const auto path = each.find(parts_.directory.inbound);
            if (path != std::string::npos) each.erase(path, parts_.directory.inbound.size() + 1);
            if (each.ends_with(' ')) each.pop_back();
        }
        return operations;
    }
    std::vector<std::string> operationsOfABeat() {
        return operationsOf([this] { beat(); });
    }
    std::vector<std::string> delivered() const {
        std::vector<std::string> ids;
        for (const auto& event : inboundEventsIn(parts_.streams.text().output))
            ids.push_back(event["messageId"]);
        return ids;
    }
    std::vector<std::string> inbound() const { return namesIn(parts_.directory.inbound); }

    BackendParts parts_;
    InboundDelivery delivery_{parts_.forDelivery()};
};

const std::vector<std::string> only_a_look_at_the_directory{"list", "look into"};

TEST_F(WaitingRecordsTests, DirectoryInWhichNothingHasChangedIsNotListedAgain) {
    EXPECT_THAT(operationsOfABeat(), ElementsAre("list", "look into", "list on"));
    EXPECT_EQ(operationsOfABeat(), only_a_look_at_the_directory);
    putForAnotherChat("a");
    EXPECT_THAT(operationsOfABeat(), ElementsAre("list", "look into", "list on", "read a.json"));
    EXPECT_EQ(operationsOfABeat(), only_a_look_at_the_directory);
}

TEST_F(WaitingRecordsTests, RecordThatWaitsIsNotReadAgainWhenAnotherComes) {
    putForAnotherChat("a");
    beat();
    put("b");
    const auto operations = operationsOfABeat();
    EXPECT_THAT(operations, Contains("look at a.json"));
    EXPECT_THAT(operations, Not(Contains("read a.json")));
    EXPECT_THAT(delivered(), ElementsAre("b"));
}

TEST_F(WaitingRecordsTests, RequestLooksAtEverythingAndReadsNothingTwice) {
    putForAnotherChat("a");
    beat();
    for (int request = 0; request < 3; ++request) {
        EXPECT_THAT(operationsOf([&] { delivery_.drainInboundDirectory(); }),
                    ElementsAre("list", "look into", "list on", "look at a.json"));
    }
}

TEST_F(WaitingRecordsTests, RecordThatIsReplacedIsReadAgain) {
    putForAnotherChat("a");
    beat();
    put("a");
    beat();
    EXPECT_THAT(delivered(), ElementsAre("a"));
}

TEST_F(WaitingRecordsTests, RecordThatIsWrittenInItsPlaceIsSeenWithinAMinute) {
    putForAnotherChat("a");
    beat();
    writeInPlace("a");
    parts_.clock.pass(std::chrono::seconds{59});
    EXPECT_EQ(operationsOfABeat(), only_a_look_at_the_directory);
    parts_.clock.pass(std::chrono::seconds{1});
    beat();
    EXPECT_THAT(delivered(), ElementsAre("a"));
}

TEST_F(WaitingRecordsTests, RecordThatIsWrittenInItsPlaceIsSeenByTheNextRequest) {
    putForAnotherChat("a");
    beat();
    writeInPlace("a");
    delivery_.drainInboundDirectory();
    EXPECT_THAT(delivered(), ElementsAre("a"));
}

TEST_F(WaitingRecordsTests, RecordThatIsWrittenInItsPlaceIsSeenAtOnceBySomeoneWhoIsTold) {
    putForAnotherChat("a");
    beat();
    writeInPlace("a");
    delivery_.drainWhatHasChanged();
    EXPECT_THAT(delivered(), ElementsAre("a"));
}

TEST_F(WaitingRecordsTests, SettingTheClockBackDoesNotPutOffTheMinute) {
    putForAnotherChat("a");
    beat();
    writeInPlace("a");
    parts_.clock.pass(std::chrono::minutes{1});
    parts_.clock.turnTo(std::chrono::system_clock::now() + std::chrono::hours{1});
    beat();
    EXPECT_THAT(delivered(), ElementsAre("a"));
}

TEST_F(WaitingRecordsTests, DirectoryThatHasJustChangedIsListedAgainUntilItsTimeProvesSomething) {
    const auto now = parts_.clock.now();
    parts_.files.pretendStatusChange(parts_.directory.inbound, now - std::chrono::milliseconds{500});
    beat();
    EXPECT_THAT(operationsOfABeat(), Contains("list on"));
    parts_.clock.pass(std::chrono::milliseconds{500});
    EXPECT_THAT(operationsOfABeat(), Contains("list on"));
    EXPECT_EQ(operationsOfABeat(), only_a_look_at_the_directory);
}

TEST_F(WaitingRecordsTests, TimeThatLiesAheadProvesNothing) {
    parts_.files.pretendStatusChange(parts_.directory.inbound, parts_.clock.now() + std::chrono::hours{1});
    beat();
    EXPECT_THAT(operationsOfABeat(), Contains("list on"));
}

TEST_F(WaitingRecordsTests, RecordThatWasJustWrittenIsReadAgainUntilItsTimeProvesSomething) {
    putForAnotherChat("a");
    parts_.files.pretendStatusChange(at("a.json"), parts_.clock.now() - std::chrono::milliseconds{500});
    beat();
    EXPECT_THAT(operationsOfABeat(), Contains("read a.json"));
    parts_.clock.pass(std::chrono::milliseconds{500});
    EXPECT_THAT(operationsOfABeat(), Contains("read a.json"));
    EXPECT_EQ(operationsOfABeat(), only_a_look_at_the_directory);
}

TEST_F(WaitingRecordsTests, AnotherScopeReadsEverythingAgain) {
    putForAnotherChat("a");
    beat();
    parts_.state.setActiveScope(BridgeConversationScope{"third", "Third"});
    EXPECT_THAT(operationsOfABeat(), Contains("read a.json"));
    parts_.state.setActiveScope(BridgeConversationScope{"other", "Other"});
    beat();
    EXPECT_THAT(delivered(), ElementsAre("a"));
}

TEST_F(WaitingRecordsTests, AnotherConnectionReadsEverythingAgain) {
    putForAnotherChat("a");
    beat();
    parts_.state.setConnected(false);
    EXPECT_THAT(operationsOfABeat(), IsEmpty());
    parts_.state.setConnected(true);
    EXPECT_THAT(operationsOfABeat(), Contains("read a.json"));
}

TEST_F(WaitingRecordsTests, DirectoryThatTakesThePlaceOfTheOldOneIsLookedAt) {
    putForAnotherChat("a");
    beat();
    fs::rename(parts_.directory.inbound, parts_.directory.inbound + "-old");
    fs::create_directory(parts_.directory.inbound);
    put("b");
    beat();
    EXPECT_THAT(delivered(), ElementsAre("b"));
}

TEST_F(WaitingRecordsTests, WhatALinkLeadsToIsReadAtEveryLook) {
    const auto target = (parts_.home.path() / "target").string();
    std::ofstream(target) << inboundRecord("a", "other", "Other").dump();
    fs::create_symlink(target, at("a.json"));
    beat();
    std::ofstream(target) << inboundRecord("a").dump(7);
    beat();
    EXPECT_THAT(delivered(), ElementsAre("a"));
}

TEST_F(WaitingRecordsTests, DrainThatHasFailedProvesNothing) {
    put("a");
    putForAnotherChat("b");
    // The directory is opened, looked at and listed; from then on everything fails.
    for (int operation = 1; operation <= 4; ++operation) {
        parts_.files.set({.operation = operation,
                          .persistence = test::FaultInjectingFileManager::Persistence::fromThenOn,
                          .code = EIO});
        beat();
        parts_.files.clear();
        ASSERT_THAT(inbound(), ElementsAre("a.json", "b.json")) << operation;
    }
    beat();
    EXPECT_THAT(delivered(), ElementsAre("a"));
    EXPECT_THAT(inbound(), ElementsAre("b.json"));
}

TEST_F(WaitingRecordsTests, LastRecordThatCannotBeFiledAwayIsTriedAgain) {
    putForAnotherChat("a");
    put("b");
    parts_.files.set({.operation = 1,
                      .persistence = test::FaultInjectingFileManager::Persistence::fromThenOn,
                      .code = EIO,
                      .action = "move"});
    beat();
    parts_.files.clear();
    ASSERT_THAT(inbound(), ElementsAre("a.json", "b.json"));
    beat();
    EXPECT_THAT(inbound(), ElementsAre("a.json"));
}

TEST_F(WaitingRecordsTests, RecordWhoseAttributesCannotBeToldIsReadAgain) {
    putForAnotherChat("a");
    beat();
    put("b");
    parts_.files.set({.operation = 1, .code = EIO, .action = "look at"});
    beat();
    EXPECT_THAT(parts_.files.operations(), Contains("read " + at("a.json")));
    parts_.files.clear();
    EXPECT_THAT(inbound(), ElementsAre("a.json"));
}

/// Time goes by whenever somebody asks for it.
class RunningClock final : public Clock {
  public:
    std::chrono::system_clock::time_point now() const override { return test::TestClock::start; }
    std::chrono::nanoseconds sinceBoot() const override {
        return std::chrono::milliseconds{20} * ++questions_;
    }
    void sleep(std::chrono::milliseconds) const override {}

  private:
    mutable std::atomic<int> questions_ = 0;
};

InboundDelivery::Uses usesWith(BackendParts& parts, const Clock& clock) {
    const auto uses = parts.forDelivery();
    return {.directory = uses.directory,
            .fileManager = uses.fileManager,
            .clock = clock,
            .state = uses.state,
            .emitter = uses.emitter,
            .departureWatch = uses.departureWatch,
            .log = uses.log,
            .queue = uses.queue};
}

TEST(LongDeliveryTests, LetsTheQueueDoOtherWorkInBetween) {
    BackendParts parts;
    parts.state.setConnected(true);
    parts.state.setActiveScope(BridgeConversationScope{"room", "Room"});
    for (int i = 10; i < 40; ++i) {
        const auto id = std::to_string(i);
        parts.putInbound(id + ".json", inboundRecord(id, "other", "Other").dump());
    }
    parts.putInbound("z.json", inboundRecord("z").dump());
    const RunningClock clock;
    InboundDelivery delivery(usesWith(parts, clock));
    bool wasDeliveredBefore = true;
    parts.queue.post([&] {
        delivery.drainUnlessUnderWay();
        wasDeliveredBefore = !fs::exists(parts.directory.inbound + "/z.json");
    });
    test::waitUntil([&] { return !fs::exists(parts.directory.inbound + "/z.json"); },
                    "the delivery to go on by itself");
    parts.queue.stop(std::chrono::minutes{1});
    parts.queue.join();
    EXPECT_FALSE(wasDeliveredBefore) << "by then other work could have its turn";
    EXPECT_EQ(inboundEventsIn(parts.streams.text().output).size(), 1U);
}

TEST(LongDeliveryTests, KeepsOtherWorkOfTheQueueWaitingForOneTurnHoweverManyBeatsComeMeanwhile) {
    constexpr std::size_t beats = 8;
    constexpr std::size_t records = 60;
    BackendParts parts;
    parts.state.setConnected(true);
    parts.state.setActiveScope(BridgeConversationScope{"room", "Room"});
    for (std::size_t i = 10; i < 10 + records; ++i)
        parts.putInbound(std::to_string(i) + ".json", inboundRecord(std::to_string(i)).dump());
    const RunningClock clock;
    InboundDelivery delivery(usesWith(parts, clock));
    std::vector<std::size_t> delivered;
    const std::function<void()> otherWork = [&] {
        delivered.push_back(namesIn(parts.directory.processed).size());
        if (delivered.back() < records) parts.queue.post(otherWork);
    };
    parts.queue.post([&] {
        for (std::size_t beat = 0; beat < beats; ++beat) delivery.drainUnlessUnderWay();
        parts.queue.post(otherWork);
    });
    test::waitUntil([&] { return namesIn(parts.directory.inbound).empty(); }, "everything to be delivered");
    parts.queue.stop(std::chrono::minutes{1});
    parts.queue.join();
    std::adjacent_difference(delivered.begin(), delivered.end(), delivered.begin());
    // How many records fit into a turn by that clock.
    constexpr std::size_t turn = 3;
    EXPECT_THAT(std::vector(delivered.begin() + 1, delivered.end()), Each(Le(turn)));
}

}  // namespace
}  // namespace brindle

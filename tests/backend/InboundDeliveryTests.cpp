#include "backend/InboundDelivery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/BackendParts.h"
#include "support/Files.h"
#include "support/ForwardingFileManager.h"
#include "support/Json.h"
#include "support/Pipes.h"
#include "support/TextForms.h"
#include "support/Waiting.h"
#include "support/WantOfMemory.h"

namespace brindle {
namespace {

using test::BackendParts;
using test::inboundEventsIn;
using test::inboundRecord;
using test::namesIn;
using test::WantOfMemory;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

struct ScopeCase {
    std::string description;
    BridgeScope scope;
    std::string conversationId;
    std::string conversationTitle;
    bool belongs;
};

void PrintTo(const ScopeCase& each, std::ostream* stream) {
    *stream << each.description;
}

class ScopeTests : public testing::TestWithParam<ScopeCase> {};

TEST_P(ScopeTests, RecordBelongsByIdentifierOrTitle) {
    const auto& each = GetParam();
    ManagedWhatsAppInboundRecord record;
    record.conversationId = each.conversationId;
    record.conversationTitle = each.conversationTitle;
    EXPECT_EQ(belongsToScope(record, each.scope), each.belongs);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ScopeTests,
    testing::Values(
        ScopeCase{"ConversationSameIdentifier", BridgeConversationScope{"I", "T"}, "I", "x", true},
        ScopeCase{"ConversationSameTitle", BridgeConversationScope{"I", "T"}, "x", "T", true},
        ScopeCase{"ConversationBoth", BridgeConversationScope{"I", "T"}, "I", "T", true},
        ScopeCase{"ConversationNeither", BridgeConversationScope{"I", "T"}, "x", "y", false},
        ScopeCase{"ConversationCrossed", BridgeConversationScope{"I", "T"}, "T", "I", false},
        ScopeCase{"ConversationOtherCase", BridgeConversationScope{"I", "T"}, "i", "t", false},
        ScopeCase{"ConversationTitleWithBlank", BridgeConversationScope{"I", "T"}, "x", "T ", false},
        ScopeCase{"ConversationDecomposedTitle", BridgeConversationScope{"I", "é"}, "x", "e\u0301", false},
        ScopeCase{"ConversationEmptyTitles", BridgeConversationScope{"I", ""}, "x", "", true},
        ScopeCase{"ConversationEmptyIdentifiers", BridgeConversationScope{"", "T"}, "", "y", true},
        ScopeCase{"ChannelSameIdentifier", BridgeChannelScope{"I", "T"}, "I", "x", true},
        ScopeCase{"ChannelSameTitle", BridgeChannelScope{"I", "T"}, "x", "T", true},
        ScopeCase{"ChannelNeither", BridgeChannelScope{"I", "T"}, "x", "y", false},
        ScopeCase{"ThreadSameIdentifier", BridgeThreadScope{"I", "T"}, "I", "x", true},
        ScopeCase{"ThreadSameTitle", BridgeThreadScope{"I", "T"}, "x", "T", true},
        ScopeCase{"ThreadNeither", BridgeThreadScope{"I", "T"}, "x", "y", false},
        ScopeCase{"ThreadWithoutTitle", BridgeThreadScope{"I", std::nullopt}, "x", "y", true},
        ScopeCase{"ThreadWithEmptyTitle", BridgeThreadScope{"I", ""}, "x", "y", false},
        ScopeCase{"TestOnly", BridgeTestOnlyScope{"T"}, "x", "T", false}),
    [](const auto& each) { return each.param.description; });

class InboundDeliveryTests : public testing::Test {
  protected:
    InboundDeliveryTests() {
        parts_.state.setConnected(true);
        parts_.state.setActiveScope(BridgeConversationScope{"room", "Room"});
    }

    void put(const std::string& name, const test::Json& record) { parts_.putInbound(name, record.dump()); }
    std::vector<std::string> inbound() const { return namesIn(parts_.directory.inbound); }
    std::vector<std::string> processed() const { return namesIn(parts_.directory.processed); }
    std::vector<std::string> rejected() const { return namesIn(parts_.directory.rejected); }
    /// Drains once and answers the identifiers of what was delivered and the log.
    void drain() { delivery_.drainInboundDirectory(); }
    void finish() {
        const auto text = parts_.streams.text();
        for (const auto& event : inboundEventsIn(text.output)) delivered_.push_back(event["messageId"]);
        output_ = text.output;
        log_ = test::linesOf(text.error);
    }
    void drainOnce() {
        drain();
        finish();
    }

    BackendParts parts_;
    InboundDelivery delivery_{parts_.forDelivery()};
    std::vector<std::string> delivered_;
    std::string output_;
    std::vector<std::string> log_;
};

/// The real file system, where the first listing comes in portions: it does not show "b.json", which was
/// written before "c.json", and while it is under way "d.json" is written.
class PortionedListing final : public test::ForwardingFileManager {
  public:
    explicit PortionedListing(BackendParts& parts) : ForwardingFileManager(parts.files), parts_(parts) {}

    std::unique_ptr<Directory> openDirectory(const std::string& path) override {
        return std::make_unique<Portioned>(ForwardingFileManager::openDirectory(path), *this);
    }

  private:
    class Portioned final : public test::ForwardingDirectory {
      public:
        Portioned(std::unique_ptr<Directory> next, PortionedListing& files)
            : ForwardingDirectory(std::move(next)), files_(files) {}

        DirectoryListing list() override {
            auto listing = ForwardingDirectory::list();
            if (files_.listed_++ > 0) return listing;
            std::erase_if(listing.visibleEntries, [](const auto& each) { return each.name == "b.json"; });
            listing.isSnapshot = false;
            files_.parts_.putInbound("d.json", inboundRecord("4").dump());
            return listing;
        }

      private:
        PortionedListing& files_;
    };

    BackendParts& parts_;
    int listed_ = 0;
};

TEST_F(InboundDeliveryTests, NoLaterMessageIsDeliveredBeforeAnEarlierOneWhileOthersArrive) {
    for (const auto& [name, messageId] : {std::pair("a.json", "1"), {"b.json", "2"}, {"c.json", "3"}}) {
        put(name, inboundRecord(messageId));
    }
    PortionedListing files(parts_);
    InboundDelivery delivery(parts_.forDelivery(files));
    delivery.drainInboundDirectory();
    EXPECT_THAT(inbound(), ElementsAre("d.json"));
    delivery.drainInboundDirectory();
    finish();
    EXPECT_THAT(delivered_, ElementsAre("1", "2", "3", "4"));
}

TEST_F(InboundDeliveryTests, DeliversInOrderOfFileNames) {
    put("b.json", inboundRecord("1"));
    put("a.json", inboundRecord("2"));
    put("B.json", inboundRecord("3"));
    put("10.json", inboundRecord("4"));
    put("9.json", inboundRecord("5"));
    drainOnce();
    EXPECT_THAT(delivered_, ElementsAre("4", "5", "3", "2", "1"));
    EXPECT_THAT(processed(), ElementsAre("10.json", "9.json", "B.json", "a.json", "b.json"));
    EXPECT_THAT(inbound(), IsEmpty());
    EXPECT_THAT(log_, IsEmpty());
}

TEST_F(InboundDeliveryTests, EventCarriesTheWholeRecord) {
    put("a.json", inboundRecord("m/1"));
    drainOnce();
    EXPECT_EQ(output_,
              R"({"inboundEvent":{"_0":{"event":{"conversationId":"room","conversationTitle":"Room",)"
              R"("isDirectMessage":false,"messageId":"m\/1","rawReference":"raw-m\/1",)"
              R"("senderDisplayName":"Sam","senderId":"s-1","text":"Hello",)"
              R"("timestampISO8601":"2026-01-05T09:00:00Z"}}}})"
              "\n");
}

TEST_F(InboundDeliveryTests, EventSaysOfADirectMessageThatItIsOne) {
    auto record = inboundRecord("1");
    record["isDirectMessage"] = true;
    put("a.json", record);
    drainOnce();
    EXPECT_EQ(inboundEventsIn(output_).at(0)["isDirectMessage"], true);
}

TEST_F(InboundDeliveryTests, SuppliesWhatTheRecordLeavesOut) {
    auto record = inboundRecord("");
    record.erase("messageId");
    record.erase("timestampISO8601");
    record.erase("rawReference");
    put("m1.json", record);
    drainOnce();
    const auto event = inboundEventsIn(output_).at(0);
    EXPECT_TRUE(test::isCanonicalUuid(event["messageId"].get<std::string>()));
    EXPECT_EQ(event["timestampISO8601"], "2026-01-05T09:30:00Z");
    EXPECT_EQ(event["rawReference"], "m1.json");
}

TEST_F(InboundDeliveryTests, NullCountsAsLeftOut) {
    auto record = inboundRecord("");
    record["messageId"] = nullptr;
    record["rawReference"] = nullptr;
    put("m1.json", record);
    drainOnce();
    const auto event = inboundEventsIn(output_).at(0);
    EXPECT_TRUE(test::isCanonicalUuid(event["messageId"].get<std::string>()));
    EXPECT_EQ(event["rawReference"], "m1.json");
}

TEST_F(InboundDeliveryTests, EmptyTextCountsAsPresent) {
    auto record = inboundRecord("");
    record["timestampISO8601"] = "";
    record["rawReference"] = "";
    put("m1.json", record);
    drainOnce();
    const auto event = inboundEventsIn(output_).at(0);
    EXPECT_EQ(event["messageId"], "");
    EXPECT_EQ(event["timestampISO8601"], "");
    EXPECT_EQ(event["rawReference"], "");
}

TEST_F(InboundDeliveryTests, LeavesOtherFilesAlone) {
    for (const std::string name :
         {"c.txt", "A.JSON", "json", "a.json.tmp", ".hidden.json", ".json", "b.Json"}) {
        put(name, inboundRecord("x"));
    }
    drainOnce();
    EXPECT_THAT(delivered_, IsEmpty());
    EXPECT_EQ(inbound().size(), 7U);
    EXPECT_THAT(log_, IsEmpty());
}

TEST_F(InboundDeliveryTests, LeavesUnmatchedRecordInPlaceWithoutAWord) {
    put("a.json", inboundRecord("1", "other", "Other"));
    put("b.json", inboundRecord("2"));
    drainOnce();
    EXPECT_THAT(delivered_, ElementsAre("2"));
    EXPECT_THAT(inbound(), ElementsAre("a.json"));
    EXPECT_THAT(log_, IsEmpty());
}

TEST_F(InboundDeliveryTests, UnmatchedRecordIsDeliveredOnceItsScopeIsActive) {
    put("a.json", inboundRecord("1", "other", "Other"));
    drain();
    parts_.state.setActiveScope(BridgeChannelScope{"other", "x"});
    drainOnce();
    EXPECT_THAT(delivered_, ElementsAre("1"));
    EXPECT_THAT(processed(), ElementsAre("a.json"));
}

TEST_F(InboundDeliveryTests, DeliversNothingWithoutAScope) {
    parts_.state.setActiveScope(std::nullopt);
    put("a.json", inboundRecord("1"));
    parts_.putInbound("b.json", "{");
    drainOnce();
    EXPECT_THAT(inbound(), ElementsAre("a.json", "b.json"));
    EXPECT_EQ(output_, "");
}

TEST_F(InboundDeliveryTests, DeliversNothingWhileDisconnected) {
    parts_.state.setConnected(false);
    put("a.json", inboundRecord("1"));
    parts_.putInbound("b.json", "{");
    drainOnce();
    EXPECT_THAT(inbound(), ElementsAre("a.json", "b.json"));
    EXPECT_EQ(output_, "");
}

TEST_F(InboundDeliveryTests, DeliversNothingDuringASelfTest) {
    parts_.state.setActiveScope(BridgeTestOnlyScope{"Room"});
    put("a.json", inboundRecord("1"));
    parts_.putInbound("b.json", "{");
    drainOnce();
    EXPECT_THAT(inbound(), ElementsAre("a.json", "b.json"));
    EXPECT_EQ(output_, "");
}

TEST_F(InboundDeliveryTests, RejectsWhatIsNoRecordAndGoesOn) {
    parts_.putInbound("a.json", "{\n");
    auto record = inboundRecord("2");
    record.erase("text");
    put("b.json", record);
    record = inboundRecord("3");
    record["isDirectMessage"] = "no";
    put("c.json", record);
    parts_.putInbound("d.json", "");
    put("e.json", inboundRecord("5"));
    drainOnce();
    EXPECT_THAT(delivered_, ElementsAre("5"));
    EXPECT_THAT(rejected(), ElementsAre("a.json", "b.json", "c.json", "d.json"));
    const std::string prefix = "[ManagedWhatsAppBackend] rejected inbound event at ";
    const std::string because = ": The data cannot be used because ";
    EXPECT_THAT(log_, ElementsAre(prefix + "a.json" + because + "it is not one valid JSON document.",
                                  prefix + "b.json" + because + "a required value is missing (at text).",
                                  prefix + "c.json" + because +
                                      "it has a string where true or false is expected (at isDirectMessage).",
                                  prefix + "d.json" + because + "it is not one valid JSON document."));
}

TEST_F(InboundDeliveryTests, RejectsWhatIsNoRegularFileWithoutWaiting) {
    const auto at = [&](const std::string& name) { return parts_.directory.inbound + "/" + name; };
    std::filesystem::create_directory(at("a.json"));
    ASSERT_EQ(::mkfifo(at("b.json").c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/zero", at("c.json"));
    std::filesystem::create_symlink("nowhere", at("d.json"));
    put("e.json", inboundRecord("5"));
    drainOnce();
    EXPECT_THAT(delivered_, ElementsAre("5"));
    EXPECT_THAT(rejected(), ElementsAre("a.json", "b.json", "c.json", "d.json"));
    EXPECT_THAT(inbound(), IsEmpty());
    EXPECT_EQ(log_.size(), 4U);
}

TEST_F(InboundDeliveryTests, NameOfARejectedFileIsLoggedOnOneLine) {
    parts_.putInbound("a\nb.json", "{");
    drainOnce();
    ASSERT_EQ(log_.size(), 1U);
    EXPECT_THAT(log_[0], StartsWith("[ManagedWhatsAppBackend] rejected inbound event at a?b.json: "));
    EXPECT_THAT(rejected(), ElementsAre("a\nb.json"));
}

TEST_F(InboundDeliveryTests, FileWhoseNameIsTakenIsStoredUnderAFreshPrefix) {
    test::writeFileAtomically(parts_.directory.processed + "/a.json", "earlier");
    test::writeFileAtomically(parts_.directory.rejected + "/b.json", "earlier");
    put("a.json", inboundRecord("1"));
    parts_.putInbound("b.json", "{");
    drainOnce();
    EXPECT_EQ(test::readFile(parts_.directory.processed + "/a.json"), "earlier");
    EXPECT_EQ(test::readFile(parts_.directory.rejected + "/b.json"), "earlier");
    for (const auto& [names, suffix] :
         {std::pair(processed(), "-a.json"), std::pair(rejected(), "-b.json")}) {
        ASSERT_EQ(names.size(), 2U);
        const auto& fresh = names[0].size() > names[1].size() ? names[0] : names[1];
        EXPECT_TRUE(fresh.ends_with(suffix));
        EXPECT_TRUE(test::isCanonicalUuid(fresh.substr(0, fresh.size() - std::string_view(suffix).size())));
    }
    EXPECT_THAT(delivered_, ElementsAre("1"));
}

TEST_F(InboundDeliveryTests, DeliveredFileThatCannotBeFiledAwayIsRejected) {
    std::filesystem::remove(parts_.directory.processed);
    put("a.json", inboundRecord("1"));
    put("b.json", inboundRecord("2"));
    drainOnce();
    EXPECT_THAT(delivered_, ElementsAre("1", "2"));
    EXPECT_THAT(rejected(), ElementsAre("a.json", "b.json"));
    ASSERT_EQ(log_.size(), 2U);
    EXPECT_THAT(log_[0],
                StartsWith("[ManagedWhatsAppBackend] rejected inbound event at a.json: Cannot move"));
}

TEST_F(InboundDeliveryTests, DrainStopsAtAFileThatCannotBeRejected) {
    std::filesystem::remove(parts_.directory.rejected);
    put("a.json", inboundRecord("1"));
    parts_.putInbound("b.json", "{");
    put("c.json", inboundRecord("3"));
    drainOnce();
    EXPECT_THAT(delivered_, ElementsAre("1"));
    EXPECT_THAT(inbound(), ElementsAre("b.json", "c.json"));
    ASSERT_EQ(log_.size(), 2U);
    EXPECT_THAT(log_[0], StartsWith("[ManagedWhatsAppBackend] rejected inbound event at b.json: "));
    EXPECT_THAT(log_[1],
                StartsWith("[ManagedWhatsAppBackend] failed to drain inbound directory: Cannot move"));
}

/// The real file system, where another "inbound" takes the place of the one that is looked at, with a message
/// under the name of the file that is read.
class ReplacedWhileRead final : public test::ForwardingFileManager {
  public:
    explicit ReplacedWhileRead(BackendParts& parts) : ForwardingFileManager(parts.files), parts_(parts) {}

    std::unique_ptr<Directory> openDirectory(const std::string& path) override {
        return std::make_unique<Replaced>(ForwardingFileManager::openDirectory(path), parts_);
    }

  private:
    class Replaced final : public test::ForwardingDirectory {
      public:
        Replaced(std::unique_ptr<Directory> next, BackendParts& parts)
            : ForwardingDirectory(std::move(next)), parts_(parts) {}

        FileAttributes readFile(const DirectoryEntry& entry, std::string& content) override {
            auto attributes = ForwardingDirectory::readFile(entry, content);
            const auto& inbound = parts_.directory.inbound;
            std::filesystem::rename(inbound, inbound + "-old");
            std::filesystem::create_directory(inbound);
            parts_.putInbound(entry.name, inboundRecord("1").dump());
            return attributes;
        }

      private:
        BackendParts& parts_;
    };

    BackendParts& parts_;
};

TEST_F(InboundDeliveryTests, WhatIsRejectedIsTheFileThatWasReadThoughAnotherHasItsNameByNow) {
    parts_.putInbound("a.json", "{");
    ReplacedWhileRead files(parts_);
    InboundDelivery(parts_.forDelivery(files)).drainInboundDirectory();
    EXPECT_EQ(test::readFile(parts_.directory.rejected + "/a.json"), "{");
    drainOnce();
    EXPECT_THAT(delivered_, ElementsAre("1"));
    EXPECT_THAT(rejected(), ElementsAre("a.json"));
}

TEST_F(InboundDeliveryTests, DirectoryThatCannotBeListedIsLoggedAtEveryDrain) {
    std::filesystem::remove(parts_.directory.inbound);
    drain();
    drainOnce();
    const auto line = "[ManagedWhatsAppBackend] failed to drain inbound directory: Cannot list \"" +
                      parts_.directory.inbound + "\": No such file or directory.";
    EXPECT_THAT(log_, ElementsAre(line, line));
}

TEST_F(InboundDeliveryTests, DirectoryThatComesBackIsDrainedAgain) {
    std::filesystem::remove(parts_.directory.inbound);
    drain();
    std::filesystem::create_directory(parts_.directory.inbound);
    put("a.json", inboundRecord("1"));
    drainOnce();
    EXPECT_THAT(delivered_, ElementsAre("1"));
}

TEST_F(InboundDeliveryTests, ProcessedFileHasTheWorkersContent) {
    const auto content = inboundRecord("1").dump(4);
    parts_.putInbound("a.json", content);
    drainOnce();
    EXPECT_EQ(test::readFile(parts_.directory.processed + "/a.json"), content);
}

TEST_F(InboundDeliveryTests, RecordStaysForTheNextBackendWhenNobodyReads) {
    put("a.json", inboundRecord("1"));
    const auto unread = test::makePipe();
    test::fill(unread.writing);
    DepartureWatch watch;
    watch.abandonOutput();
    ManagedWhatsAppBackendEmitter emitter(unread.writing.get(), parts_.streams.error(), watch);
    InboundDelivery({.directory = parts_.directory,
                     .fileManager = parts_.files,
                     .clock = parts_.clock,
                     .state = parts_.state,
                     .emitter = emitter,
                     .departureWatch = watch,
                     .log = parts_.log,
                     .queue = parts_.queue})
        .drainInboundDirectory();
    EXPECT_THAT(inbound(), ElementsAre("a.json"));
    EXPECT_THAT(rejected(), IsEmpty());
    // It may still watch the pipe for room.
    parts_.queue.stop(std::chrono::milliseconds{0});
    parts_.queue.join();
}

TEST_F(InboundDeliveryTests, ConcurrentDrainsDeliverALongBacklogOnceAndInOrder) {
    constexpr int backlog = 600;
    std::vector<std::string> expected;
    for (int i = 0; i < backlog; ++i) {
        const auto id = std::to_string(100'000 + i);
        put(id + ".json", inboundRecord(id));
        expected.push_back(id);
    }
    std::thread poller([&] {
        while (!namesIn(parts_.directory.inbound).empty()) delivery_.drainUnlessUnderWay();
    });
    while (!namesIn(parts_.directory.inbound).empty()) delivery_.drainInboundDirectory();
    poller.join();
    finish();
    EXPECT_EQ(delivered_, expected);
    EXPECT_EQ(processed().size(), expected.size());
    EXPECT_THAT(rejected(), IsEmpty());
    EXPECT_THAT(log_, IsEmpty());
}

/// The real file system, where the first opening of a directory lets something happen meanwhile.
class BusyOpening final : public test::ForwardingFileManager {
  public:
    using ForwardingFileManager::ForwardingFileManager;

    std::unique_ptr<Directory> openDirectory(const std::string& path) override {
        if (const auto event = std::exchange(meanwhile, nullptr)) event();
        return ForwardingFileManager::openDirectory(path);
    }

    std::function<void()> meanwhile;
};

TEST_F(InboundDeliveryTests, WhoeverIsToldOfARecordLeavesItToTheDrainThatIsUnderWay) {
    put("a.json", inboundRecord("1"));
    BusyOpening files(parts_.files);
    InboundDelivery delivery(parts_.forDelivery(files));
    std::size_t waiting = 0;
    files.meanwhile = [&] {
        std::thread([&] {
            delivery.drainWhatHasChanged();
            delivery.drainUnlessUnderWay();
        }).join();
        waiting = inbound().size();
    };
    delivery.drainInboundDirectory();
    finish();
    EXPECT_EQ(waiting, 1U);
    EXPECT_THAT(delivered_, ElementsAre("1"));
}

TEST_F(InboundDeliveryTests, PollerDeliversWhenNoDrainIsUnderWay) {
    put("a.json", inboundRecord("1"));
    delivery_.drainUnlessUnderWay();
    finish();
    EXPECT_THAT(delivered_, ElementsAre("1"));
}

TEST_F(InboundDeliveryTests, NothingIsDeliveredAfterStop) {
    put("a.json", inboundRecord("1"));
    delivery_.stop();
    drainOnce();
    EXPECT_THAT(delivered_, IsEmpty());
    EXPECT_THAT(inbound(), ElementsAre("a.json"));
}

/// A delivery to a pipe, whose reader is the test.
class PipedDeliveryTests : public testing::Test {
  protected:
    PipedDeliveryTests() {
        parts_.state.setConnected(true);
        parts_.state.setActiveScope(BridgeConversationScope{"room", "Room"});
        watch_.addSign(sign_.reading.get(), false);
    }
    void SetUp() override { handler_ = ::signal(SIGPIPE, SIG_IGN); }
    void TearDown() override {
        watch_.abandonOutput();
        parts_.queue.stop(std::chrono::milliseconds{0});
        parts_.queue.join();
        ::signal(SIGPIPE, handler_);
    }

    void put(const std::string& id, const std::string& text = "Hello") {
        auto record = inboundRecord(id);
        record["text"] = text;
        parts_.putInbound(id + ".json", record.dump());
    }
    /// Identifiers that ascend as text.
    std::vector<std::string> putBacklog(int count) {
        std::vector<std::string> ids;
        for (int i = 0; i < count; ++i) {
            ids.push_back(std::to_string(100'000 + i));
            put(ids.back());
        }
        return ids;
    }
    std::vector<std::string> inbound() const { return namesIn(parts_.directory.inbound); }
    std::vector<std::string> processed() const { return namesIn(parts_.directory.processed); }
    std::vector<std::string> rejected() const { return namesIn(parts_.directory.rejected); }
    std::string log() const { return parts_.streams.text().error; }
    /// Reads until so many messages have come, and answers their identifiers.
    std::vector<std::string> read(std::size_t count) {
        while (static_cast<std::size_t>(std::count(received_.begin(), received_.end(), '\n')) < count)
            received_ += test::readSome(output_.reading);
        std::vector<std::string> ids;
        for (const auto& event : inboundEventsIn(received_)) ids.push_back(event["messageId"]);
        return ids;
    }
    /// What lies in the pipe.
    std::size_t unreadBytes() const {
        int count = 0;
        EXPECT_EQ(::ioctl(output_.reading.get(), FIONREAD, &count), 0);
        return static_cast<std::size_t>(count);
    }
    /// Reads exactly so many bytes, and forgets them.
    void takeUnread(std::size_t bytes) const {
        std::string text(bytes, '\0');
        for (std::size_t got = 0; got < bytes;) {
            const auto count = ::read(output_.reading.get(), text.data() + got, bytes - got);
            ASSERT_GT(count, 0);
            got += static_cast<std::size_t>(count);
        }
    }
    /// As one beat of the poller.
    void beat() { delivery_.drainUnlessUnderWay(); }

    BackendParts parts_;
    test::PipeEnds output_ = test::makePipe();
    test::PipeEnds sign_ = test::makePipe();
    DepartureWatch watch_;
    ManagedWhatsAppBackendEmitter emitter_{output_.writing.get(), parts_.streams.error(), watch_};
    DiagnosticLog log_{emitter_};
    InboundDelivery delivery_{{.directory = parts_.directory,
                               .fileManager = parts_.files,
                               .clock = parts_.clock,
                               .state = parts_.state,
                               .emitter = emitter_,
                               .departureWatch = watch_,
                               .log = log_,
                               .queue = parts_.queue}};
    std::string received_;

  private:
    sighandler_t handler_ = nullptr;
};

TEST_F(PipedDeliveryTests, GoesOnAsSoonAsTheParentReadsWithoutAnyBeat) {
    const auto ids = putBacklog(1000);
    delivery_.drainInboundDirectory();
    EXPECT_GT(inbound().size(), 0U) << "a pipe does not hold them all";
    EXPECT_EQ(read(ids.size()), ids);
    test::waitUntil([&] { return processed().size() == ids.size(); }, "all of them to be filed away");
    EXPECT_THAT(rejected(), IsEmpty());
}

TEST_F(PipedDeliveryTests, BeginsNoRecordWhileTheParentTakesNothing) {
    test::fill(output_.writing);
    put("a");
    delivery_.drainInboundDirectory();
    beat();
    EXPECT_EQ(emitter_.output().written(), 0U);
    // One that had begun would come first.
    parts_.state.setActiveScope(BridgeConversationScope{"other", "Other"});
    parts_.putInbound("b.json", inboundRecord("b", "other", "Other").dump());
    delivery_.drainInboundDirectory();
    takeUnread(unreadBytes());
    EXPECT_THAT(read(1), ElementsAre("b"));
    EXPECT_THAT(inbound(), testing::Contains("a.json"));
}

TEST_F(PipedDeliveryTests, RecordStaysUntilItsWholeLineIsWritten) {
    put("a", std::string(300'000, 'x'));
    put("b");
    delivery_.drainInboundDirectory();
    beat();
    EXPECT_GT(emitter_.output().written(), 0U);
    EXPECT_THAT(inbound(), ElementsAre("a.json", "b.json"));
    EXPECT_THAT(read(2), ElementsAre("a", "b"));
    test::waitUntil([&] { return processed().size() == 2; }, "both to be filed away");
}

TEST_F(PipedDeliveryTests, LineThatHasBegunIsFinishedThoughNobodyListensAnyMore) {
    put("a", std::string(300'000, 'x'));
    put("b");
    delivery_.drainInboundDirectory();
    parts_.state.setActiveScope(std::nullopt);
    EXPECT_THAT(read(1), ElementsAre("a"));
    test::waitUntil([&] { return processed().size() == 1; }, "the message to be filed away");
    EXPECT_THAT(inbound(), ElementsAre("b.json"));
}

TEST_F(PipedDeliveryTests, WhatWaitsFollowsTheScopeThatIsActiveThen) {
    put("a", std::string(300'000, 'x'));
    put("b");
    auto other = inboundRecord("c", "other", "Other");
    parts_.putInbound("c.json", other.dump());
    delivery_.drainInboundDirectory();
    parts_.state.setActiveScope(BridgeConversationScope{"other", "Other"});
    delivery_.drainInboundDirectory();
    EXPECT_THAT(read(2), ElementsAre("a", "c"));
    EXPECT_THAT(inbound(), testing::Contains("b.json"));
}

/// A clock that counts how often somebody asks it.
class AskedClock final : public Clock {
  public:
    std::chrono::system_clock::time_point now() const override { return test::TestClock::start; }
    std::chrono::nanoseconds sinceBoot() const override {
        ++asked;
        return test::TestClock::boot_time_at_start;
    }
    void sleep(std::chrono::milliseconds /*duration*/) const override {}

    mutable std::atomic<int> asked = 0;
};

TEST_F(PipedDeliveryTests, DoesNothingWhileTheParentTakesNothing) {
    AskedClock clock;
    InboundDelivery delivery({.directory = parts_.directory,
                              .fileManager = parts_.files,
                              .clock = clock,
                              .state = parts_.state,
                              .emitter = emitter_,
                              .departureWatch = watch_,
                              .log = log_,
                              .queue = parts_.queue});
    test::fill(output_.writing);
    put("a");
    delivery.drainInboundDirectory();
    const int before = clock.asked;
    // Each round lets the queue do what is due, such as another turn.
    for (int round = 0; round < 20; ++round) {
        std::promise<void> done;
        parts_.queue.post([&] { done.set_value(); });
        done.get_future().wait();
    }
    EXPECT_EQ(clock.asked, before);
    parts_.queue.stop(std::chrono::milliseconds{0});
    parts_.queue.join();
}

TEST_F(PipedDeliveryTests, RequestWhileALookIsHeldUpListsWhatWaitsAnew) {
    test::fill(output_.writing);
    put("b");
    delivery_.drainInboundDirectory();
    put("a");
    delivery_.drainInboundDirectory();
    takeUnread(unreadBytes());
    ASSERT_THAT(read(1), testing::Contains("a"));
    EXPECT_THAT(read(2), ElementsAre("a", "b"));
    test::waitUntil([&] { return processed().size() == 2; }, "both to be filed away");
}

TEST_F(PipedDeliveryTests, EndOfTheInputLetsAParentThatReadsHaveTheRest) {
    const auto ids = putBacklog(1000);
    delivery_.drainInboundDirectory();
    std::vector<std::string> got;
    std::thread reader([&] { got = read(ids.size()); });
    delivery_.completeWhatIsUnderWay();
    reader.join();
    EXPECT_EQ(got, ids);
    EXPECT_EQ(processed().size(), ids.size());
}

TEST_F(PipedDeliveryTests, EndOfTheInputDoesNotWaitForAParentThatDoesNotRead) {
    putBacklog(1000);
    delivery_.drainInboundDirectory();
    const auto waiting = inbound();
    watch_.abandonOutput();
    delivery_.completeWhatIsUnderWay();
    EXPECT_EQ(inbound(), waiting);
}

TEST_F(PipedDeliveryTests, ParentThatGoesLosesNoMessage) {
    const auto ids = putBacklog(1000);
    delivery_.drainInboundDirectory();
    const auto read = this->read(100);
    output_.reading.reset();
    sign_.writing.reset();
    const auto unread = ids.size() - read.size();
    test::waitUntil(
        [&] {
            beat();
            return inbound().size() == unread && processed().size() == read.size();
        },
        "what was not read to be back");
    EXPECT_THAT(rejected(), IsEmpty());
    EXPECT_EQ(inbound().front(), ids[read.size()] + ".json");
    // As at the end of the process; nothing goes back twice.
    delivery_.putBackWhatWasNotRead();
    EXPECT_EQ(inbound().size(), unread);
    EXPECT_EQ(log(), "");
}

TEST_F(PipedDeliveryTests, SignThatComesWithinASecondStillCounts) {
    put("a");
    output_.reading.reset();
    beat();
    beat();
    sign_.writing.reset();
    beat();
    beat();
    EXPECT_THAT(inbound(), ElementsAre("a.json"));
    EXPECT_THAT(rejected(), IsEmpty());
    EXPECT_EQ(log(), "");
}

TEST_F(PipedDeliveryTests, WithoutASignTheMessageAtHandIsRejectedAndNoOtherBegun) {
    put("a");
    put("b");
    output_.reading.reset();
    delivery_.drainInboundDirectory();
    EXPECT_THAT(inbound(), ElementsAre("a.json", "b.json")) << "a sign may still come";
    for (int i = 0; i < 5; ++i) beat();
    delivery_.drainInboundDirectory();
    EXPECT_THAT(rejected(), ElementsAre("a.json"));
    EXPECT_THAT(inbound(), ElementsAre("b.json"));
    EXPECT_EQ(
        log(),
        "[ManagedWhatsAppBackend] rejected inbound event at a.json: Cannot write to \"standard output\": "
        "Broken pipe.\n");
}

TEST_F(PipedDeliveryTests, HalfALineThatNobodyTakesIsRejectedWithoutASignAndNoOtherBegun) {
    put("a", std::string(300'000, 'x'));
    put("b");
    delivery_.drainInboundDirectory();
    ASSERT_GT(emitter_.output().written(), 0U);
    output_.reading.reset();
    for (int i = 0; i < 5; ++i) beat();
    EXPECT_THAT(rejected(), ElementsAre("a.json"));
    EXPECT_THAT(inbound(), ElementsAre("b.json"));
    EXPECT_EQ(
        log(),
        "[ManagedWhatsAppBackend] rejected inbound event at a.json: Cannot write to \"standard output\": "
        "Broken pipe.\n");
}

TEST_F(PipedDeliveryTests, HalfALineOfAParentThatGoesIsNoMessage) {
    put("a", std::string(300'000, 'x'));
    delivery_.drainInboundDirectory();
    sign_.writing.reset();
    output_.reading.reset();
    beat();
    EXPECT_THAT(inbound(), ElementsAre("a.json"));
}

TEST_F(PipedDeliveryTests, MessageThatWasReadDoesNotComeBackWithTheOthers) {
    put("a");
    delivery_.drainInboundDirectory();
    const auto first = unreadBytes();
    put("b");
    delivery_.drainInboundDirectory();
    takeUnread(first);
    put("c");
    sign_.writing.reset();
    output_.reading.reset();
    beat();
    EXPECT_THAT(processed(), ElementsAre("a.json"));
    EXPECT_THAT(inbound(), ElementsAre("b.json", "c.json"));
}

TEST_F(PipedDeliveryTests, WhatAParentHasNotReadGoesBackAtTheEnd) {
    put("a");
    put("b");
    put("c");
    delivery_.drainInboundDirectory();
    EXPECT_THAT(processed(), ElementsAre("a.json", "b.json", "c.json"));
    std::string first(encodedLine(BridgeErrorEvent{""}).size(), '\0');
    ASSERT_GT(::read(output_.reading.get(), first.data(), first.size()), 0) << "a part of the first line";
    output_.reading.reset();
    delivery_.putBackWhatWasNotRead();
    EXPECT_THAT(inbound(), ElementsAre("a.json", "b.json", "c.json"));
}

TEST_F(PipedDeliveryTests, MessageThatWasNotReadMayGoBack) {
    put("a");
    delivery_.drainInboundDirectory();
    EXPECT_TRUE(delivery_.mayGoBack(parts_.directory.processed + "/a.json"));
    EXPECT_FALSE(delivery_.mayGoBack(parts_.directory.processed + "/aa.json"));
    EXPECT_FALSE(delivery_.mayGoBack(parts_.directory.rejected + "/a.json"));
    takeUnread(unreadBytes());
    EXPECT_FALSE(delivery_.mayGoBack(parts_.directory.processed + "/a.json"));
}

TEST_F(PipedDeliveryTests, WhatAParentMayStillReadStaysDelivered) {
    put("a");
    delivery_.drainInboundDirectory();
    delivery_.putBackWhatWasNotRead();
    EXPECT_THAT(processed(), ElementsAre("a.json"));
}

TEST_F(PipedDeliveryTests, NothingIsDeliveredAfterWhatWasNotReadIsBack) {
    delivery_.putBackWhatWasNotRead();
    put("a");
    delivery_.drainInboundDirectory();
    EXPECT_THAT(inbound(), ElementsAre("a.json"));
    EXPECT_EQ(unreadBytes(), 0U);
}

std::size_t bytesInUse() {
    return ::mallinfo2().uordblks;
}

TEST_F(PipedDeliveryTests, MessagesThatWereReadAreNotKeptInMind) {
    constexpr int messages = 300;
    // Long enough to be seen in what the process takes.
    const std::string id(200, 'a');
    const auto deliverOne = [&] {
        put(id);
        delivery_.drainInboundDirectory();
        takeUnread(unreadBytes());
    };
    deliverOne();
    const auto before = bytesInUse();
    if (before == 0) GTEST_SKIP() << "this allocator does not tell how much memory is in use";
    for (int i = 0; i < messages; ++i) deliverOne();
    EXPECT_EQ(processed().size(), messages + 1U);
    EXPECT_LT(bytesInUse(), before + messages * id.size());
}

TEST_F(PipedDeliveryTests, MessageThatCannotGoBackIsLogged) {
    put("a");
    delivery_.drainInboundDirectory();
    output_.reading.reset();
    parts_.files.set({.operation = 1,
                      .persistence = test::FaultInjectingFileManager::Persistence::fromThenOn,
                      .code = EIO});
    delivery_.putBackWhatWasNotRead();
    parts_.files.clear();
    EXPECT_THAT(processed(), ElementsAre("a.json"));
    EXPECT_THAT(log(),
                StartsWith("[ManagedWhatsAppBackend] failed to put back unread inbound event at a.json: "));
}

/// Delivers two records while the Nth piece of memory is refused; false when so many were not asked for.
bool deliverWithout(int allocation, WantOfMemory::Persistence persistence) {
    BackendParts parts;
    parts.state.setConnected(true);
    parts.state.setActiveScope(BridgeConversationScope{"room", "Room"});
    parts.putInbound("good.json", inboundRecord("1").dump());
    parts.putInbound("wrong.json", "no record");
    InboundDelivery delivery(parts.forDelivery());
    WantOfMemory want(allocation, persistence);
    delivery.drainInboundDirectory();
    const bool wasMet = want.end();
    const auto& directory = parts.directory;
    EXPECT_EQ(namesIn(directory.inbound).size() + namesIn(directory.processed).size() +
                  namesIn(directory.rejected).size(),
              2U);
    return wasMet;
}

TEST(InboundDeliveryMemoryTests, WantOfMemoryLosesNoRecord) {
    for (const auto persistence : {WantOfMemory::Persistence::once, WantOfMemory::Persistence::fromThenOn}) {
        int allocation = 1;
        while (deliverWithout(allocation, persistence)) ++allocation;
        EXPECT_GT(allocation, 10);
    }
}

}  // namespace
}  // namespace brindle

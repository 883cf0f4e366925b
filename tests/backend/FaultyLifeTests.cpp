#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "backend/ManagedWhatsAppBackendService.h"
#include "exchange/EnvironmentKeys.h"
#include "support/BackendParts.h"
#include "support/FaultInjectingFileManager.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/MemoryStreams.h"
#include "support/Pipes.h"
#include "support/QuickFileManager.h"
#include "support/Requests.h"
#include "support/TemporaryDirectory.h"
#include "support/TestClock.h"
#include "support/TextForms.h"
#include "system/FileSystemFailure.h"

/// Every file operation of a whole life of the backend fails once, and from then on: it starts, clears up
/// behind an earlier worker, starts its own, delivers, sends and ends, and keeps its promises each time.
namespace brindle {
namespace {

using test::FaultInjectingFileManager;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using LifeFault = FaultInjectingFileManager::Fault;
using LifeStage = FaultInjectingFileManager::Stage;
using LifePersistence = FaultInjectingFileManager::Persistence;

constexpr int more_operations_than_any_life_has = 300;

/// A worker that has nothing to do.
constexpr auto idle_worker = "/bin/true";
/// No process has that number.
constexpr auto number_of_nobody = "4194304";

std::string requestsOfALife() {
    std::string lines;
    for (const auto& request :
         {test::connectRequest(), test::startListeningRequest(test::conversationScope("room", "Room")),
          test::sendMessageRequest({{"conversationId", "room"}, {"text", "1"}}),
          test::sendMessageRequest({{"conversationId", "room"}, {"text", "2"}}), test::stopListeningRequest(),
          test::disconnectRequest()}) {
        lines += request.dump() + "\n";
    }
    return lines;
}

/// What a life said.
struct Said {
    bool hasStarted = false;
    std::vector<std::string> replies;
    std::vector<std::string> events;
    std::vector<std::string> errors;
    std::vector<std::string> log;
};

class LivedIn {
  public:
    LivedIn() {
        directory.createForBackend(real_);
        put("m1", test::inboundRecord("m1").dump());
        put("m2", "{");
        put("m3", test::inboundRecord("m3").dump());
        put("m4", test::inboundRecord("m4", "other", "Other").dump());
        test::writeFileAtomically(directory.workerPIDFile, number_of_nobody);
        test::writeFileAtomically(directory.workerStatusFile, "{}");
        test::writeFileAtomically(directory.workerQRCodeFile, "picture");
    }

    Said live(FileManager& files) {
        Said said;
        const test::MemoryStreams streams;
        const auto input = test::memoryFileWith(requestsOfALife());
        try {
            BridgeChannel channel(
                {.input = input.get(), .output = streams.output(), .error = streams.error()});
            ManagedWhatsAppBackendService service("whatsapp", environment_, files, clock_, channel,
                                                  ::getppid());
            said.hasStarted = true;
            service.run();
        } catch (const FileSystemFailure&) {
            EXPECT_FALSE(said.hasStarted) << "only a start may fail";
        }
        hear(streams.text(), said);
        return said;
    }
    std::vector<std::string> outboundTexts() const {
        std::vector<std::string> texts;
        for (const auto& name : test::visibleNamesIn(directory.outbound))
            texts.push_back(test::readJsonFile(directory.outbound + "/" + name)["text"]);
        return texts;
    }
    /// "inbound", "processed" or "rejected"; "" when the message is lost or doubled.
    std::string placeOf(const std::string& message) const {
        std::vector<std::string> places;
        for (const std::string place : {"inbound", "processed", "rejected"}) {
            for (const auto& file : test::visibleNamesIn(directory.path + "/" + place)) {
                if (file.ends_with(message + ".json")) places.push_back(place);
            }
        }
        return places.size() == 1 ? places[0] : "";
    }

  private:
    void put(const std::string& message, const std::string& content) const {
        test::writeFileAtomically(directory.inbound + "/" + message + ".json", content);
    }
    static void hear(const test::MemoryStreams::Text& text, Said& said) {
        for (const auto& line : test::linesOf(text.output)) {
            const auto envelope = test::Json::parse(line);
            if (envelope.contains("inboundEvent")) {
                said.events.push_back(envelope["inboundEvent"]["_0"]["event"]["messageId"]);
            } else if (envelope.contains("error")) {
                said.errors.push_back(envelope["error"]["_0"]["message"]);
            } else {
                said.replies.push_back(line);
            }
        }
        said.log = test::linesOf(text.error);
    }

    test::TemporaryDirectory home_{test::TemporaryDirectory::Place::memory};
    test::QuickFileManager real_;
    test::TestClock clock_;
    Environment environment_{{std::string(environment_key::data_directory), (home_.path() / "data").string()},
                             {std::string(environment_key::worker_path), idle_worker}};

  public:
    DataDirectory directory{environment_, real_, "whatsapp"};
};

/// A life with one fault in it.
struct FaultyLife : LivedIn {
    explicit FaultyLife(const LifeFault& fault) {
        FaultInjectingFileManager files;
        files.set(fault);
        said = live(files);
        failures = files.failures();
    }
    bool isLoggedAsRefused(const std::string& message) const {
        return std::any_of(said.log.begin(), said.log.end(), [&](const std::string& line) {
            return line.find("rejected inbound event at " + message + ".json: ") != std::string::npos;
        });
    }
    int timesDelivered(const std::string& message) const {
        return static_cast<int>(std::count(said.events.begin(), said.events.end(), message));
    }

    Said said;
    std::vector<std::string> failures;
};

class FaultyLifeTests : public testing::TestWithParam<std::tuple<LifePersistence, LifeStage>> {
  protected:
    static void forEveryOperation(const std::function<void(FaultyLife& life)>& expectations) {
        int operation = 0;
        bool wasMet = true;
        while (wasMet && operation < more_operations_than_any_life_has) {
            SCOPED_TRACE("operation " + std::to_string(++operation));
            FaultyLife life({.operation = operation,
                             .persistence = std::get<0>(GetParam()),
                             .code = ENOSPC,
                             .stage = std::get<1>(GetParam())});
            wasMet = !life.failures.empty();
            expectations(life);
        }
        EXPECT_GT(operation, 15);
        EXPECT_FALSE(wasMet);
    }
};

INSTANTIATE_TEST_SUITE_P(
    Faults, FaultyLifeTests,
    testing::Combine(testing::Values(LifePersistence::once, LifePersistence::fromThenOn),
                     testing::Values(LifeStage::beforeAnyEffect, LifeStage::afterTemporaryFile)),
    [](const auto& each) {
        return std::string(std::get<0>(each.param) == LifePersistence::once ? "Once" : "FromThenOn") +
               (std::get<1>(each.param) == LifeStage::beforeAnyEffect ? "" : "AtTheName");
    });

TEST_P(FaultyLifeTests, EveryRequestIsAnsweredUnlessADirectoryIsMissing) {
    forEveryOperation([](FaultyLife& life) {
        // One that cannot be made, or not be seen to be ours alone.
        const bool lacksDirectory =
            !life.failures.empty() &&
            (life.failures[0].starts_with("create the directory ") ||
             life.failures[0].starts_with("look at ") || life.failures[0].starts_with("follow the link "));
        EXPECT_EQ(life.said.hasStarted, !lacksDirectory);
        if (lacksDirectory) return;
        ASSERT_EQ(life.said.replies.size(), 5U);
        EXPECT_NE(life.said.replies[0].find("hello"), std::string::npos);
        EXPECT_EQ(life.said.replies[1], life.said.replies[4]);
        EXPECT_NE(life.said.replies[2].find("connecting"), std::string::npos);
        EXPECT_NE(life.said.replies[3].find("connected"), std::string::npos);
        // A message to send is on the disk, or refused.
        const auto texts = life.outboundTexts();
        EXPECT_EQ(texts.size() + life.said.errors.size(), 2U);
        EXPECT_TRUE(std::is_sorted(texts.begin(), texts.end()));
    });
}

TEST_P(FaultyLifeTests, NoMessageThatCameInIsLost) {
    forEveryOperation([](FaultyLife& life) {
        for (const std::string message : {"m1", "m2", "m3", "m4"}) {
            SCOPED_TRACE(message);
            const auto place = life.placeOf(message);
            EXPECT_THAT(place, AnyOf("inbound", "processed", "rejected"));
            if (place == "processed") {
                EXPECT_GT(life.timesDelivered(message), 0);
            }
            if (place == "rejected") {
                EXPECT_TRUE(life.isLoggedAsRefused(message));
            }
        }
        // Where nothing more can be moved, the poller may deliver a message again at its next look.
        EXPECT_EQ(life.timesDelivered("m2") + life.timesDelivered("m4"), 0);
    });
}

TEST_P(FaultyLifeTests, NextLifeIsLikeAnyOther) {
    forEveryOperation([](FaultyLife& life) {
        auto texts = life.outboundTexts();
        test::QuickFileManager files;
        const auto next = life.live(files);
        EXPECT_TRUE(next.hasStarted);
        EXPECT_THAT(next.errors, IsEmpty());
        texts.insert(texts.end(), {"1", "2"});
        EXPECT_EQ(life.outboundTexts(), texts);
        for (const std::string message : {"m1", "m3"}) EXPECT_NE(life.placeOf(message), "inbound") << message;
        for (const auto& event : next.events) EXPECT_EQ(life.placeOf(event), "processed") << event;
        EXPECT_THAT(test::visibleNamesIn(life.directory.runtime),
                    ElementsAre("runtime-status.json", "worker-control.json", "worker-processed-outbound",
                                "worker-rejected-outbound"));
        EXPECT_EQ(test::readJsonFile(life.directory.runtimeStatusFile)["connectionState"], "disconnected");
    });
}

}  // namespace
}  // namespace brindle

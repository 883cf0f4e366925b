#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "support/FaultInjectingFileManager.h"
#include "support/Files.h"
#include "support/RecordingFileManager.h"
#include "support/WorkerDay.h"
#include "support/WorkerParts.h"
#include "system/FileSystemFailure.h"

/// Every file operation of a worker's day fails once, and from then on; its promises hold each time.
namespace brindle {
namespace {

using test::WorkerDay;
using test::WorkerPlace;
using testing::AnyOf;
using testing::Contains;
using testing::IsEmpty;
using testing::StartsWith;
using DayFault = test::FaultInjectingFileManager::Fault;
using DayStage = test::FaultInjectingFileManager::Stage;
using test::FaultInjectingFileManager;
using Lasting = FaultInjectingFileManager::Persistence;

constexpr int more_operations_than_a_day_has = 500;

enum class FaultLasts { tillTheEnd, tillTheEvening };

/// A day with one fault in it, and what it left.
class FaultyDay {
  public:
    explicit FaultyDay(const DayFault& fault, FaultLasts lasts = FaultLasts::tillTheEnd) {
        faults_.set(fault);
        try {
            day_.emplace(place, files_, "Monday");
            if (lasts == FaultLasts::tillTheEvening) {
                day_->inTheEvening = [this] {
                    givenInTheDay = given().size();
                    faults_.clear();
                };
            }
            day_->spend();
        } catch (const FileSystemFailure&) {
            hasFailed = true;
        }
        failures = faults_.failures();
        faults_.clear();
    }

    bool exists(const std::string& path) const { return std::filesystem::exists(path); }
    bool hasFailedOn(const std::string& path) const {
        return std::any_of(failures.begin(), failures.end(),
                           [&](const auto& each) { return each.find(path) != std::string::npos; });
    }
    std::vector<std::string> given() const { return day_ ? day_->given() : std::vector<std::string>{}; }
    bool isForgotten() const { return day_ && day_->isForgotten(); }
    bool hasWorked() const { return day_ && day_->hasWorked(); }
    bool isLinkedAtTheEnd() const { return day_ && day_->isLinkedAtTheEnd(); }
    /// The last status that was published before the end.
    std::string lastStatus() const {
        return test::summaryOf(files_.contentsOf(place.directory.workerStatusFile).back());
    }
    /// Whether people could learn that messages were lost.
    bool hasToldOfLostMessages() const {
        auto statuses = files_.contentsOf(place.directory.workerStatusFile);
        statuses.insert(statuses.end(), day_->log().begin(), day_->log().end());
        return std::any_of(statuses.begin(), statuses.end(), [](const std::string& text) {
            return text.find("failed to poll inbound messages") != std::string::npos ||
                   text.starts_with("Failed to write worker status: ");
        });
    }

    WorkerPlace place;
    bool hasFailed = false;
    std::size_t givenInTheDay = 0;
    std::vector<std::string> failures;

  private:
    FaultInjectingFileManager faults_;
    test::RecordingFileManager files_{faults_};
    std::optional<WorkerDay> day_;
};

class WorkerFaultInjectionTests : public testing::TestWithParam<std::tuple<Lasting, DayStage>> {
  protected:
    /// Spends a day with the fault at the first operation, one with the second and so on, until none is met.
    static void forEveryOperation(const std::function<void(const FaultyDay& day)>& expectations,
                                  FaultLasts lasts = FaultLasts::tillTheEnd) {
        int operation = 0;
        bool wasMet = true;
        while (wasMet && operation < more_operations_than_a_day_has) {
            SCOPED_TRACE("operation " + std::to_string(++operation));
            const FaultyDay day({.operation = operation,
                                 .persistence = std::get<Lasting>(GetParam()),
                                 .code = ENOSPC,
                                 .stage = std::get<DayStage>(GetParam())},
                                lasts);
            wasMet = !day.failures.empty();
            expectations(day);
        }
        EXPECT_GT(operation, 20);
        EXPECT_FALSE(wasMet);
    }
};

INSTANTIATE_TEST_SUITE_P(Faults, WorkerFaultInjectionTests,
                         testing::Combine(testing::Values(Lasting::once, Lasting::fromThenOn),
                                          testing::Values(DayStage::beforeAnyEffect,
                                                          DayStage::afterTemporaryFile)),
                         [](const auto& each) {
                             return std::string(std::get<0>(each.param) == Lasting::once ? "Once"
                                                                                         : "FromThenOn") +
                                    (std::get<1>(each.param) == DayStage::beforeAnyEffect ? "" : "AtTheName");
                         });

TEST_P(WorkerFaultInjectionTests, OnlyADirectoryOrTheProcessIdentifierKeepsTheWorkerFromItsWork) {
    forEveryOperation([](const FaultyDay& day) {
        // A directory that cannot be made, or not be seen to be ours alone.
        const bool isEssential =
            !day.failures.empty() &&
            (day.failures[0].starts_with("create the directory ") ||
             day.failures[0].starts_with("look at ") || day.failures[0].starts_with("follow the link ") ||
             day.failures[0] == "write " + day.place.directory.workerPIDFile);
        EXPECT_EQ(day.hasFailed, isEssential);
        EXPECT_EQ(day.hasWorked(), !isEssential);
    });
}

TEST_P(WorkerFaultInjectionTests, NoMessageIsLostOrDoubledInSilence) {
    forEveryOperation([](const FaultyDay& day) {
        const auto given = day.given();
        const auto texts = day.place.texts();
        // In the page's order, none twice.
        auto rest = given.begin();
        for (const auto& text : texts) {
            rest = std::find(rest, given.end(), text);
            ASSERT_NE(rest, given.end()) << text;
            ++rest;
        }
        const auto lost = given.size() - texts.size();
        if (lost == 0) return;
        EXPECT_TRUE(day.hasFailedOn("write " + day.place.directory.inbound + "/"));
        EXPECT_TRUE(day.hasToldOfLostMessages());
        if (std::get<Lasting>(GetParam()) == Lasting::once) {
            // What was captured at one look.
            EXPECT_LE(lost, 2U);
        }
    });
}

TEST_P(WorkerFaultInjectionTests, RequestForAFreshLinkStandsUntilTheWebsiteDataAreGone) {
    forEveryOperation([](const FaultyDay& day) {
        const auto& flag = day.place.directory.freshLinkRequestFile;
        if (!day.exists(flag)) {
            EXPECT_TRUE(day.isForgotten());
        } else if (day.hasWorked()) {
            EXPECT_TRUE(day.hasFailedOn(flag));
        }
    });
}

TEST_P(WorkerFaultInjectionTests, FilesOfTheWorkerAreWholeAndGoAtTheEnd) {
    forEveryOperation([](const FaultyDay& day) {
        const auto& directory = day.place.directory;
        for (const auto& file :
             {directory.workerPIDFile, directory.workerStatusFile, directory.workerQRCodeFile}) {
            if (!day.exists(file)) continue;
            EXPECT_TRUE(day.hasFailedOn(file)) << file;
            const auto content = test::readFile(file);
            if (file == directory.workerPIDFile) {
                EXPECT_EQ(content, std::to_string(::getpid()));
            }
            if (file == directory.workerStatusFile) {
                EXPECT_TRUE(test::Json::parseIfPossible(content).has_value()) << content;
            }
            if (file == directory.workerQRCodeFile) {
                EXPECT_EQ(content, WorkerDay::picture);
            }
        }
    });
}

TEST_P(WorkerFaultInjectionTests, WorkGoesOnAsSoonAsTheFaultIsGone) {
    forEveryOperation(
        [](const FaultyDay& day) {
            if (day.hasFailed) return;
            EXPECT_TRUE(day.isLinkedAtTheEnd());
            EXPECT_THAT(day.lastStatus(), AnyOf(StartsWith("linked: "), StartsWith("watching_chat: ")));
            const auto given = day.given();
            EXPECT_GT(given.size(), day.givenInTheDay);
            const auto texts = day.place.texts();
            for (auto i = day.givenInTheDay; i < given.size(); ++i) EXPECT_THAT(texts, Contains(given[i]));
            EXPECT_FALSE(day.exists(day.place.directory.workerPIDFile));
        },
        FaultLasts::tillTheEvening);
}

TEST_P(WorkerFaultInjectionTests, NextDayIsLikeAnyOther) {
    forEveryOperation([](const FaultyDay& day) {
        auto texts = day.place.texts();
        test::QuickFileManager files;
        WorkerDay next(day.place, files, "Tuesday");
        EXPECT_NO_THROW(next.spend());
        EXPECT_TRUE(next.hasWorked());
        EXPECT_FALSE(next.given().empty());
        EXPECT_THAT(next.log(), IsEmpty());
        texts.insert(texts.end(), next.given().begin(), next.given().end());
        EXPECT_EQ(day.place.texts(), texts);
        EXPECT_THAT(test::visibleNamesIn(day.place.directory.runtime),
                    testing::UnorderedElementsAre("worker-control.json", "worker-processed-outbound",
                                                  "worker-rejected-outbound"));
    });
}

}  // namespace
}  // namespace brindle

#include "support/PowerLossFileManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "support/Files.h"
#include "support/Json.h"
#include "support/RecordingFileManager.h"
#include "support/WorkerDay.h"
#include "system/FileSystemFailure.h"

/// The power goes at every file operation of a worker's day, and whatever the disk has kept of what was not
/// flushed, the next start finds what the guarantees promise.
namespace brindle {
namespace {

using test::PowerLossFileManager;
using test::WorkerDay;
using test::WorkerPlace;
using testing::AnyOf;
using DayUnflushed = PowerLossFileManager::Unflushed;
using DayPowerStage = PowerLossFileManager::Stage;

constexpr int more_operations_than_a_dark_day_has = 500;

/// A day on which the power goes, and what the disk holds afterwards.
class DarkDay {
  public:
    DarkDay(int operation, DayPowerStage stage, DayUnflushed unflushed) {
        disk_.goAt(operation, stage);
        try {
            day_.emplace(place, files_, "Monday");
            day_->spend();
        } catch (const FileSystemFailure&) {
            // Nobody sees that any more.
        }
        wasMet = disk_.isGone();
        disk_.comeBack(unflushed);
    }

    /// The texts of the messages that were on the disk when the power went.
    std::vector<std::string> written() const {
        std::vector<std::string> texts;
        for (const auto& write : files_.writes()) {
            if (write.durability == Durability::disk)
                texts.push_back(test::Json::parse(write.content)["text"]);
        }
        return texts;
    }
    std::vector<std::string> given() const { return day_ ? day_->given() : std::vector<std::string>{}; }
    bool isForgotten() const { return day_ && day_->isForgotten(); }

    WorkerPlace place;
    bool wasMet = false;

  private:
    PowerLossFileManager disk_;
    test::RecordingFileManager files_{disk_};
    std::optional<WorkerDay> day_;
};

class WorkerPowerLossTests : public testing::TestWithParam<std::tuple<DayPowerStage, DayUnflushed>> {
  protected:
    static void forEveryOperation(const std::function<void(const DarkDay& day)>& expectations) {
        int operation = 0;
        bool wasMet = true;
        while (wasMet && operation < more_operations_than_a_dark_day_has) {
            SCOPED_TRACE("operation " + std::to_string(++operation));
            const DarkDay day(operation, std::get<0>(GetParam()), std::get<1>(GetParam()));
            wasMet = day.wasMet;
            expectations(day);
        }
        EXPECT_GT(operation, 20);
        EXPECT_FALSE(wasMet);
    }
};

std::string nameOfDarkDay(const testing::TestParamInfo<std::tuple<DayPowerStage, DayUnflushed>>& info) {
    return test::nameOf(std::get<0>(info.param)) + test::nameOf(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Losses, WorkerPowerLossTests,
                         testing::Combine(testing::ValuesIn(test::power_loss_stages),
                                          testing::ValuesIn(test::kinds_of_loss)),
                         nameOfDarkDay);

TEST_P(WorkerPowerLossTests, EveryCapturedMessageThatWasWrittenIsThereOnceInItsOrder) {
    forEveryOperation([](const DarkDay& day) {
        auto expected = day.written();
        const auto kept = day.place.texts();
        // One more may be there, whole.
        if (kept.size() > expected.size()) expected.push_back(day.given().at(expected.size()));
        EXPECT_EQ(kept, expected);
        test::QuickFileManager files;
        WorkerDay next(day.place, files, "Tuesday");
        next.spend();
        EXPECT_FALSE(next.given().empty());
        expected.insert(expected.end(), next.given().begin(), next.given().end());
        EXPECT_EQ(day.place.texts(), expected);
    });
}

TEST_P(WorkerPowerLossTests, RequestForAFreshLinkStandsUntilTheWebsiteDataAreGone) {
    forEveryOperation([](const DarkDay& day) {
        const auto& flag = day.place.directory.freshLinkRequestFile;
        EXPECT_TRUE(day.isForgotten() || std::filesystem::exists(flag));
        test::QuickFileManager files;
        WorkerDay(day.place, files, "Tuesday").spend();
        EXPECT_FALSE(std::filesystem::exists(flag));
    });
}

TEST_P(WorkerPowerLossTests, FilesOfTheWorkerAreWholeOrEmptyAndGoWithTheNextWorker) {
    forEveryOperation([](const DarkDay& day) {
        const auto& directory = day.place.directory;
        EXPECT_THAT(test::contentOrNothing(directory.workerPIDFile), AnyOf("", std::to_string(::getpid())));
        EXPECT_THAT(test::contentOrNothing(directory.workerQRCodeFile),
                    AnyOf("", std::string(WorkerDay::picture)));
        const auto status = test::contentOrNothing(directory.workerStatusFile);
        EXPECT_TRUE(status.empty() || test::Json::parseIfPossible(status).has_value()) << status;
        test::QuickFileManager files;
        WorkerDay(day.place, files, "Tuesday").spend();
        for (const auto& file :
             {directory.workerPIDFile, directory.workerStatusFile, directory.workerQRCodeFile})
            EXPECT_FALSE(std::filesystem::exists(file)) << file;
    });
}

}  // namespace
}  // namespace brindle

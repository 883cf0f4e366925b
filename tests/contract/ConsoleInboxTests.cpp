#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/TemporaryDirectory.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::HasSubstr;

constexpr std::string_view complete_record =
    R"({"conversationId":"c","conversationTitle":"Team Room","senderId":"s","senderDisplayName":"Ada","text":"On my way","isDirectMessage":true})";

/// The console's look at the inbound records of a data directory.
class ConsoleInboxTest : public testing::Test {
  protected:
    void SetUp() override {
        for (const auto* folder : {"inbound", "rejected", "processed"})
            fs::create_directory(data_->path() / folder);
    }

    BackendProcess& run(std::vector<std::string> arguments) {
        BackendOptions options;
        options.executable = consoleExecutable();
        options.arguments = std::move(arguments);
        options.dataDirectory = data_;
        options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = data_->path();
        console_ = std::make_unique<BackendProcess>(std::move(options));
        return *console_;
    }

    std::shared_ptr<TemporaryDirectory> data_ = std::make_shared<TemporaryDirectory>();
    std::unique_ptr<BackendProcess> console_;
};

TEST_F(ConsoleInboxTest, ListsRecordsWithoutAHelper) {
    writeFileAtomically(data_->path() / "inbound/a.json", complete_record);
    writeFileAtomically(data_->path() / "rejected/b.json", "{}");
    auto& console = run({"inbox"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_THAT(console.rawOutput(), ContainsRegex("inbound +a.json +Ada: On my way"));
    EXPECT_THAT(console.rawOutput(), ContainsRegex("rejected +b.json +The data cannot be used"));
    EXPECT_FALSE(fs::exists(data_->path() / "runtime"));
}

TEST_F(ConsoleInboxTest, TellsProgramsInOneDocument) {
    writeFileAtomically(data_->path() / "rejected/b.json", "{}");
    auto& console = run({"inbox", "--json"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    const auto listing = Json::parse(console.rawOutput());
    EXPECT_EQ(listing.at("records")[0].at("name"), "b.json");
    EXPECT_THAT(listing.at("records")[0].at("reason").get<std::string>(),
                HasSubstr("a required value is missing"));
}

TEST_F(ConsoleInboxTest, ShowsARecordAndPutsItBack) {
    writeFileAtomically(data_->path() / "rejected/a.json", complete_record);
    auto& shown = run({"inbox", "show", "a.json"});
    EXPECT_EQ(shown.waitForExit(), exitedWith(0));
    EXPECT_EQ(shown.rawOutput(), std::string(complete_record) + "\n");
    auto& restored = run({"inbox", "restore", "a.json"});
    EXPECT_EQ(restored.waitForExit(), exitedWith(0)) << restored.standardError();
    EXPECT_TRUE(fs::exists(data_->path() / "inbound/a.json"));
}

TEST_F(ConsoleInboxTest, PutsARecordBackBesideAnotherOfItsName) {
    writeFileAtomically(data_->path() / "inbound/a.json", "another");
    writeFileAtomically(data_->path() / "rejected/a.json", complete_record);
    auto& console = run({"inbox", "restore", "a.json"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0)) << console.standardError();
    EXPECT_EQ(readFile(data_->path() / "inbound/a.json"), "another");
    EXPECT_EQ(visibleNamesIn(data_->path() / "inbound").size(), 2U);
}

TEST_F(ConsoleInboxTest, RefusesWhatCannotBePutBackInASentence) {
    writeFileAtomically(data_->path() / "rejected/b.json", "{}");
    auto& console = run({"inbox", "restore", "b.json"});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(), HasSubstr("The record b.json would be rejected again: "));
    EXPECT_TRUE(fs::exists(data_->path() / "rejected/b.json"));
}

TEST_F(ConsoleInboxTest, LeavesTheApplicationsRecordsAloneUnlessTheyAreNamed) {
    BackendOptions options;
    options.executable = consoleExecutable();
    options.arguments = {"inbox"};
    options.environment.erase("BRINDLE_MANAGED_BRIDGE_DATA_DIR");
    BackendProcess console(std::move(options));
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(), HasSubstr("No data directory is named"));
}

TEST_F(ConsoleInboxTest, DoesNotTakeAMistypedDirectoryForAnEmptyOne) {
    const auto mistyped = (data_->path() / "mistyped").string();
    auto& console = run({"inbox", "--data-dir", mistyped});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardError(), "There is no data directory " + mistyped +
                                           "; correct --data-dir, or start a helper, which makes it.\n");
}

TEST_F(ConsoleInboxTest, IsACommandOfASession) {
    auto& console = run({"--no-worker"});
    console.send("inbox");
    console.finish();
    EXPECT_THAT(console.rawOutput(), HasSubstr("No inbound records"));
}

}  // namespace
}  // namespace brindle::test

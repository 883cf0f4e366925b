#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

/// The console's examination of an installation and a data directory.
class ConsoleDoctorTest : public testing::Test {
  protected:
    BackendOptions optionsFor(std::vector<std::string> arguments) const {
        BackendOptions options;
        options.executable = consoleExecutable();
        options.arguments = std::move(arguments);
        options.dataDirectory = data_;
        options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = data_->path();
        return options;
    }

    BackendProcess& examine(std::vector<std::string> arguments = {"doctor"}) {
        console_ = std::make_unique<BackendProcess>(optionsFor(std::move(arguments)));
        return *console_;
    }

    /// Lets a helper lay the directory out.
    void useDirectory() {
        auto options = optionsFor({"--no-worker"});
        BackendProcess session(options);
        session.finish();
    }

    std::shared_ptr<TemporaryDirectory> data_ = std::make_shared<TemporaryDirectory>();
    std::unique_ptr<BackendProcess> console_;
};

TEST_F(ConsoleDoctorTest, EndsWithZeroWhenAllIsWell) {
    useDirectory();
    auto& console = examine();
    EXPECT_EQ(console.waitForExit(), exitedWith(0)) << console.rawOutput();
    EXPECT_THAT(console.rawOutput(), ContainsRegex("ok +helper +The helper .* can be run"));
    EXPECT_THAT(console.rawOutput(), ContainsRegex("ok +engine +The engine is version [0-9]"));
    EXPECT_THAT(console.rawOutput(), testing::EndsWith("All is well.\n"));
}

TEST_F(ConsoleDoctorTest, EndsWithOneWhenSomethingIsWrong) {
    useDirectory();
    writeFileAtomically(data_->path() / "rejected/m.json", "{}");
    auto& console = examine();
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.rawOutput(), ContainsRegex("problem +rejected +1 inbound file.s. were rejected"));
    EXPECT_THAT(console.rawOutput(), HasSubstr("To do: "));
    EXPECT_THAT(console.rawOutput(), testing::EndsWith("1 problem.\n"));
}

TEST_F(ConsoleDoctorTest, TellsProgramsInOneDocument) {
    auto& console = examine({"doctor", "--json", "--worker", "/no/such/worker"});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    ASSERT_EQ(console.receivedLines().size(), 1U);
    const auto report = Json::parse(console.receivedLines().front());
    EXPECT_EQ(report.at("isWell"), false);
    EXPECT_EQ(report.at("findings")[1].at("point"), "worker");
    EXPECT_EQ(report.at("findings")[1].at("state"), "problem");
}

TEST_F(ConsoleDoctorTest, ChangesNothing) {
    const TemporaryDirectory parent;
    auto& console = examine({"doctor", "--data-dir", (parent.path() / "none").string()});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_FALSE(fs::exists(parent.path() / "none"));
}

TEST_F(ConsoleDoctorTest, NamesTheHelperThatUsesTheDirectory) {
    BackendProcess helper(BackendOptions{});
    helper.nextLine();
    auto& console = examine({"doctor", "--data-dir", helper.path().string()});
    EXPECT_EQ(console.waitForExit(), exitedWith(0)) << console.rawOutput();
    EXPECT_THAT(console.rawOutput(), HasSubstr("A helper (process " + std::to_string(helper.pid()) + ")"));
    EXPECT_THAT(console.rawOutput(), ContainsRegex("ok +status +The helper is disconnected"));
    helper.finish();
}

TEST_F(ConsoleDoctorTest, IsACommandOfASession) {
    auto options = optionsFor({"--no-worker"});
    BackendProcess session(options);
    session.send("doctor");
    session.finish();
    EXPECT_EQ(session.waitForExit(), exitedWith(0)) << session.standardError();
    EXPECT_THAT(session.rawOutput(), HasSubstr("All is well.\n"));
}

}  // namespace
}  // namespace brindle::test

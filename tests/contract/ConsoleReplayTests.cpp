#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/TemporaryDirectory.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

/// Sessions of the console that are recorded, and sent to another helper.
class ConsoleReplayTest : public testing::Test {
  protected:
    BackendOptions optionsFor(std::vector<std::string> arguments) const {
        BackendOptions options;
        options.executable = consoleExecutable();
        options.arguments = std::move(arguments);
        options.environment.erase("BRINDLE_MANAGED_BRIDGE_DATA_DIR");
        options.workingDirectory = files_.path();
        return options;
    }

    fs::path recording() const { return files_.path() / "session.jsonl"; }

    /// Connects and lets the helper test itself.
    void record() const {
        writeFileAtomically(files_.path() / "check.console",
                            "expect stateChanged.disconnected\nconnect\nexpect stateChanged.connected\n"
                            "listen test Smoke\nexpect inboundEvent\nraw nonsense\nexpect error\n");
        BackendProcess console(
            optionsFor({"--no-worker", "--record", "session.jsonl", "--script", "check.console"}));
        ASSERT_EQ(console.waitForExit(), exitedWith(0)) << console.standardError();
    }

    TemporaryDirectory files_;
};

TEST_F(ConsoleReplayTest, RecordsASessionForThisUserAlone) {
    record();
    EXPECT_EQ(fs::status(recording()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const auto text = readFile(recording());
    EXPECT_THAT(text, HasSubstr(R"("direction":"toHelper","line":"{\"connect\")"));
    EXPECT_THAT(text, HasSubstr("inboundEvent"));
    EXPECT_THAT(text, HasSubstr("nonsense"));
}

TEST_F(ConsoleReplayTest, NeverRecordsTheLaunchToken) {
    BackendProcess console(optionsFor({"--no-worker", "--record", "session.jsonl"}));
    console.nextLine();
    const auto token = environmentOf(waitForOnlyChild(console.pid())).at("BRINDLE_HELPER_LAUNCH_TOKEN");
    console.send("raw " + token);
    console.finish();
    EXPECT_THAT(readFile(recording()), Not(HasSubstr(token)));
    EXPECT_THAT(readFile(recording()), HasSubstr("(launch token)"));
}

TEST_F(ConsoleReplayTest, RecordsFromACommandOn) {
    BackendProcess console(optionsFor({"--no-worker"}));
    for (const auto* command : {"connect", "expect stateChanged.connected", "record session.jsonl",
                                "disconnect", "expect stateChanged.disconnected", "record off", "connect"}) {
        console.send(command);
    }
    console.finish();
    const auto text = readFile(recording());
    EXPECT_THAT(text, HasSubstr("disconnect"));
    EXPECT_THAT(text, Not(HasSubstr("\\\"connect\\\"")));
}

TEST_F(ConsoleReplayTest, StartsNoHelperForARecordingThatIsNone) {
    BackendProcess console(optionsFor({"replay", "session.jsonl", "--no-worker"}));
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.rawOutput(), "");
    EXPECT_THAT(console.standardError(), HasSubstr("Cannot read \"session.jsonl\""));
}

TEST_F(ConsoleReplayTest, FindsNoDifferenceInTheSameBuild) {
    record();
    BackendProcess console(optionsFor({"replay", "session.jsonl", "--no-worker"}));
    EXPECT_EQ(console.waitForExit(), exitedWith(0)) << console.rawOutput() << console.standardError();
    EXPECT_THAT(console.rawOutput(), HasSubstr("Replayed 3 requests; all 6 answers are the same.\n"));
}

TEST_F(ConsoleReplayTest, ShowsTheDifferencesOfAnotherBuild) {
    record();
    auto text = readFile(recording());
    const std::string now = "managed-whatsapp-backend-3";
    text.replace(text.find(now), now.size(), "managed-whatsapp-backend-2");
    writeFileAtomically(recording(), text);
    BackendProcess console(optionsFor({"replay", "session.jsonl", "--no-worker"}));
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.rawOutput(),
                HasSubstr("- {\"hello\":{\"_0\":{\"bridgeVersion\":\"managed-whatsapp-backend-2\""));
    EXPECT_THAT(console.rawOutput(),
                HasSubstr("+ {\"hello\":{\"_0\":{\"bridgeVersion\":\"managed-whatsapp-backend-3\""));
    EXPECT_THAT(console.standardError(), HasSubstr("The answers differ from the recording."));
}

}  // namespace
}  // namespace brindle::test

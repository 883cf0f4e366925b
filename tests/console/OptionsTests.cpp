#include "console/Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace brindle::console {
namespace {

using testing::HasSubstr;

std::variant<Options, CommandLineAnswer> parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "BrindleBridgeConsole");
    return parseCommandLine(static_cast<int>(arguments.size()), arguments.data(), "/opt/helper");
}

Options accepted(const std::vector<const char*>& arguments) {
    return std::get<Options>(parse(arguments));
}

CommandLineAnswer answered(const std::vector<const char*>& arguments) {
    return std::get<CommandLineAnswer>(parse(arguments));
}

Environment environmentFor(const std::vector<const char*>& arguments, Environment inherited = {}) {
    inherited.try_emplace("BRINDLE_MANAGED_BRIDGE_DATA_DIR", "/inherited");
    auto environment = helperEnvironment(accepted(arguments), std::move(inherited), "/own");
    if (environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] == "/inherited") {
        environment.erase("BRINDLE_MANAGED_BRIDGE_DATA_DIR");
    }
    return environment;
}

TEST(Options, HaveDefaults) {
    const auto options = accepted({});
    EXPECT_EQ(options.helper, "/opt/helper");
    EXPECT_EQ(options.platform, "whatsapp");
    EXPECT_EQ(options.worker, WorkerChoice::unchanged);
    EXPECT_EQ(options.color, ColorChoice::automatic);
    EXPECT_FALSE(options.json);
    EXPECT_FALSE(options.summary);
    EXPECT_EQ(options.webClient, std::nullopt);
    EXPECT_EQ(options.script, std::nullopt);
    EXPECT_EQ(options.dataDirectory, std::nullopt);
}

TEST(Options, AreRead) {
    const auto options = accepted({"--helper", "/h", "--platform", "p", "--data-dir", "/d", "--json",
                                   "--color", "never", "--script", "s.console", "--worker", "/w"});
    EXPECT_EQ(options.helper, "/h");
    EXPECT_EQ(options.platform, "p");
    EXPECT_EQ(options.dataDirectory, "/d");
    EXPECT_TRUE(options.json);
    EXPECT_EQ(options.color, ColorChoice::never);
    EXPECT_EQ(options.script, "s.console");
    EXPECT_EQ(options.worker, WorkerChoice::explicitPath);
    EXPECT_EQ(options.workerPath, "/w");
    EXPECT_TRUE(accepted({"--summary"}).summary);
    EXPECT_EQ(accepted({"--builtin-worker", "--web-client", "p.html"}).webClient, "p.html");
}

TEST(Options, HelpShowsCommandsAndExamples) {
    const auto answer = answered({"--help"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_THAT(answer.text, HasSubstr("wait-status FIELD VALUE"));
    EXPECT_THAT(answer.text, HasSubstr("Examples:"));
}

TEST(Options, AskForTheVersion) {
    EXPECT_EQ(accepted({"--version"}).action, Action::showVersion);
    EXPECT_EQ(accepted({}).action, Action::session);
    EXPECT_THAT(consoleVersion(), HasSubstr("BrindleBridgeConsole 3."));
}

TEST(Options, ThatAreWrongAreRefusedWithStatusTwo) {
    EXPECT_EQ(answered({"--colour"}).status, 2);
    EXPECT_EQ(answered({"--color", "purple"}).status, 2);
    EXPECT_EQ(answered({"--script"}).status, 2);
    EXPECT_EQ(answered({"stray"}).status, 2);
    EXPECT_EQ(answered({"inbox", "show"}).status, 2);
    EXPECT_EQ(answered({"inbox", "remove", "a.json"}).status, 2);
    EXPECT_EQ(accepted({"inbox", "show", "a.json"}).words.size(), 2U);
    EXPECT_EQ(answered({"--native-worker", "/no/such/file"}).status, 2);
}

TEST(Options, ThatAreMistakenAreNamedWithWhereToLook) {
    EXPECT_EQ(answered({"--colour"}).text,
              "There is no option \"--colour\"; BrindleBridgeConsole --help lists the options.\n");
    EXPECT_EQ(
        answered({"doctr"}).text,
        "The word \"doctr\" means nothing here; BrindleBridgeConsole --help lists the words and options.\n");
    EXPECT_THAT(answered({"connect"}).text,
                HasSubstr("\"connect\" is a command of a session; start the console without"));
    EXPECT_THAT(answered({"doctor", "more"}).text, HasSubstr("The word \"more\" means nothing here"));
    EXPECT_EQ(answered({"check-worker"}).text,
              "check-worker: PATH is required.\nBrindleBridgeConsole check-worker --help tells more.\n");
    EXPECT_THAT(answered({"\033[2J"}).text, testing::Not(HasSubstr("\033")));
}

TEST(Options, HelpOfAnActionTellsItsWordsAndNotTheCommandsOfASession) {
    const auto inbox = answered({"inbox", "--help"});
    EXPECT_EQ(inbox.status, 0);
    EXPECT_THAT(inbox.text, HasSubstr("inbox [show|restore] [NAME]"));
    EXPECT_THAT(inbox.text, HasSubstr("--data-dir DIR and --json"));
    EXPECT_THAT(inbox.text, testing::Not(HasSubstr("wait-status")));
    EXPECT_THAT(answered({"replay", "--help"}).text, HasSubstr("replay FILE"));
    EXPECT_THAT(answered({"check-worker", "--help"}).text, HasSubstr("check-worker [OPTIONS] PATH"));
}

TEST(Options, WordsBehindInboxAreTakenInTheirOrder) {
    EXPECT_EQ(accepted({"inbox", "show", "a.json"}).words, (std::vector<std::string>{"show", "a.json"}));
    EXPECT_TRUE(accepted({"inbox"}).words.empty());
}

TEST(Options, NameADataDirectoryThatIsNotBlank) {
    EXPECT_EQ(answered({"--data-dir", ""}).status, 2);
    EXPECT_EQ(answered({"inbox", "--data-dir", "  "}).status, 2);
}

TEST(Options, NameOneWorkerAtMost) {
    EXPECT_EQ(answered({"--no-worker", "--builtin-worker"}).status, 2);
    EXPECT_EQ(answered({"--worker", "/w", "--native-worker", "/bin/sh"}).status, 2);
}

TEST(Options, NameAPageForTheBuiltinWorkerOnly) {
    EXPECT_EQ(answered({"--web-client", "p.html"}).status, 2);
    EXPECT_EQ(answered({"--no-worker", "--web-client", "p.html"}).status, 2);
}

TEST(HelperEnvironment, PassesEverythingElseOn) {
    const auto environment =
        environmentFor({}, {{"HOME", "/h"}, {"BRINDLE_MANAGED_BRIDGE_WORKER_PATH", "/w"}});
    EXPECT_EQ(environment.at("HOME"), "/h");
    EXPECT_EQ(environment.at("BRINDLE_MANAGED_BRIDGE_WORKER_PATH"), "/w");
}

TEST(HelperEnvironment, NeverAsksForTheWorkerRole) {
    EXPECT_FALSE(environmentFor({}, {{"BRINDLE_MANAGED_BRIDGE_WORKER_ROLE", "runtime-worker"}})
                     .contains("BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"));
}

TEST(HelperEnvironment, HasAnAbsoluteDataDirectory) {
    EXPECT_EQ(environmentFor({"--data-dir", "/a/../b/"}).at("BRINDLE_MANAGED_BRIDGE_DATA_DIR"), "/b");
    EXPECT_TRUE(
        environmentFor({"--data-dir", "here"}).at("BRINDLE_MANAGED_BRIDGE_DATA_DIR").starts_with('/'));
}

TEST(HelperEnvironment, HasADataDirectoryOfItsOwnWhenNobodyNamesOne) {
    EXPECT_EQ(helperEnvironment(accepted({}), {}, "/own").at("BRINDLE_MANAGED_BRIDGE_DATA_DIR"), "/own");
    const Environment blank{{"BRINDLE_MANAGED_BRIDGE_DATA_DIR", " "}};
    EXPECT_EQ(helperEnvironment(accepted({}), blank, "/own").at("BRINDLE_MANAGED_BRIDGE_DATA_DIR"), "/own");
    const Environment named{{"BRINDLE_MANAGED_BRIDGE_DATA_DIR", "/named"}};
    EXPECT_EQ(helperEnvironment(accepted({}), named, "/own").at("BRINDLE_MANAGED_BRIDGE_DATA_DIR"), "/named");
}

TEST(HelperEnvironment, LeavesTheApplicationsDataDirectoryToTheHelper) {
    const Environment named{{"BRINDLE_MANAGED_BRIDGE_DATA_DIR", "/named"}};
    EXPECT_FALSE(helperEnvironment(accepted({"--data-dir", "default"}), named, "/own")
                     .contains("BRINDLE_MANAGED_BRIDGE_DATA_DIR"));
}

TEST(HelperEnvironment, ReplacesTheChoiceOfWorker) {
    const Environment inherited{{"BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER", "1"},
                                {"BRINDLE_MANAGED_BRIDGE_WORKER_PATH", "/old"}};
    EXPECT_EQ(environmentFor({"--worker", "/w"}, inherited),
              (Environment{{"BRINDLE_MANAGED_BRIDGE_WORKER_PATH", "/w"}}));
    EXPECT_EQ(environmentFor({"--native-worker", "/bin/sh"}, inherited),
              (Environment{{"BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER", "1"},
                           {"BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH", "/bin/sh"}}));
    EXPECT_EQ(environmentFor({"--builtin-worker"}, inherited),
              (Environment{{"BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER", "1"},
                           {"BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", "1"}}));
    EXPECT_EQ(environmentFor({"--no-worker"}, inherited),
              (Environment{{"BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER", "1"}}));
}

TEST(HelperEnvironment, NamesThePageOfTheBuiltinWorker) {
    const Environment inherited{{"BRINDLE_MANAGED_BRIDGE_WORKER_TEST_HTML_PATH", "/old.html"},
                                {"BRINDLE_MANAGED_BRIDGE_WORKER_TEST_URL", "http://127.0.0.1/old"}};
    const Environment builtin{{"BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER", "1"},
                              {"BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER", "1"}};
    auto withFile = builtin;
    withFile["BRINDLE_MANAGED_BRIDGE_WORKER_TEST_HTML_PATH"] = "/b.html";
    EXPECT_EQ(environmentFor({"--builtin-worker", "--web-client", "/a/../b.html"}, inherited), withFile);
    auto withAddress = builtin;
    withAddress["BRINDLE_MANAGED_BRIDGE_WORKER_TEST_URL"] = "http://127.0.0.1:8080/?scan=0";
    EXPECT_EQ(
        environmentFor({"--builtin-worker", "--web-client", "http://127.0.0.1:8080/?scan=0"}, inherited),
        withAddress);
    auto unchanged = builtin;
    unchanged.insert(inherited.begin(), inherited.end());
    EXPECT_EQ(environmentFor({"--builtin-worker"}, inherited), unchanged);
}

}  // namespace
}  // namespace brindle::console

#include "console/ShellCompletion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "console/Command.h"
#include "support/Files.h"

namespace brindle::console {
namespace {

using testing::Contains;
using testing::HasSubstr;

std::vector<std::string> optionNames() {
    std::vector<std::string> names;
    for (const auto& option : commandLineDescription().options) names.push_back(option.name);
    return names;
}

TEST(CommandLineDescription, HasEveryOptionAndActionWithItsMeaning) {
    const auto description = commandLineDescription();
    EXPECT_THAT(optionNames(), testing::IsSupersetOf({"--help", "--version", "--helper", "--platform",
                                                      "--data-dir", "--script", "--record", "--summary",
                                                      "--json", "--color", "--worker", "--native-worker",
                                                      "--builtin-worker", "--no-worker", "--web-client"}));
    std::vector<std::string> actions;
    for (const auto& action : description.actions) {
        actions.push_back(action.name);
        EXPECT_NE(action.meaning, "") << action.name;
    }
    EXPECT_THAT(actions, testing::UnorderedElementsAre("doctor", "inbox", "watch", "replay", "check-worker"));
    for (const auto& option : description.options) EXPECT_NE(option.meaning, "") << option.name;
}

TEST(CommandLineDescription, NamesEachOptionOnce) {
    auto names = optionNames();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

TEST(CommandLineDescription, TellsWhatAValueStandsFor) {
    for (const auto& option : commandLineDescription().options) {
        const std::string expected = option.name == "--data-dir" ? "DIR"
                                     : option.name == "--json"   ? ""
                                                                 : option.value;
        EXPECT_EQ(option.value, expected) << option.name;
    }
}

TEST(ShellCompletion, OffersEveryOptionAndActionInEveryShell) {
    const auto description = commandLineDescription();
    const auto bash = bashCompletion(description);
    const auto zsh = zshCompletion(description);
    const auto fish = fishCompletion(description);
    for (const auto& option : description.options) {
        EXPECT_THAT(bash, HasSubstr(option.name));
        EXPECT_THAT(zsh, HasSubstr(option.name));
        EXPECT_THAT(fish, HasSubstr("-l " + option.name.substr(2)));
    }
    for (const auto& action : description.actions) {
        EXPECT_THAT(bash, HasSubstr(action.name));
        EXPECT_THAT(zsh, HasSubstr(action.name));
        EXPECT_THAT(fish, HasSubstr("-a " + action.name));
    }
}

TEST(Manual, HasEveryOptionActionAndCommand) {
    const auto description = commandLineDescription();
    for (const auto& option : description.options) {
        std::string name = option.name;
        for (std::size_t at = 0; (at = name.find('-', at)) != std::string::npos; at += 2)
            name.insert(at, "\\");
        EXPECT_THAT(manualOptions(description), HasSubstr(name));
    }
    EXPECT_THAT(manualActions(description), HasSubstr("check\\-worker"));
    for (const auto& command : commandDescriptions()) {
        EXPECT_THAT(manualCommands(), HasSubstr("\n.B " + std::string(command.name.substr(0, 4))));
    }
}

TEST(ConsolePage, NamesEveryCommand) {
    const auto page = test::readFile(SOURCE_DIRECTORY "/docs/console.md");
    for (const auto& command : commandDescriptions()) {
        EXPECT_THAT(page, HasSubstr("`" + std::string(command.usage) + "`"));
    }
}

}  // namespace
}  // namespace brindle::console

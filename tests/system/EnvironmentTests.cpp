#include "system/Environment.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <array>
#include <string>

namespace brindle {
namespace {

/// Replaces this process's environment for as long as it lives.
class ReplacedEnvironment {
  public:
    explicit ReplacedEnvironment(char** entries) : original_(environ) { environ = entries; }
    ReplacedEnvironment(const ReplacedEnvironment&) = delete;
    ReplacedEnvironment& operator=(const ReplacedEnvironment&) = delete;
    ~ReplacedEnvironment() { environ = original_; }

  private:
    char** original_;
};

TEST(EnvironmentTests, SnapshotHoldsEveryVariable) {
    char first[] = "A=1";
    char empty[] = "EMPTY=";
    char equals[] = "EQUALS=a=b=c";
    char bytes[] = "BYTES=\xFF\n";
    char* entries[] = {first, empty, equals, bytes, nullptr};
    const ReplacedEnvironment replaced(entries);
    EXPECT_EQ(currentEnvironment(),
              (Environment{{"A", "1"}, {"EMPTY", ""}, {"EQUALS", "a=b=c"}, {"BYTES", "\xFF\n"}}));
}

TEST(EnvironmentTests, SnapshotLeavesOutWhatIsNoVariable) {
    char noSeparator[] = "LONELY";
    char noName[] = "=value";
    char* entries[] = {noSeparator, noName, nullptr};
    const ReplacedEnvironment replaced(entries);
    EXPECT_TRUE(currentEnvironment().empty());
}

TEST(EnvironmentTests, FirstOfTwoVariablesOfOneNameCounts) {
    char first[] = "A=first";
    char second[] = "A=second";
    char* entries[] = {first, second, nullptr};
    const ReplacedEnvironment replaced(entries);
    EXPECT_EQ(currentEnvironment(), (Environment{{"A", "first"}}));
}

TEST(EnvironmentTests, SnapshotOfNoEnvironmentIsEmpty) {
    const ReplacedEnvironment replaced(nullptr);
    EXPECT_TRUE(currentEnvironment().empty());
}

TEST(EnvironmentTests, HomeDirectoryIsTheOneThatIsNamedElseTheOneThatTheSystemKnows) {
    EXPECT_EQ(homeDirectory({{"HOME", "/somewhere"}}), "/somewhere");
    const passwd* user = ::getpwuid(::getuid());
    const std::string known = user == nullptr ? "/" : user->pw_dir;
    EXPECT_EQ(homeDirectory({{"HOME", ""}}), known);
    EXPECT_EQ(homeDirectory({}), known);
}

TEST(EnvironmentTests, NonBlankValueIsTrimmed) {
    EXPECT_EQ(nonBlankValue({{"KEY", " \t/a b\u00A0\n"}}, "KEY"), "/a b");
}

TEST(EnvironmentTests, BlankValueCountsAsAbsent) {
    for (const std::string value : {"", " ", "\n", "\u3000\u2028"}) {
        EXPECT_EQ(nonBlankValue({{"KEY", value}}, "KEY"), std::nullopt);
    }
    EXPECT_EQ(nonBlankValue({{"key", "value"}}, "KEY"), std::nullopt);
    EXPECT_EQ(nonBlankValue({}, "KEY"), std::nullopt);
}

class FlagTests : public testing::TestWithParam<std::pair<std::string, bool>> {};

TEST_P(FlagTests, IsSetExactlyForTheWordsOfConsent) {
    const auto& [value, expected] = GetParam();
    EXPECT_EQ(isFlagSet({{"KEY", value}}, "KEY"), expected) << '"' << value << '"';
}

INSTANTIATE_TEST_SUITE_P(
    Values, FlagTests,
    testing::Values(std::pair("1", true), std::pair("true", true), std::pair("yes", true),
                    std::pair("on", true), std::pair("TRUE", true), std::pair("True", true),
                    std::pair("tRuE", true), std::pair("YES", true), std::pair("Yes", true),
                    std::pair("ON", true), std::pair("oN", true), std::pair(" 1 ", true),
                    std::pair("  Yes\n", true), std::pair("\u00A0on\u3000", true), std::pair("", false),
                    std::pair(" ", false), std::pair("0", false), std::pair("false", false),
                    std::pair("no", false), std::pair("off", false), std::pair("2", false),
                    std::pair("enabled", false), std::pair("y", false), std::pair("t", false),
                    std::pair("01", false), std::pair("1 1", false), std::pair("true.", false),
                    std::pair("\u200B1", false), std::pair("\xFF", false), std::pair("ｏｎ", false)));

TEST(EnvironmentTests, WipedVariableIsOverwrittenWhereItLies) {
    char wiped[] = "TOKEN=secret";
    char longer[] = "TOKEN_FILE=path";
    char again[] = "TOKEN=more";
    char bare[] = "TOKEN";
    char* entries[] = {wiped, longer, again, bare, nullptr};
    const ReplacedEnvironment replaced(entries);
    wipeVariable("TOKEN");
    EXPECT_EQ(std::string(wiped, sizeof wiped), "TOKEN=" + std::string(7, '\0'));
    EXPECT_EQ(std::string(again, sizeof again), "TOKEN=" + std::string(5, '\0'));
    EXPECT_EQ(currentEnvironment(), (Environment{{"TOKEN_FILE", "path"}}));
}

TEST(EnvironmentTests, WipingAVariableThatIsNotThereDoesNothing) {
    char other[] = "OTHER=1";
    char* entries[] = {other, nullptr};
    const ReplacedEnvironment replaced(entries);
    wipeVariable("TOKEN");
    EXPECT_EQ(currentEnvironment(), (Environment{{"OTHER", "1"}}));
}

TEST(EnvironmentTests, OnlyTheNamedVariablesAreKept) {
    char kept[] = "KEPT=a=b";
    char empty[] = "EMPTY=";
    char prefixed[] = "KEPT_TOO=1";
    char secret[] = "SECRET=1";
    char noName[] = "=value";
    char* entries[] = {kept, empty, prefixed, secret, noName, nullptr};
    const ReplacedEnvironment replaced(entries);
    keepVariables(std::array<std::string_view, 3>{"KEPT", "EMPTY", "ABSENT"});
    EXPECT_EQ(currentEnvironment(), (Environment{{"KEPT", "a=b"}, {"EMPTY", ""}}));
}

TEST(EnvironmentTests, FlagOfMissingVariableIsNotSet) {
    EXPECT_FALSE(isFlagSet({}, "KEY"));
    EXPECT_FALSE(isFlagSet({{"OTHER", "1"}}, "KEY"));
}

}  // namespace
}  // namespace brindle

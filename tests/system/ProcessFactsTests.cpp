#include "system/ProcessFacts.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>

#include "support/ChildProcesses.h"
#include "support/Processes.h"
#include "support/Waiting.h"
#include "system/ChildProcess.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;

/// The tail of a line of "stat" from the state of the process on, which has begun 12.34 s after the system.
const std::string rest_of_stat = " S 17 4711 4711 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 1 0 1234 9 10 11\n";

class ProcessFactsTests : public testing::Test {
  protected:
    PosixFileManager files_;
};

TEST_F(ProcessFactsTests, StatTellsParentAndStart) {
    const auto stat = parsedProcessStat("4711 (worker)" + rest_of_stat);
    ASSERT_TRUE(stat);
    EXPECT_EQ(stat->parent, 17);
    EXPECT_EQ(stat->start, milliseconds{12340});
}

TEST_F(ProcessFactsTests, NameOfTheProgramMayHoldAnything) {
    const auto stat = parsedProcessStat("4711 (a) S 1 2 (b c)" + rest_of_stat);
    ASSERT_TRUE(stat);
    EXPECT_EQ(stat->parent, 17);
}

TEST_F(ProcessFactsTests, UnreadableStatTellsNothing) {
    for (const char* text :
         {"", "4711", "4711 (worker)", "4711 (worker) S", "4711 (worker) S x", "4711 (worker) S 17 1"}) {
        EXPECT_FALSE(parsedProcessStat(text)) << text;
    }
}

TEST_F(ProcessFactsTests, ProcessThatWasJustStartedBeganJustNow) {
    // The system counts in hundredths of a second.
    constexpr milliseconds coarseness{20};
    const auto before = system_clock::now();
    const ChildProcess process({.executable = "/bin/sleep", .arguments = {"1000"}});
    const auto after = system_clock::now();
    const auto facts = processFacts(process.processIdentifier(), files_);
    ASSERT_TRUE(facts);
    EXPECT_EQ(facts->parent, ::getpid());
    EXPECT_GE(facts->start, before - coarseness);
    EXPECT_LE(facts->start, after + coarseness);
}

TEST_F(ProcessFactsTests, NothingIsKnownOfAProcessThatDoesNotExist) {
    EXPECT_FALSE(processFacts(0, files_));
    EXPECT_TRUE(environmentOf(0, files_).empty());
}

TEST_F(ProcessFactsTests, EnvironmentIsTheOneOfTheStart) {
    const ChildProcess process(
        {.executable = "/bin/sleep", .arguments = {"1000"}, .environment = {{"A", "1=2"}, {"B", ""}}});
    // A program that was just started has none yet.
    test::waitUntil([&] { return test::isSetUp(process.processIdentifier()); }, "the program to be set up");
    EXPECT_EQ(environmentOf(process.processIdentifier(), files_), (Environment{{"A", "1=2"}, {"B", ""}}));
}

TEST_F(ProcessFactsTests, AncestorsAreKnownUpToTheFirst) {
    EXPECT_TRUE(isSelfOrAncestor(::getpid(), files_));
    EXPECT_TRUE(isSelfOrAncestor(::getppid(), files_));
    EXPECT_EQ(test::statusOfChild([this, grandparent = ::getppid()] {
                  return isSelfOrAncestor(grandparent, files_) ? 0 : 1;
              }),
              0);
}

TEST_F(ProcessFactsTests, ChildIsNoAncestor) {
    const ChildProcess process({.executable = "/bin/sleep", .arguments = {"1000"}});
    EXPECT_FALSE(isSelfOrAncestor(process.processIdentifier(), files_));
}

}  // namespace
}  // namespace brindle

#include "system/ProcessEnd.h"

#include <gtest/gtest.h>
#include <signal.h>

namespace brindle {
namespace {

TEST(ProcessEndTests, DescriptionTellsExitFromSignal) {
    EXPECT_EQ(ProcessEnd::exit(0).description(), "ended with exit status 0");
    EXPECT_EQ(ProcessEnd::exit(9).description(), "ended with exit status 9");
    EXPECT_EQ(ProcessEnd::signal(SIGKILL).description(), "was ended by signal 9 (Killed)");
    EXPECT_EQ(ProcessEnd::signal(1000).description(), "was ended by signal 1000 (unknown)");
}

TEST(ProcessEndTests, UnknownEndIsNeitherExitNorSignal) {
    EXPECT_EQ(ProcessEnd().description(), "ended with a status that the system has forgotten");
    EXPECT_NE(ProcessEnd(), ProcessEnd::exit(-1));
    EXPECT_NE(ProcessEnd(), ProcessEnd::signal(-1));
}

}  // namespace
}  // namespace brindle

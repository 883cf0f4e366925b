#include "entry/CommandLine.h"

#include <gtest/gtest.h>

namespace brindle {
namespace {

TEST(CommandLineTests, PlatformIsWhatsappUnlessNamed) {
    EXPECT_EQ(platformName({}), "whatsapp");
    EXPECT_EQ(platformName({"other"}), "whatsapp");
    EXPECT_EQ(platformName({"--Platform", "x"}), "whatsapp");
    EXPECT_EQ(platformName({"--platform=x"}), "whatsapp");
}

TEST(CommandLineTests, PlatformFollowsTheFirstOption) {
    EXPECT_EQ(platformName({"--platform", "a"}), "a");
    EXPECT_EQ(platformName({"x", "--platform", "a", "--platform", "b"}), "a");
}

TEST(CommandLineTests, PlatformIsTakenAsItStands) {
    EXPECT_EQ(platformName({"--platform", ""}), "");
    EXPECT_EQ(platformName({"--platform", " a "}), " a ");
    EXPECT_EQ(platformName({"--platform", "--platform"}), "--platform");
    EXPECT_EQ(platformName({"--platform", "-x"}), "-x");
}

TEST(CommandLineTests, OptionWithoutValueIsIgnored) {
    EXPECT_EQ(platformName({"--platform"}), "whatsapp");
}

}  // namespace
}  // namespace brindle

#include "console/LaunchTicket.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/Files.h"

namespace brindle::console {
namespace {

mode_t permissionsOf(const std::filesystem::path& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST(LaunchTicket, HoldsTheTokenInAPrivateFileInAPrivateDirectory) {
    const LaunchTicket ticket;
    Environment environment;
    ticket.addTo(environment);
    EXPECT_EQ(environment.at("BRINDLE_HELPER_LAUNCH_TOKEN_FILE"), ticket.file());
    EXPECT_EQ(test::readFile(ticket.file()), environment.at("BRINDLE_HELPER_LAUNCH_TOKEN"));
    EXPECT_EQ(permissionsOf(ticket.file()), 0600U);
    EXPECT_EQ(permissionsOf(std::filesystem::path(ticket.file()).parent_path()), 0700U);
}

TEST(LaunchTicket, HasALongTokenThatIsNewEachTime) {
    Environment first;
    Environment second;
    const LaunchTicket one;
    const LaunchTicket two;
    one.addTo(first);
    two.addTo(second);
    EXPECT_GE(first.at("BRINDLE_HELPER_LAUNCH_TOKEN").size(), 32U);
    EXPECT_NE(first.at("BRINDLE_HELPER_LAUNCH_TOKEN"), second.at("BRINDLE_HELPER_LAUNCH_TOKEN"));
}

TEST(LaunchTicket, ReplacesAnInheritedToken) {
    Environment environment{{"BRINDLE_HELPER_LAUNCH_TOKEN", "old"}};
    const LaunchTicket ticket;
    ticket.addTo(environment);
    EXPECT_NE(environment.at("BRINDLE_HELPER_LAUNCH_TOKEN"), "old");
}

TEST(LaunchTicket, LeavesNothingBehind) {
    std::filesystem::path directory;
    {
        const LaunchTicket ticket;
        directory = std::filesystem::path(ticket.file()).parent_path();
        ASSERT_TRUE(std::filesystem::exists(directory));
    }
    EXPECT_FALSE(std::filesystem::exists(directory));
}

}  // namespace
}  // namespace brindle::console

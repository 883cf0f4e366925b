#include "console/LaunchTicket.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "support/Users.h"

namespace brindle::console {
namespace {

namespace fs = std::filesystem;

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

TEST(LaunchTicket, TakesTheDataOfItsSessionAway) {
    std::filesystem::path data;
    {
        const LaunchTicket ticket;
        data = ticket.dataDirectory();
        std::filesystem::create_directories(data / "runtime");
        test::writeFileAtomically(data / "runtime/worker.pid", "1");
    }
    EXPECT_FALSE(std::filesystem::exists(data.parent_path()));
}

/// Directories of earlier consoles, beside which a new one makes its own.
class EarlierTicket : public testing::Test {
  protected:
    EarlierTicket() {
        if (const char* before = ::getenv("TMPDIR"); before != nullptr) before_ = before;
        ::setenv("TMPDIR", base_.path().c_str(), 1);
    }
    ~EarlierTicket() override {
        if (before_) {
            ::setenv("TMPDIR", before_->c_str(), 1);
        } else {
            ::unsetenv("TMPDIR");
        }
    }

    /// A directory as a killed console leaves it, with the file of an interrupted write.
    fs::path leave(const std::string& name, std::chrono::hours age) const {
        const auto directory = base_.path() / name;
        fs::create_directory(directory);
        test::writeFileAtomically(directory / "launch-token", "token");
        test::writeFileAtomically(directory / ".brindle-abcdef", "tok");
        fs::create_directories(directory / "data/runtime");
        fs::last_write_time(directory, fs::file_time_type::clock::now() - age);
        return directory;
    }

    test::TemporaryDirectory base_;
    std::optional<std::string> before_;
};

constexpr std::chrono::hours long_ago{25};
constexpr std::chrono::hours recently{23};

TEST_F(EarlierTicket, GoesADayAfterItsConsoleWasKilled) {
    const auto old = leave("brindle-console-000000", long_ago);
    const auto young = leave("brindle-console-111111", recently);
    const LaunchTicket ticket;
    EXPECT_FALSE(fs::exists(old));
    EXPECT_TRUE(fs::exists(young / "launch-token"));
}

TEST_F(EarlierTicket, OfAConsoleThatStillRunsStays) {
    const LaunchTicket running;
    const auto directory = fs::path(running.file()).parent_path();
    fs::last_write_time(directory, fs::file_time_type::clock::now() - long_ago);
    const LaunchTicket ticket;
    EXPECT_TRUE(fs::exists(running.file()));
}

TEST_F(EarlierTicket, OfAnotherUserStays) {
    if (!test::isRoot()) GTEST_SKIP() << "Only root can make files that belong to another user.";
    const auto his = leave("brindle-console-000000", long_ago);
    test::giveTo(test::another_user, his);
    const LaunchTicket ticket;
    EXPECT_TRUE(fs::exists(his / "launch-token"));
}

TEST_F(EarlierTicket, IsNothingElseThanATicket) {
    const auto stranger = leave("brindle-something", long_ago);
    const auto full = leave("brindle-console-000000", long_ago);
    test::writeFileAtomically(full / "notes.txt", "mine");
    fs::last_write_time(full, fs::file_time_type::clock::now() - long_ago);
    fs::create_directory_symlink(stranger, base_.path() / "brindle-console-222222");
    const LaunchTicket ticket;
    EXPECT_TRUE(fs::exists(stranger / "launch-token"));
    EXPECT_TRUE(fs::exists(full / "notes.txt"));
    EXPECT_TRUE(fs::is_symlink(base_.path() / "brindle-console-222222"));
}

}  // namespace
}  // namespace brindle::console

#include "entry/LaunchAuthentication.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"

namespace brindle {
namespace {

const std::string token = "0123456789abcdef0123456789ABCDEF";

class LaunchAuthenticationTests : public testing::Test {
  protected:
    std::string file() const { return (directory_.path() / "token").string(); }
    bool isAuthenticated(const std::string& value, const std::string& content) {
        test::writeFileAtomically(file(), content);
        return isAuthenticatedBy(
            {{"BRINDLE_HELPER_LAUNCH_TOKEN", value}, {"BRINDLE_HELPER_LAUNCH_TOKEN_FILE", file()}});
    }
    bool isAuthenticatedBy(const Environment& environment) {
        return isLaunchAuthenticated(environment, files_);
    }

    test::TemporaryDirectory directory_;
    PosixFileManager files_;
};

TEST_F(LaunchAuthenticationTests, TokenThatEqualsItsFileIsAccepted) {
    EXPECT_TRUE(isAuthenticated(token, token));
}

TEST_F(LaunchAuthenticationTests, WhiteSpaceAroundTokenAndContentDoesNotMatter) {
    EXPECT_TRUE(isAuthenticated(" \t" + token + "\u00A0\n", "\u2028" + token + "\r\n"));
}

TEST_F(LaunchAuthenticationTests, WhiteSpaceAroundTheFilesPathDoesNotMatter) {
    test::writeFileAtomically(file(), token);
    EXPECT_TRUE(isAuthenticatedBy(
        {{"BRINDLE_HELPER_LAUNCH_TOKEN", token}, {"BRINDLE_HELPER_LAUNCH_TOKEN_FILE", " " + file() + "\n"}}));
}

TEST_F(LaunchAuthenticationTests, DifferentTokenIsRefused) {
    EXPECT_FALSE(isAuthenticated(token, "x" + token.substr(1)));
    EXPECT_FALSE(isAuthenticated(token, token.substr(0, 31) + "x"));
    EXPECT_FALSE(isAuthenticated(token, token + "x"));
    EXPECT_FALSE(isAuthenticated(token + "x", token));
    EXPECT_FALSE(isAuthenticated(token, token + "\n" + token));
    EXPECT_FALSE(isAuthenticated(token, ""));
}

TEST_F(LaunchAuthenticationTests, TokenIsCaseSensitive) {
    EXPECT_FALSE(isAuthenticated(token, "0123456789ABCDEF0123456789abcdef"));
}

TEST_F(LaunchAuthenticationTests, ShortTokenIsRefusedThoughItEqualsItsFile) {
    EXPECT_FALSE(isAuthenticated(token.substr(1), token.substr(1)));
    EXPECT_FALSE(isAuthenticated(" " + token.substr(1) + " ", token.substr(1)));
}

TEST_F(LaunchAuthenticationTests, LengthIsCountedInUserPerceivedCharacters) {
    std::string combined;
    for (int i = 0; i < 31; ++i) combined += "e\u0301";
    EXPECT_FALSE(isAuthenticated(combined, combined));
    EXPECT_TRUE(isAuthenticated(combined + "x", combined + "x"));
}

TEST_F(LaunchAuthenticationTests, CanonicallyEquivalentTokensAreTheSame) {
    EXPECT_TRUE(isAuthenticated(token + "\u00E9", token + "e\u0301"));
}

TEST_F(LaunchAuthenticationTests, FileThatIsNotTextIsRefused) {
    EXPECT_FALSE(isAuthenticated(token, token + "\xFF"));
    EXPECT_FALSE(isAuthenticated(token + "\xFF", token + "\xFF"));
    EXPECT_FALSE(isAuthenticated(token, token + std::string("\0", 1)));
}

TEST_F(LaunchAuthenticationTests, BothSettingsAreNeeded) {
    test::writeFileAtomically(file(), token);
    EXPECT_FALSE(isAuthenticatedBy({}));
    EXPECT_FALSE(isAuthenticatedBy({{"BRINDLE_HELPER_LAUNCH_TOKEN", token}}));
    EXPECT_FALSE(isAuthenticatedBy({{"BRINDLE_HELPER_LAUNCH_TOKEN_FILE", file()}}));
    EXPECT_FALSE(isAuthenticatedBy(
        {{"BRINDLE_HELPER_LAUNCH_TOKEN", " "}, {"BRINDLE_HELPER_LAUNCH_TOKEN_FILE", file()}}));
    EXPECT_FALSE(isAuthenticatedBy(
        {{"BRINDLE_HELPER_LAUNCH_TOKEN", token}, {"BRINDLE_HELPER_LAUNCH_TOKEN_FILE", " "}}));
}

TEST_F(LaunchAuthenticationTests, FileThatCannotBeReadIsRefusedAtOnce) {
    const auto accepts = [&](const std::string& path) {
        return isAuthenticatedBy(
            {{"BRINDLE_HELPER_LAUNCH_TOKEN", token}, {"BRINDLE_HELPER_LAUNCH_TOKEN_FILE", path}});
    };
    ASSERT_EQ(::mkfifo((directory_.path() / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(accepts(directory_.path() / "missing"));
    EXPECT_FALSE(accepts(directory_.path() / "fifo"));
    EXPECT_FALSE(accepts(directory_.path()));
    EXPECT_FALSE(accepts("/dev/zero"));
}

}  // namespace
}  // namespace brindle

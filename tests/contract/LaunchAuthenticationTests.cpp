#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Requests.h"
#include "support/TemporaryDirectory.h"

namespace brindle::test {
namespace {

constexpr const char* token_key = "BRINDLE_HELPER_LAUNCH_TOKEN";
constexpr const char* file_key = "BRINDLE_HELPER_LAUNCH_TOKEN_FILE";
constexpr const char* data_directory_key = "BRINDLE_MANAGED_BRIDGE_DATA_DIR";
constexpr const char* refusal = "This component must be launched by Brindle.\n";
constexpr int refused_launch = 64;

std::string repeated(const std::string& text, int count) {
    std::string result;
    for (int index = 0; index < count; ++index) result += text;
    return result;
}

const std::string& goodToken() {
    static const std::string token = "0123456789abcdef0123456789abcdef";
    return token;
}

class LaunchAuthentication : public testing::Test {
  protected:
    LaunchAuthentication() {
        options_.environment[data_directory_key] = dataDirectory();
        setToken(goodToken());
        setFile(goodToken());
    }

    std::filesystem::path dataDirectory() const { return options_.dataDirectory->path() / "made-by-backend"; }
    std::filesystem::path tokenFile() const { return directory_.path() / "token"; }

    void setToken(const std::string& text) { options_.environment[token_key] = text; }
    void setFile(const std::string& content) {
        writeFileAtomically(tokenFile(), content);
        setPath(tokenFile());
    }
    void setPath(const std::string& path) { options_.environment[file_key] = path; }

    void expectAccepted() {
        BackendProcess process(options_);
        EXPECT_EQ(process.finish(), (std::vector<std::string>{hello_line, disconnected_line}));
        EXPECT_EQ(process.waitForExit(), exitedWith(0));
    }

    /// One line on standard error, status 64, and nothing else happened.
    void expectRefused() {
        BackendProcess process(options_);
        EXPECT_EQ(process.waitForExit(), exitedWith(refused_launch));
        EXPECT_EQ(process.rawOutput(), "");
        EXPECT_EQ(process.standardError(), refusal);
        EXPECT_FALSE(std::filesystem::exists(dataDirectory()));
    }

    TemporaryDirectory directory_;
    BackendOptions options_;
};

TEST_F(LaunchAuthentication, SameTokenInEnvironmentAndFileIsAccepted) {
    expectAccepted();
}

TEST_F(LaunchAuthentication, TokenOf31CharactersIsRefused) {
    const auto token = goodToken().substr(1);
    setToken(token);
    setFile(token);
    expectRefused();
}

TEST_F(LaunchAuthentication, LineFeedAfterTheTokenInTheFileIsHarmless) {
    setFile(goodToken() + "\n");
    expectAccepted();
}

TEST_F(LaunchAuthentication, SpacesAroundTheTokenInTheEnvironmentAreHarmless) {
    setToken("  " + goodToken() + " \t\r\n");
    expectAccepted();
}

TEST_F(LaunchAuthentication, SpacesAroundTheTokenInTheFileAreHarmless) {
    setFile(" \t\r\n" + goodToken() + "\v\f ");
    expectAccepted();
}

TEST_F(LaunchAuthentication, UnicodeWhiteSpaceAroundTheTokenIsHarmless) {
    setToken("\u00a0\u1680\u2003\u3000" + goodToken() + "\u202f\u205f");
    setFile("\u0085\u2028" + goodToken() + "\u2029\u2009");
    expectAccepted();
}

TEST_F(LaunchAuthentication, WhiteSpaceInsideTheTokenCounts) {
    setFile(goodToken().substr(0, 16) + " " + goodToken().substr(16));
    expectRefused();
}

TEST_F(LaunchAuthentication, SpacesAroundThePathAreHarmless) {
    setPath(" \t" + tokenFile().string() + "\u00a0\n");
    expectAccepted();
}

TEST_F(LaunchAuthentication, TrimmedWhiteSpaceDoesNotCountAsCharacters) {
    setToken(goodToken().substr(4) + "    ");
    setFile(goodToken().substr(4) + "    ");
    expectRefused();
}

TEST_F(LaunchAuthentication, AbsentTokenIsRefused) {
    options_.environment.erase(token_key);
    expectRefused();
}

TEST_F(LaunchAuthentication, EmptyTokenIsRefused) {
    setToken("");
    setFile("");
    expectRefused();
}

TEST_F(LaunchAuthentication, BlankTokenIsRefused) {
    setToken(repeated(" ", 40));
    setFile(repeated(" ", 40));
    expectRefused();
}

TEST_F(LaunchAuthentication, AbsentPathIsRefused) {
    options_.environment.erase(file_key);
    expectRefused();
}

TEST_F(LaunchAuthentication, BlankPathIsRefused) {
    setPath(" \n\t");
    expectRefused();
}

TEST_F(LaunchAuthentication, EmptyEnvironmentIsRefused) {
    options_.environment.clear();
    expectRefused();
}

TEST_F(LaunchAuthentication, PathOfADirectoryIsRefused) {
    setPath(directory_.path());
    expectRefused();
}

TEST_F(LaunchAuthentication, PathOfAMissingFileIsRefused) {
    setPath(directory_.path() / "missing");
    expectRefused();
}

TEST_F(LaunchAuthentication, FileThatCannotBeReadIsRefused) {
    setPath("/proc/self/mem");
    expectRefused();
}

TEST_F(LaunchAuthentication, PipeInPlaceOfTheFileIsRefusedAndNotWaitedFor) {
    const auto pipe = directory_.path() / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    setPath(pipe);
    expectRefused();
}

TEST_F(LaunchAuthentication, EmptyFileIsRefused) {
    setFile("");
    expectRefused();
}

TEST_F(LaunchAuthentication, OtherTokenInTheFileIsRefused) {
    setFile("fedcba9876543210fedcba9876543210");
    expectRefused();
}

TEST_F(LaunchAuthentication, TokenThatOnlyBeginsLikeTheFileIsRefused) {
    setFile(goodToken() + "0");
    expectRefused();
}

TEST_F(LaunchAuthentication, FileThatOnlyBeginsLikeTheTokenIsRefused) {
    setToken(goodToken() + "0");
    expectRefused();
}

TEST_F(LaunchAuthentication, FurtherLineInTheFileIsRefused) {
    setFile(goodToken() + "\n" + goodToken() + "\n");
    expectRefused();
}

TEST_F(LaunchAuthentication, OtherLetterCaseIsRefused) {
    setFile("0123456789ABCDEF0123456789ABCDEF");
    expectRefused();
}

TEST_F(LaunchAuthentication, FileThatIsNotUtf8IsRefused) {
    setToken(goodToken() + "\xff");
    setFile(goodToken() + "\xff");
    expectRefused();
}

TEST_F(LaunchAuthentication, OverlongFormInTheFileIsRefused) {
    setFile(goodToken().substr(1) + "\xc0\xb0");
    expectRefused();
}

TEST_F(LaunchAuthentication, RelativePathIsTakenFromTheWorkingDirectory) {
    options_.workingDirectory = directory_.path();
    setPath("token");
    expectAccepted();
}

TEST_F(LaunchAuthentication, PathMayBeASymbolicLinkToTheFile) {
    const auto link = directory_.path() / "link";
    std::filesystem::create_symlink(tokenFile(), link);
    setPath(link);
    expectAccepted();
}

TEST_F(LaunchAuthentication, PermissionsOfTheFilePlayNoPart) {
    std::filesystem::permissions(tokenFile(), std::filesystem::perms::all);
    expectAccepted();
}

TEST_F(LaunchAuthentication, FileIsNeitherChangedNorRemoved) {
    setFile(" " + goodToken() + "\n");
    struct stat before {};
    ASSERT_EQ(::stat(tokenFile().c_str(), &before), 0);
    expectAccepted();
    struct stat after {};
    ASSERT_EQ(::stat(tokenFile().c_str(), &after), 0);
    EXPECT_EQ(readFile(tokenFile()), " " + goodToken() + "\n");
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
}

/// Texts that a reader sees as one character each, however many code points they take.
class LaunchAuthenticationCharacter : public LaunchAuthentication,
                                      public testing::WithParamInterface<const char*> {};

TEST_P(LaunchAuthenticationCharacter, TokenOf31IsRefused) {
    const auto token = "x" + repeated(GetParam(), 29) + "y";
    setToken(token);
    setFile(token);
    expectRefused();
}

TEST_P(LaunchAuthenticationCharacter, TokenOf32IsAccepted) {
    const auto token = "x" + repeated(GetParam(), 30) + "y";
    setToken(token);
    setFile(token);
    expectAccepted();
}

INSTANTIATE_TEST_SUITE_P(Clusters, LaunchAuthenticationCharacter,
                         testing::Values("e\u0301",             // letter and combining accent
                                         "\u00e9",              // composed letter
                                         "\u1100\u1161\u11a8",  // conjoining syllable
                                         "\U0001f468\u200d\U0001f469\u200d\U0001f467",  // joined emoji
                                         "\U0001f44d\U0001f3fd",  // emoji with skin tone
                                         "\U0001f1e9\U0001f1ea",  // pair of regional indicators
                                         "\r\n"));

TEST_F(LaunchAuthentication, ComposedTokenEqualsDecomposedFile) {
    setToken("caf\u00e9" + goodToken());
    setFile("cafe\u0301" + goodToken());
    expectAccepted();
}

TEST_F(LaunchAuthentication, DecomposedTokenEqualsComposedFile) {
    setToken("\u1100\u1161\u11a8" + goodToken());
    setFile("\uac01" + goodToken());
    expectAccepted();
}

TEST_F(LaunchAuthentication, OrderOfIndependentAccentsDoesNotMatter) {
    setToken("q\u0307\u0323" + goodToken());
    setFile("q\u0323\u0307" + goodToken());
    expectAccepted();
}

TEST_F(LaunchAuthentication, SingletonEquivalentsAreEqual) {
    setToken("\u212b" + goodToken());
    setFile("\u00c5" + goodToken());
    expectAccepted();
}

TEST_F(LaunchAuthentication, MerelyCompatibleCharactersAreDifferent) {
    setToken("\ufb01" + goodToken());
    setFile("fi" + goodToken());
    expectRefused();
}

TEST_F(LaunchAuthentication, AccentMakesADifference) {
    setToken("caf\u00e9" + goodToken());
    setFile("cafe" + goodToken());
    expectRefused();
}

TEST_F(LaunchAuthentication, RefusalPrecedesTheChoiceOfRole) {
    options_.environment["BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"] = "runtime-worker";
    options_.environment.erase(token_key);
    expectRefused();
}

TEST_F(LaunchAuthentication, RefusalPrecedesThePlatform) {
    options_.arguments = {"--platform", "signal"};
    options_.environment.erase(token_key);
    expectRefused();
}

TEST_F(LaunchAuthentication, RefusalWithoutErrorStreamKeepsItsStatus) {
    options_.environment.erase(token_key);
    options_.closeStderr = true;
    BackendProcess process(options_);
    EXPECT_EQ(process.waitForExit(), exitedWith(refused_launch));
    EXPECT_EQ(process.rawOutput(), "");
}

TEST_F(LaunchAuthentication, RefusalReadsNoInput) {
    options_.environment.erase(token_key);
    BackendProcess process(options_);
    EXPECT_EQ(process.waitForExit(), exitedWith(refused_launch));  // The input is still open.
    EXPECT_EQ(process.standardError(), refusal);
}

TEST_F(LaunchAuthentication, WorkerRoleIsNotRefusedWithTheToken) {
    options_.environment["BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"] = "runtime-worker";
    BackendProcess process(options_);
    process.waitUntil(
        [&] {
            return !process.isRunning() || std::filesystem::exists(dataDirectory() / "runtime/worker.pid");
        },
        "the worker to come up or to give up");
    EXPECT_EQ(process.standardError().find(refusal), std::string::npos);
    if (!process.isRunning()) {
        EXPECT_NE(process.waitForExit(), exitedWith(refused_launch));
    }
}

TEST(LaunchToken, NeverAppearsInOutputOrFiles) {
    BackendProcess process;
    const auto token = process.options().launchToken->value();
    process.connectAndListen();
    process.writeInboundRaw("broken.json", "{");
    process.waitForFile("rejected/broken.json");
    process.writeInbound("fine.json", inboundRecord("m-1", "hello"));
    process.waitForFile("processed/fine.json");
    process.send(sendMessageRequest(teamRoomMessage("written")));
    const auto record = process.path("outbound") / process.waitForEntries("outbound", 1).front();
    EXPECT_EQ(readFile(record).find(token), std::string::npos);
    process.send("{");
    makeVanish(process.path("outbound"));
    process.send(sendMessageRequest(teamRoomMessage("cannot be written")));
    const auto lines = process.finish();
    EXPECT_NE(errorMessageOf(lines.back()).find("outbound"), std::string::npos) << lines.back();
    EXPECT_EQ(process.rawOutput().find(token), std::string::npos);
    EXPECT_EQ(process.standardError().find(token), std::string::npos);
    int files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(process.path())) {
        if (!entry.is_regular_file()) continue;
        ++files;
        EXPECT_EQ(readFile(entry.path()).find(token), std::string::npos) << entry.path();
    }
    EXPECT_GE(files, 4);
}

TEST(LaunchToken, DoesNotAppearWhenTheBackendFails) {
    BackendOptions options;
    writeFileAtomically(options.dataDirectory->path() / "obstacle", "");
    options.environment[data_directory_key] = options.dataDirectory->path() / "obstacle/data";
    BackendProcess process(options);
    process.waitForExit();
    EXPECT_NE(process.standardError(), "");
    EXPECT_EQ(process.standardError().find(options.launchToken->value()), std::string::npos);
}

}  // namespace
}  // namespace brindle::test

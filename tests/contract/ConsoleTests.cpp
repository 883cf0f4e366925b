#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/QRPictures.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"
#include "support/WorkerScript.h"

namespace brindle::test {
namespace {

using namespace std::string_view_literals;
namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* escape_character = "\033";

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text.append(line).append("\n");
    return text;
}

/// Runs the console as a program that an integrating engineer or a build server starts.
class ConsoleTest : public testing::Test {
  protected:
    /// Whatever the console does, it leaves nothing in the temporary directory.
    void TearDown() override {
        console_.reset();
        EXPECT_THAT(namesIn(temporary_.path()), IsEmpty());
    }

    BackendOptions optionsFor(std::vector<std::string> arguments) const {
        BackendOptions options;
        options.executable = consoleExecutable();
        options.arguments = std::move(arguments);
        options.environment["TMPDIR"] = temporary_.path();
        options.dataDirectory = data_;
        options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = data_->path();
        return options;
    }

    BackendProcess& start(std::vector<std::string> arguments = {}) {
        return startWith(optionsFor(std::move(arguments)));
    }

    BackendProcess& startWith(BackendOptions options) {
        console_ = std::make_unique<BackendProcess>(std::move(options));
        return *console_;
    }

    std::string scriptWith(std::string_view content) const {
        const auto file = files_.path() / "check.console";
        writeFileAtomically(file, content);
        return file.string();
    }

    BackendProcess& startScript(std::string_view content, std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.end(), {"--script", scriptWith(content)});
        return start(std::move(arguments));
    }

    /// A file that nobody can execute.
    std::string plainFile() const {
        const auto file = files_.path() / "plain";
        writeFileAtomically(file, "not a program");
        fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
        return file.string();
    }

    /// A program that stands in for the helper.
    std::vector<std::string> helperThat(std::string_view body) const {
        return {"--helper", writeScript(files_.path() / "helper", body).string()};
    }

    TemporaryDirectory temporary_;
    TemporaryDirectory files_;
    std::shared_ptr<TemporaryDirectory> data_ = std::make_shared<TemporaryDirectory>();
    std::unique_ptr<BackendProcess> console_;
};

/// The next line that is not an envelope's time stamp: everything after "12:34:56 ".
std::string withoutTime(const std::string& line) {
    constexpr std::size_t time_length = std::string_view("12:34:56 ").size();
    return line.size() > time_length ? line.substr(time_length) : line;
}

void waitForGreeting(BackendProcess& console) {
    EXPECT_THAT(withoutTime(console.nextLine()), HasSubstr("<-- hello: "));
    EXPECT_THAT(withoutTime(console.nextLine()), testing::Eq("<-- stateChanged.disconnected"));
}

void waitUntilGone(pid_t process) {
    waitUntil([&] { return !processIsRunning(process); }, "the end of process " + std::to_string(process));
}

TEST_F(ConsoleTest, ScriptThatIsMetEndsWithZero) {
    auto& console = startScript(
        "# greets\n"
        "expect hello containing managed-whatsapp-backend-3\n"
        "connect\n"
        "expect stateChanged.connecting\n"
        "expect stateChanged.connected\n"
        "listen test 'Smoke / test'\n"
        "expect inboundEvent containing 'Smoke / test' within 30\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_EQ(console.standardError(), "");
    const auto output = console.rawOutput();
    EXPECT_THAT(output, HasSubstr("> connect\n"));
    EXPECT_THAT(output, HasSubstr("--> connect\n"));
    EXPECT_THAT(output, HasSubstr("--> startListening: test \"Smoke / test\"\n"));
    EXPECT_THAT(output, testing::ContainsRegex("\n[0-9:]+ Brindle Managed [^:]*: "));
}

TEST_F(ConsoleTest, ScriptThatIsNotMetNamesFileAndLine) {
    auto& console = startScript("connect\n\nexpect error containing nonsense within 0.1\nquit\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardError(),
              console.options().arguments.back() +
                  ":3: Expected error containing \"nonsense\", which did not come within 0.1 s.\n");
    EXPECT_THAT(console.rawOutput(), Not(HasSubstr("> quit")));
}

TEST_F(ConsoleTest, ExpectationsConsumeInOrder) {
    auto& console = startScript(
        "connect\n"
        "expect stateChanged.connected\n"
        "expect stateChanged.connecting within 0.1\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(), HasSubstr(":3: Expected stateChanged.connecting"));
}

TEST_F(ConsoleTest, ScriptWithAMistakeStartsNothing) {
    auto& console = startScript("connect\nconect\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardError(), console.options().arguments.back() +
                                           ":2: Unknown command \"conect\"; \"help\" lists the commands.\n");
    EXPECT_EQ(console.rawOutput(), "");
    EXPECT_THAT(namesIn(data_->path()), IsEmpty());
}

TEST_F(ConsoleTest, ScriptThatIsMissingIsOneSentence) {
    auto& console = start({"--script", "/no/such/script"});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardErrorLines().size(), 1U);
    EXPECT_THAT(console.standardError(), HasSubstr("/no/such/script"));
}

TEST_F(ConsoleTest, CommandsComeFromAPipeToo) {
    auto& console = start();
    console.send("connect");
    EXPECT_THAT(joined(console.finish()), HasSubstr("<-- stateChanged.connected: "));
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_EQ(console.standardError(), "");
}

TEST_F(ConsoleTest, AFailureInAPipeNamesItsLine) {
    auto& console = start();
    console.send("connect");
    console.send("send room");
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(), HasSubstr("standard input:2: Usage: send "));
}

TEST_F(ConsoleTest, EndOfInputAtOnceEndsWithZero) {
    auto& console = start();
    const auto lines = console.finish();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
}

TEST_F(ConsoleTest, WithoutStandardInputEndsWithZero) {
    auto options = optionsFor({});
    options.closeStdin = true;
    EXPECT_EQ(startWith(std::move(options)).waitForExit(), exitedWith(0));
}

TEST_F(ConsoleTest, QuitEndsTheHelper) {
    auto& console = start();
    waitForGreeting(console);
    const auto helper = waitForOnlyChild(console.pid());
    console.send("quit");
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_FALSE(processIsRunning(helper));
}

class ConsoleSignalTest : public ConsoleTest, public testing::WithParamInterface<int> {};

TEST_P(ConsoleSignalTest, EndsTheHelperAndThenItself) {
    auto& console = start();
    waitForGreeting(console);
    const auto helper = waitForOnlyChild(console.pid());
    console.signal(GetParam());
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_FALSE(processIsRunning(helper));
}

TEST_P(ConsoleSignalTest, EndsEvenThoughNobodyReadsWhatItShows) {
    constexpr int pipe_bytes = 4096;
    constexpr std::size_t line_bytes = std::size_t{16} * pipe_bytes;
    auto options = optionsFor({});
    options.stdoutPipeBytes = pipe_bytes;
    auto& console = startWith(std::move(options));
    waitForGreeting(console);
    const auto helper = waitForOnlyChild(console.pid());
    console.pauseReadingOutput();
    console.send("raw " + std::string(line_bytes, 'x'));
    // A pipe never parts with less than a page of room.
    console.waitUntil([&] { return console.unreadOutputBytes() == pipe_bytes; }, "a full output pipe");
    console.signal(GetParam());
    console.waitUntil([&] { return !console.isRunning(); }, "the end of the console");
    EXPECT_FALSE(processIsRunning(helper));
    console.resumeReadingOutput();
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
}

TEST_P(ConsoleSignalTest, EndsEvenThoughNobodyReadsTheHelpersLog) {
    constexpr std::size_t pipe_bytes = 4096;
    constexpr std::size_t line_bytes = 100;
    auto options =
        optionsFor(helperThat("while :; do echo 'a line of the log' >&2; done &\n"
                              "cat >/dev/null\nkill $!\n"));
    options.stderrPipeBytes = pipe_bytes;
    auto& console = startWith(std::move(options));
    console.waitForStandardError("a line of the log");
    const auto helper = childrenOf(console.pid());
    ASSERT_EQ(helper.size(), 1U);
    console.pauseReadingError();
    console.waitUntil([&] { return console.unreadErrorBytes() > pipe_bytes - line_bytes; },
                      "a full error pipe");
    console.signal(GetParam());
    console.waitUntil([&] { return !console.isRunning(); }, "the end of the console");
    EXPECT_FALSE(processIsRunning(helper.front()));
    console.resumeReadingError();
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
}

INSTANTIATE_TEST_SUITE_P(Signals, ConsoleSignalTest, testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_P(ConsoleSignalTest, EndsWithASentenceWhereItCanNoLongerWaitForOne) {
    auto& console = start();
    waitForGreeting(console);
    const auto helper = waitForOnlyChild(console.pid());
    const rlimit none{.rlim_cur = 0, .rlim_max = 0};
    ASSERT_EQ(::prlimit(console.pid(), RLIMIT_NOFILE, &none, nullptr), 0);
    console.signal(GetParam());
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(), HasSubstr("Cannot wait for input any longer: Invalid argument."));
    waitUntilGone(helper);
}

class ConsoleOtherSignalTest : public ConsoleTest, public testing::WithParamInterface<int> {};

TEST_P(ConsoleOtherSignalTest, LeavesNoTicketBehindEither) {
    auto& console = start();
    waitForGreeting(console);
    console.signal(GetParam());
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
}

INSTANTIATE_TEST_SUITE_P(Signals, ConsoleOtherSignalTest,
                         testing::Values(SIGQUIT, SIGALRM, SIGUSR1, SIGABRT, SIGXCPU));

TEST_F(ConsoleTest, HelperIsOutOfReachOfTheTerminalsSignals) {
    auto& console = start();
    waitForGreeting(console);
    const auto helper = waitForOnlyChild(console.pid());
    EXPECT_EQ(::getpgid(helper), helper);
    EXPECT_NE(::getpgid(console.pid()), helper);
    console.finish();
}

TEST_F(ConsoleTest, HelperGetsATokenAndItsPrivateFile) {
    auto& console = start();
    waitForGreeting(console);
    const auto environment = environmentOf(waitForOnlyChild(console.pid()));
    const fs::path file = environment.at("BRINDLE_HELPER_LAUNCH_TOKEN_FILE");
    EXPECT_EQ(file.parent_path().parent_path(), temporary_.path());
    EXPECT_EQ(readFile(file), environment.at("BRINDLE_HELPER_LAUNCH_TOKEN"));
    EXPECT_GE(readFile(file).size(), 32U);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    console.finish();
}

TEST_F(ConsoleTest, HelperThatIsMissingIsOneSentence) {
    auto& console = start({"--helper", "/no/such/helper"});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardError(),
              "Cannot start the helper /no/such/helper: No such file or directory.\n");
}

TEST_F(ConsoleTest, HelperThatRefusesIsOneSentence) {
    auto& console = start(helperThat("exit 64"));
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardErrorLines().size(), 1U);
    EXPECT_THAT(console.standardError(),
                HasSubstr("The helper ended with exit status 64: it refused the launch"));
}

TEST_F(ConsoleTest, HelperThatEndsFirstIsReportedWithItsStatus) {
    auto& console =
        start(helperThat("echo '{\"hello\":{\"_0\":{\"platform\":\"p\",\"bridgeVersion\":\"v\"}}}'\n"
                         "read line\nexit 7"));
    EXPECT_THAT(console.nextLine(), HasSubstr("<-- hello: "));
    console.send("connect");
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardError(), "The helper ended with exit status 7.\n");
}

TEST_F(ConsoleTest, HelperThatIsKilledIsReportedWithItsSignal) {
    auto& console = start();
    waitForGreeting(console);
    ASSERT_EQ(::kill(waitForOnlyChild(console.pid()), SIGKILL), 0);
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardError(), "The helper was ended by signal 9 (Killed).\n");
}

TEST_F(ConsoleTest, HelperThatEndsDuringAnExpectationIsReportedWithFileAndLine) {
    const auto helper = helperThat(
        "echo '{\"hello\":{\"_0\":{\"platform\":\"p\",\"bridgeVersion\":\"v\"}}}'\n"
        "read line\nexit 3");
    auto& console = startScript("connect\nexpect stateChanged.connected\n", helper);
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(),
                HasSubstr("check.console:2: The helper ended with exit status 3 while"));
}

TEST_F(ConsoleTest, HelperThatDoesNotEndByItselfIsKilledWithAllItStarted) {
    auto& console =
        start(helperThat("trap '' TERM\n"
                         "echo '{\"hello\":{\"_0\":{\"platform\":\"p\",\"bridgeVersion\":\"v\"}}}'\n"
                         "sleep 1000 &\n"
                         "echo $! >&2\n"
                         "while :; do wait; done"));
    console.nextLine();
    const auto said =
        console.waitForStandardErrorWhere([](const std::string& all) { return all.ends_with("\n"); });
    const auto started = static_cast<pid_t>(std::stol(said.substr(said.find("| ") + 2)));
    const auto helper = childrenOf(console.pid());
    ASSERT_EQ(helper.size(), 1U);
    console.send("quit");
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(),
                HasSubstr("The helper does not end by itself and is being killed.\n"));
    EXPECT_FALSE(processIsRunning(helper.front()));
    waitUntilGone(started);
}

TEST_F(ConsoleTest, LosingItsReaderEndsTheHelper) {
    auto& console = start();
    waitForGreeting(console);
    const auto helper = waitForOnlyChild(console.pid());
    console.closeOutputReader();
    console.send("connect");
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_FALSE(processIsRunning(helper));
}

TEST_F(ConsoleTest, HelperEndsWhenTheConsoleIsKilled) {
    auto& console = start();
    waitForGreeting(console);
    const auto helper = waitForOnlyChild(console.pid());
    const fs::path tokenFile = environmentOf(helper).at("BRINDLE_HELPER_LAUNCH_TOKEN_FILE");
    console.signal(SIGKILL);
    console.waitForExit();
    waitUntilGone(helper);
    // A killed console cannot clear up after itself.
    fs::remove_all(tokenFile.parent_path());
}

TEST_F(ConsoleTest, JsonShowsBareLinesAndNothingElse) {
    auto& console =
        startScript("expect stateChanged.disconnected\nconnect\nexpect stateChanged.connected\n", {"--json"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    std::vector<std::string> cases;
    for (const auto& line : console.receivedLines()) cases.push_back(Json::parse(line).firstName());
    EXPECT_THAT(cases, ElementsAre("hello", "stateChanged", "connect", "stateChanged", "stateChanged"));
    EXPECT_EQ(console.receivedLines()[2], R"({"connect":{"_0":{"platform":"whatsapp"}}})");
}

TEST_F(ConsoleTest, HasNoColorsInAPipe) {
    auto& console = startScript("connect\nexpect stateChanged.connected\nexpect error within 0.05\n",
                                {"--worker", plainFile()});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.rawOutput(), Not(HasSubstr(escape_character)));
    EXPECT_THAT(console.standardError(), Not(HasSubstr(escape_character)));
}

TEST_F(ConsoleTest, HasColorsWhenTheyAreAskedFor) {
    auto& console = startScript("connect\nexpect stateChanged.connected\n", {"--color", "always"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_THAT(console.rawOutput(), HasSubstr(escape_character));
}

TEST_F(ConsoleTest, ShowsTheHelpersStandardErrorSeparately) {
    const auto worker = plainFile();
    auto& console = start({"--worker", worker});
    console.waitForStandardError(
        "helper| [ManagedWhatsAppBackend] Configured worker executable is not executable: " + worker + "\n");
    console.finish();
    EXPECT_THAT(console.rawOutput(), Not(HasSubstr("[ManagedWhatsAppBackend]")));
}

TEST_F(ConsoleTest, MarksLinesThatAreNoEnvelopes) {
    auto& console =
        start(helperThat("echo '{\"hello\":{\"_0\":{\"platform\":\"p\",\"bridgeVersion\":\"v\"}}}'\n"
                         "printf 'half\\033 a line'\nread line\nexit 0"));
    const auto output = joined(console.finish());
    EXPECT_THAT(output, HasSubstr("<-- (not an envelope) half? a line\n"));
}

TEST_F(ConsoleTest, RawSendsWhatStandsThere) {
    auto& console = startScript(
        "raw {\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}},\"note\":1}\n"
        "expect stateChanged.connected\n"
        "raw not json\n"
        "expect error\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_THAT(console.rawOutput(), HasSubstr("--> (not an envelope) not json\n"));
}

TEST_F(ConsoleTest, SaysThatARequestForAnotherPlatformIsPassedOver) {
    auto& console = startScript(R"(raw {"connect":{"_0":{"platform":"semaphore"}}})"
                                "\n"
                                R"(raw {"connect":{"_0":{"platform":"whatsapp"}}})"
                                "\n",
                                {"--no-worker"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_EQ(console.standardError(),
              "The helper serves the platform \"whatsapp\" and passes over what is for \"semaphore\".\n");
}

TEST_F(ConsoleTest, ASilentHelperFailsAScript) {
    auto& console = startScript("connect\n", helperThat("read line\n"));
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(),
                HasSubstr("Expected the helper's hello, which did not come within 10 s."));
}

TEST_F(ConsoleTest, SendCarriesReplyAndAttachments) {
    const auto image = files_.path() / "picture.bin";
    writeFileAtomically(image, "\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x01\0\0\0\x01\x08\x06\0\0\0"sv);
    const auto note = files_.path() / "note.txt";
    writeFileAtomically(note, "hello");
    auto& console = startScript("send team-room \"On my way\\nhome\" --reply m-17 --attach " +
                                image.string() + " --attach " + note.string() + "\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    const auto names = console.waitForEntries("outbound", 1);
    const auto record = console.readJson(fs::path("outbound") / names.front());
    EXPECT_EQ(record.at("conversationId"), "team-room");
    EXPECT_EQ(record.at("text"), "On my way\nhome");
    EXPECT_EQ(record.at("replyToMessageId"), "m-17");
    const auto& attachments = record.at("attachments");
    ASSERT_EQ(attachments.size(), 2U);
    EXPECT_EQ(attachments[0].at("kind"), "image");
    EXPECT_EQ(attachments[0].at("mimeType"), "image/png");
    EXPECT_EQ(attachments[1], (Json{{"dataBase64", "aGVsbG8="},
                                    {"fileName", "note.txt"},
                                    {"kind", "document"},
                                    {"mimeType", "text/plain"}}));
}

TEST_F(ConsoleTest, SendPassesAnAttachmentLargerThanAnyPipe) {
    const auto file = files_.path() / "large";
    // 2 MiB of text; no pipe holds more than one.
    constexpr std::size_t content_bytes = std::size_t{3} << 19U;
    writeFileAtomically(file, std::string(content_bytes, 'x'));
    auto& console = startScript("send team-room big --attach " + file.string() + "\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    const auto names = console.waitForEntries("outbound", 1);
    const auto record = console.readJson(fs::path("outbound") / names.front());
    EXPECT_EQ(record.at("attachments")[0].at("dataBase64").get<std::string>().size(), content_bytes / 3 * 4);
}

TEST_F(ConsoleTest, SendOfAMissingFileFailsWithoutSending) {
    auto& console = startScript("send team-room hi --attach /no/such/file\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(), HasSubstr("check.console:1: Cannot read "));
    EXPECT_THAT(namesIn(console.path("outbound")), IsEmpty());
}

TEST_F(ConsoleTest, StatusShowsTheRuntimeStatus) {
    auto& console = startScript(
        "listen conversation team-room 'Team Room'\n"
        "wait-status activeScopeDescription 'Conversation Team Room [team-room]'\n"
        "wait-status workerProcessRunning false\n"
        "status\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_THAT(console.rawOutput(), testing::ContainsRegex("workerState +not_configured\n"));
    EXPECT_THAT(console.rawOutput(), testing::ContainsRegex("workerDisplayName +-\n"));
}

TEST_F(ConsoleTest, WaitStatusThatIsNotMetTellsTheValue) {
    auto& console = startScript("wait-status connectionState connected within 0.1\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(
        console.standardError(),
        HasSubstr(
            "check.console:1: Expected connectionState \"connected\", which did not come within 0.1 s; it is \"disconnected\".\n"));
}

TEST_F(ConsoleTest, WaitStatusSaysAtOnceThatAWorkerThatDoesNotRunChangesNothing) {
    auto& console = startScript("wait-status workerState linked within 80000\n", {"--no-worker"});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(
        console.standardError(),
        HasSubstr("check.console:1: Expected workerState \"linked\", which cannot come: no worker runs, "
                  "its state is \"not_configured\" and stays so;"));
}

TEST_F(ConsoleTest, WaitStatusEndsWithTheWorkerItWaitsFor) {
    const WorkerScript worker("exit 3");
    auto& console =
        startScript("wait-status workerState linked within 80000\n", {"--worker", worker.path().string()});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(),
                HasSubstr("which cannot come: no worker runs, its state is \"exited\""));
}

TEST_F(ConsoleTest, QRSaysAtOnceThatNoWorkerShowsACode) {
    auto& console = startScript("qr within 80000\n", {"--no-worker"});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_THAT(console.standardError(), HasSubstr("check.console:1: Expected a QR code in "));
    EXPECT_THAT(console.standardError(), HasSubstr("which cannot come: no worker runs"));
}

TEST_F(ConsoleTest, SendWarnsWhenNoWorkerRuns) {
    auto& console = startScript("send room hi\n", {"--no-worker"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_EQ(console.standardError(),
              "No worker runs that could send this; the message is stored in outbound and waits there.\n");
}

TEST_F(ConsoleTest, SendWarnsWhenTheWorkerSaysThatItDoesNotSend) {
    const WorkerScript worker(
        "publish worker-status.json '{\"state\":\"linked\",\"lastHeartbeatISO8601\":\"2026-01-05T09:30:00Z\","
        "\"supportsLiveCapture\":true,\"supportsOutbound\":false}'\nstay\n");
    auto& console = startScript("wait-status workerState linked within 80\nsend room hi\n",
                                {"--worker", worker.path().string()});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_THAT(console.standardError(), HasSubstr("The worker says that it does not send"));
}

TEST_F(ConsoleTest, RawOnShowsTheLinesOfTheProtocol) {
    auto& console = startScript("raw on\nconnect\nexpect stateChanged.connected\nraw off\nconnect\n");
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_THAT(
        console.rawOutput(),
        testing::ContainsRegex(R"([.][0-9]{3} --> \{"connect":\{"_0":\{"platform":"whatsapp"\}\}\})"));
    EXPECT_THAT(console.rawOutput(), HasSubstr("--> connect\n"));
}

TEST_F(ConsoleTest, WithoutANamedDataDirectoryHasOneThatGoesWithIt) {
    auto options = optionsFor({});
    options.environment.erase("BRINDLE_MANAGED_BRIDGE_DATA_DIR");
    options.environment["XDG_RUNTIME_DIR"] = files_.path();
    auto& console = startWith(std::move(options));
    waitForGreeting(console);
    const auto environment = environmentOf(waitForOnlyChild(console.pid()));
    const fs::path directory = environment.at("BRINDLE_MANAGED_BRIDGE_DATA_DIR");
    EXPECT_EQ(directory.parent_path().parent_path(), temporary_.path());
    EXPECT_TRUE(fs::exists(directory / "runtime"));
    console.finish();
    EXPECT_FALSE(fs::exists(directory.parent_path()));
    EXPECT_THAT(namesIn(files_.path()), IsEmpty());
}

TEST_F(ConsoleTest, UsesTheApplicationsDataDirectoryWhenItIsNamed) {
    auto options = optionsFor({"--data-dir", "default"});
    options.environment["XDG_RUNTIME_DIR"] = files_.path();
    fs::permissions(files_.path(), fs::perms::owner_all);
    auto& console = startWith(std::move(options));
    waitForGreeting(console);
    EXPECT_TRUE(fs::exists(files_.path() / "Brindle/ManagedBridge/whatsapp/runtime"));
    console.finish();
}

TEST_F(ConsoleTest, VersionTellsTheHelpersToo) {
    auto& console = start({"--version"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_THAT(console.receivedLines(),
                ElementsAre(testing::StartsWith("BrindleBridgeConsole "),
                            backendExecutable() + " speaks managed-whatsapp-backend-3"));
}

TEST_F(ConsoleTest, VersionOfAHelperThatSaysNoneIsAFailure) {
    auto& console = start({"--version", "--helper", "/bin/false"});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardError(), "The helper /bin/false does not say which protocol it speaks.\n");
}

TEST_F(ConsoleTest, TheDataDirectoryOptionCountsForHelperAndStatus) {
    const TemporaryDirectory other;
    auto& console = startScript("status\n", {"--data-dir", other.path().string()});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
    EXPECT_THAT(console.rawOutput(), HasSubstr(other.path().string()));
    EXPECT_TRUE(fs::exists(other.path() / "runtime/runtime-status.json"));
    EXPECT_THAT(namesIn(data_->path()), IsEmpty());
}

TEST_F(ConsoleTest, ThePlatformOptionCountsForHelperAndRequests) {
    auto& console = startScript("expect hello containing semaphore\nconnect\nexpect stateChanged.connected\n",
                                {"--platform", "semaphore"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0));
}

TEST_F(ConsoleTest, WatchWithoutATerminalIsOneSentence) {
    auto& console = start({"watch"});
    EXPECT_EQ(console.waitForExit(), exitedWith(1));
    EXPECT_EQ(console.standardError(),
              "watch draws on a terminal, and there is none that it knows; use status, or inbox, instead.\n");
}

TEST_F(ConsoleTest, TheDemonstrationRuns) {
    auto& console = start({"--native-worker", nativeWorkerExecutable(), "--script",
                           SOURCE_DIRECTORY "/examples/native-demo.console"});
    EXPECT_EQ(console.waitForExit(), exitedWith(0)) << console.rawOutput() << console.standardError();
    EXPECT_THAT(console.rawOutput(), HasSubstr("Echo: On my way"));
}

/// The console at a terminal, as a person sees it.
class TerminalTest : public testing::Test {
  protected:
    struct Session {
        pid_t process = -1;
        int terminal = -1;
        std::string screen;
        std::string everything;

        ~Session() {
            if (process > 0) {
                ::kill(process, SIGKILL);
                ::waitpid(process, nullptr, 0);
            }
            if (terminal >= 0) ::close(terminal);
        }
    };

    void SetUp() override { startSession(); }

    void startSession(const std::vector<std::string>& options = {"--no-worker"}) {
        winsize size{.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
        session_ = std::make_unique<Session>();
        const auto console = consoleExecutable();
        const auto state = "XDG_STATE_HOME=" + state_.path().string();
        const auto data = "BRINDLE_MANAGED_BRIDGE_DATA_DIR=" + data_.path().string();
        // A killed console leaves its launch token behind.
        const auto temporary = "TMPDIR=" + temporary_.path().string();
        const auto kind = "TERM=" + terminalKind_;
        session_->process = ::forkpty(&session_->terminal, nullptr, nullptr, &size);
        ASSERT_GE(session_->process, 0);
        if (session_->process > 0) return;
        const std::array<const char*, 7> environment{state.c_str(), data.c_str(),     temporary.c_str(),
                                                     kind.c_str(),  "LC_ALL=C.UTF-8", "PATH=/usr/bin:/bin",
                                                     nullptr};
        std::vector<const char*> arguments{console.c_str()};
        for (const auto& option : options) arguments.push_back(option.c_str());
        arguments.push_back(nullptr);
        ::execve(console.c_str(), const_cast<char* const*>(arguments.data()),
                 const_cast<char* const*>(environment.data()));
        ::_exit(127);
    }

    void type(std::string_view keys) const {
        ASSERT_EQ(::write(session_->terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    /// Waits until `text` has come to the screen after what was waited for before; returns what came with it.
    std::string waitForScreen(std::string_view text) {
        auto& screen = session_->screen;
        waitUntil([&] { return screen.find(text) != std::string::npos || !readScreen(); },
                  "\"" + std::string(text) + "\" on the screen");
        const auto found = screen.find(text);
        if (found == std::string::npos)
            throw TestFailure("The terminal closed before \"" + std::string(text) + "\".");
        const auto seen = screen.substr(0, found + text.size());
        screen.erase(0, seen.size());
        return seen;
    }

    /// The helper's log goes to the same terminal, without anything having been typed.
    void makeTheHelperSpeak() const { fs::rename(data_.path() / "runtime", data_.path() / "gone"); }

    /// False when the console has given its terminal up.
    bool readScreen() const {
        pollfd set{.fd = session_->terminal, .events = POLLIN, .revents = 0};
        if (::poll(&set, 1, 10) <= 0) return true;
        std::array<char, 4096> bytes{};
        const auto count = ::read(session_->terminal, bytes.data(), bytes.size());
        if (count <= 0) return false;
        session_->screen.append(bytes.data(), static_cast<std::size_t>(count));
        session_->everything.append(bytes.data(), static_cast<std::size_t>(count));
        return true;
    }

    ExitStatus waitForEnd() {
        while (readScreen() && ::waitpid(session_->process, &status_, WNOHANG) == 0) {
        }
        if (!WIFEXITED(status_) && !WIFSIGNALED(status_)) ::waitpid(session_->process, &status_, 0);
        session_->process = -1;
        return WIFSIGNALED(status_) ? killedBy(WTERMSIG(status_)) : exitedWith(WEXITSTATUS(status_));
    }

    TemporaryDirectory state_;
    TemporaryDirectory data_;
    TemporaryDirectory temporary_;
    std::string terminalKind_ = "xterm";
    std::unique_ptr<Session> session_;
    int status_ = -1;
};

TEST_F(TerminalTest, ShowsColorsAndAPrompt) {
    waitForScreen("brindle> ");
    waitForScreen("\033[32m<--");
}

/// A worker that says what a page may have told it: titles, messages and lines with what terminals obey, and
/// with characters that turn the reading direction.
class HostileTerminalTest : public TerminalTest {
  protected:
    void SetUp() override {}

    void startSession(std::vector<std::string> options) {
        options.insert(options.end(), {"--worker", worker_.path()});
        TerminalTest::startSession(options);
    }

    /// Lets everything that the console shows of a worker come to the screen.
    void showEverything() {
        waitForScreen("stateChanged");
        type("connect\r");
        waitForScreen("Brindle Managed");
        type("listen conversation team Team\r");
        waitUntil([&] { return fs::exists(data_.path() / "runtime/worker-control.json"); },
                  "the control record");
        const Json record = {{"conversationId", "team"},        {"conversationTitle", hostile_ + "title"},
                             {"senderId", hostile_ + "sender"}, {"senderDisplayName", hostile_ + "name"},
                             {"text", hostile_ + "text"},       {"isDirectMessage", true}};
        writeFileAtomically(data_.path() / "inbound/m.json", record.dump());
        waitForScreen("name");
        waitForScreen("text");
        type("wait-status workerDetail nothing within 1\r");
        waitForScreen("worker's detail");
        type("status\r");
        waitForScreen("worker's detail");
        type("qr within 1\r");
        waitForScreen("worker's state");
        type("raw " + hostileOnTheLine_ + "\r");
        waitForScreen("error");
        worker_.allow("speak");
        waitForScreen("worker's line");
    }

    void expectNothingToObey() const {
        const auto& everything = session_->everything;
        for (const char* obeyed : {"\033]", "\a", "\xC2\x9B", "\xC2\x85", "\xD8\x9C", "\xE2\x80\x8F",
                                   "\xE2\x80\xA8", "\xE2\x80\xAE", "\xE2\x81\xA6"}) {
            EXPECT_THAT(everything, Not(HasSubstr(obeyed)));
        }
    }

    /// Sets a title, begins a sequence with C1, breaks the line in three ways, turns the direction in four.
    const std::string hostile_ = "\033]0;x\a\u009B2J\u0085\u2028\u061C\u200F\u202E\u2066";
    /// What a line of the protocol holds of it that can be typed.
    const std::string hostileOnTheLine_ = R"({"\u001b]0;x\u0007\u009b2J\u202e":{}})";
    WorkerScript worker_{
        "publish worker-status.json '{\"state\":\"\\u001b]0;x\\u0007\\u009b2J\\u0085\\u2028\\u061c\\u200f\\u202e"
        "\\u2066 worker'\\''s state\",\"detail\":\"\\u001b]0;x\\u0007\\u009b2J\\u0085\\u2028\\u061c\\u200f\\u202e"
        "\\u2066 worker'\\''s detail\",\"supportsLiveCapture\":true,\"supportsOutbound\":true}'\n"
        "await speak\n"
        "printf '\\033]0;x\\007\\302\\2332J\\302\\205\\342\\200\\250\\330\\234\\342\\200\\217\\342\\200\\256\\342\\201\\246 "
        "worker'\\''s line\\n' >&2\n"
        "stay\n"};
};

TEST_F(HostileTerminalTest, ObeysNothingThatAPageHasWritten) {
    startSession({"--color", "never"});
    showEverything();
    expectNothingToObey();
}

TEST_F(HostileTerminalTest, ObeysNothingInLinesOfTheProtocolEither) {
    startSession({"--color", "never", "--json"});
    showEverything();
    expectNothingToObey();
    EXPECT_THAT(session_->everything, HasSubstr(R"(\u009b2J\u0085\u2028\u061c\u200f\u202e\u2066text)"));
}

TEST_F(TerminalTest, GoesOnAfterAMistake) {
    waitForScreen("brindle> ");
    type("bogus\r");
    waitForScreen("Unknown command \"bogus\"");
    type("connect\r");
    waitForScreen("stateChanged.connected");
}

TEST_F(TerminalTest, ShowsTheQRCodeBlackOnWhite) {
    waitForScreen("stateChanged.disconnected");
    writeFileAtomically(data_.path() / "runtime/worker-qr.png", pngOf(largeQRCode()));
    type("qr\r");
    waitForScreen("qr\r\n");
    // The terminal makes a carriage return of every line's end, and the prompt comes back after the last.
    auto screen = waitForScreen("brindle> ");
    std::erase(screen, '\r');
    const auto begin = screen.find("\033[38;5;16m");
    const auto end = screen.rfind('\n');
    ASSERT_LT(begin, end);
    EXPECT_EQ(scannedTerminal(std::string_view(screen).substr(begin, end - begin)), largeQRCode().content);
}

TEST_F(TerminalTest, SaysWhenItIsTooNarrowForTheQRCode) {
    waitForScreen("stateChanged.disconnected");
    writeFileAtomically(data_.path() / "runtime/worker-qr.png", pngOf(largeQRCode()));
    const winsize narrow{.ws_row = 24, .ws_col = 40, .ws_xpixel = 0, .ws_ypixel = 0};
    ASSERT_EQ(::ioctl(session_->terminal, TIOCSWINSZ, &narrow), 0);
    type("qr\r");
    waitForScreen("The QR code takes 49 columns, the terminal has 40; make it wider.");
}

TEST_F(TerminalTest, OutputLeavesTheLineThatIsBeingEditedAlone) {
    waitForScreen("stateChanged.disconnected");
    waitForScreen("brindle> ");
    type("conn");
    waitForScreen("conn");
    makeTheHelperSpeak();
    waitForScreen("failed to write runtime status");
    waitForScreen("brindle> conn");
    type("ect\r");
    waitForScreen("stateChanged.connected");
}

TEST_F(TerminalTest, OutputTakesALineOfSeveralRowsOffTheScreenFirst) {
    waitForScreen("stateChanged.disconnected");
    waitForScreen("brindle> ");
    type(std::string(100, 'x') + "é");
    waitForScreen("é");
    makeTheHelperSpeak();
    waitForScreen("\033[1A\r\033[J");
    waitForScreen("failed to write runtime status");
    waitForScreen("brindle> xxx");
}

TEST_F(TerminalTest, RemembersLinesAcrossSessions) {
    waitForScreen("brindle> ");
    type("listen test Remembered\r");
    waitForScreen(": /skiff help");
    type("\x04");
    EXPECT_EQ(waitForEnd(), exitedWith(0));
    EXPECT_EQ(fs::status(state_.path() / "brindle/console-history").permissions(),
              fs::perms::owner_read | fs::perms::owner_write);
    startSession();
    waitForScreen("brindle> ");
    type("\033[A");
    waitForScreen("listen test Remembered");
    type("\r");
    waitForScreen(": /skiff help");
}

TEST_F(TerminalTest, EndOfFileEndsTheSessionOnAnEmptyLineOnly) {
    waitForScreen("stateChanged.disconnected");
    waitForScreen("brindle> ");
    type("xconnect\x01\x04\r");
    waitForScreen("stateChanged.connected");
    type("\x04");
    EXPECT_EQ(waitForEnd(), exitedWith(0));
}

TEST_F(TerminalTest, InterruptKeyEmptiesTheLine) {
    waitForScreen("stateChanged.disconnected");
    type("half a command");
    waitForScreen("half a command");
    type("\x03");
    waitForScreen("brindle> ");
    type("connect\r");
    waitForScreen("stateChanged.connected");
}

TEST_F(TerminalTest, InterruptKeyEndsAWaitingCommand) {
    waitForScreen("stateChanged.disconnected");
    type("expect error within 80000\r");
    waitForScreen("Ctrl-C ends the wait.");
    type("\x03");
    waitForScreen("Interrupted while the console waited for error.");
    waitForScreen("brindle> ");
    type("connect\r");
    waitForScreen("stateChanged.connected");
}

TEST_F(TerminalTest, InterruptKeyTwiceEndsTheSession) {
    waitForScreen("stateChanged.disconnected");
    waitForScreen("brindle> ");
    const auto helper = waitForOnlyChild(session_->process);
    type("\x03");
    waitForScreen("Press Ctrl-C again");
    type("\x03");
    EXPECT_EQ(waitForEnd(), exitedWith(0));
    EXPECT_FALSE(processIsRunning(helper));
}

TEST_F(TerminalTest, InterruptKeyCountsAnewAfterAnotherKey) {
    waitForScreen("stateChanged.disconnected");
    waitForScreen("brindle> ");
    type("\x03");
    waitForScreen("Press Ctrl-C again");
    type("x");
    waitForScreen("x");
    type("\x03");
    waitForScreen("brindle> ");
    type("connect\r");
    waitForScreen("stateChanged.connected");
}

TEST_F(TerminalTest, AWaitingCommandShowsThatItWaits) {
    waitForScreen("stateChanged.disconnected");
    type("expect inboundEvent containing there\r");
    waitForScreen("Waiting up to 10 s for inboundEvent containing \"there\"; Ctrl-C ends the wait.");
    type("\x03");
    waitForScreen("Interrupted");
}

TEST_F(TerminalTest, TabCompletesCommandsAndTheirWords) {
    waitForScreen("stateChanged.disconnected");
    waitForScreen("brindle> ");
    type("conn\t");
    waitForScreen("ect ");
    type("\rraw on\rexp\tstateChanged.disc\tcon\tnothing wi\t0.1\r");
    waitForScreen(
        "Expected stateChanged.disconnected containing \"nothing\", which did not come within 0.1 s.");
}

TEST_F(TerminalTest, TabCompletesFiles) {
    writeFileAtomically(data_.path() / "a note.txt", "hello");
    waitForScreen("stateChanged.disconnected");
    waitForScreen("brindle> ");
    type("send room hi --attach " + data_.path().string() + "/a\t\r");
    waitForScreen("(with a note.txt, text/plain)");
}

TEST_F(TerminalTest, TabCompletesTitlesThatWereSeen) {
    waitForScreen("stateChanged.disconnected");
    type("listen conversation team-room 'Team Room'\r");
    waitForScreen(": conversation \"Team Room\" [team-room]");
    waitForScreen("brindle> ");
    type("listen channel tea\tT\t\r");
    waitForScreen(": channel \"Team Room\" [team-room]");
}

TEST_F(TerminalTest, TabShowsWhatAWordCanBecome) {
    waitForScreen("stateChanged.disconnected");
    waitForScreen("brindle> ");
    type("s\t");
    waitForScreen("send  status  stop");
    waitForScreen("brindle> s");
}

TEST_F(TerminalTest, QuestionMarkHelpsAndExitEnds) {
    waitForScreen("stateChanged.disconnected");
    type("?\r");
    waitForScreen("wait-status FIELD VALUE");
    type("exit\r");
    EXPECT_EQ(waitForEnd(), exitedWith(0));
}

/// The live view.
class WatchTest : public TerminalTest {
  protected:
    void SetUp() override { fs::create_directories(data_.path() / "inbound"); }

    void receive(const std::string& name, const std::string& text) const {
        const Json record = {{"conversationId", "team"},
                             {"conversationTitle", "Team"},
                             {"senderId", "ada"},
                             {"senderDisplayName", "Ada"},
                             {"text", text},
                             {"isDirectMessage", true}};
        writeFileAtomically(data_.path() / "inbound" / name, record.dump());
    }
};

TEST_F(WatchTest, ShowsADirectoryUntilQIsPressed) {
    startSession({"watch"});
    waitForScreen("none has been here");
    waitForScreen("no message yet");
    type("q");
    EXPECT_EQ(waitForEnd(), exitedWith(0));
}

TEST_F(WatchTest, ShowsWhatChanges) {
    startSession({"watch"});
    waitForScreen("no message yet");
    receive("1.json", "On my way");
    waitForScreen("Ada: On my way");
}

TEST_F(WatchTest, ObeysNothingThatAMessageHolds) {
    receive("1.json", "\033]0;x\a");
    startSession({"watch"});
    waitForScreen("Ada: ?]0;x?");
}

TEST_F(WatchTest, RefusesATerminalThatCannotMoveItsCursor) {
    terminalKind_ = "dumb";
    startSession({"watch"});
    waitForScreen("watch draws on a terminal, and there is none that it knows");
    EXPECT_EQ(waitForEnd(), exitedWith(1));
}

TEST_F(WatchTest, FollowsTheSizeOfTheWindow) {
    startSession({"watch"});
    waitForScreen("q ends this view.");
    const winsize narrow{.ws_row = 24, .ws_col = 20, .ws_xpixel = 0, .ws_ypixel = 0};
    ASSERT_EQ(::ioctl(session_->terminal, TIOCSWINSZ, &narrow), 0);
    waitForScreen("\033[H\033[2J");
    const auto drawn = waitForScreen("q ends this view.");
    EXPECT_THAT(drawn, HasSubstr("0 delive"));
    EXPECT_THAT(drawn, Not(HasSubstr("0 delivered")));
}

TEST_F(WatchTest, EndsWhenItIsAskedTo) {
    startSession({"watch"});
    waitForScreen("q ends this view.");
    ASSERT_EQ(::kill(session_->process, SIGTERM), 0);
    EXPECT_EQ(waitForEnd(), exitedWith(0));
}

TEST_F(WatchTest, GivesTheTerminalBackToItsSession) {
    startSession({"--no-worker"});
    waitForScreen("stateChanged.disconnected");
    type("watch\r");
    waitForScreen("not_configured");
    waitForScreen("q ends this view.");
    type("q");
    waitForScreen("brindle> ");
    type("connect\r");
    waitForScreen("stateChanged.connected");
}

TEST_F(WatchTest, LetsWhatComesMeanwhileWait) {
    const auto cue = data_.path() / "cue";
    const auto spoken = data_.path() / "spoken";
    const auto helper =
        writeScript(temporary_.path() / "helper",
                    R"(echo '{"hello":{"_0":{"bridgeVersion":"v","platform":"whatsapp"}}}')"
                    "\nwhile [ ! -e " +
                        cue.string() + " ]; do sleep 0.05; done\necho 'a line of the log' >&2\n>" +
                        spoken.string() + "\ncat >/dev/null");
    startSession({"--helper", helper.string()});
    waitForScreen("hello");
    type("watch\r");
    waitForScreen("q ends this view.");
    // The helper's log goes to the same terminal.
    writeFileAtomically(cue, "");
    waitUntil([&] { return fs::exists(spoken); }, "the helper's line");
    receive("1.json", "On my way");
    waitForScreen("Ada: On my way");
    type("q");
    EXPECT_THAT(waitForScreen("brindle> "), testing::ContainsRegex("\033\\[\\?1049l.*a line of the log"));
    EXPECT_THAT(session_->everything, Not(testing::ContainsRegex("a line of the log.*\033\\[\\?1049l")));
}

TEST_F(TerminalTest, ARecordingThatCannotBeMadeDoesNotEndTheOneBefore) {
    waitForScreen("stateChanged.disconnected");
    const auto file = temporary_.path() / "session.jsonl";
    type("record " + file.string() + "\r");
    waitForScreen("brindle> ");
    type("record " + file.string() + "\r");
    waitForScreen("exists already");
    type("connect\r");
    waitForScreen("stateChanged.connected");
    EXPECT_THAT(readFile(file), HasSubstr("connected"));
}

TEST_F(TerminalTest, TerminationEndsTheSessionOfAStoppedTerminal) {
    waitForScreen("stateChanged.disconnected");
    waitForScreen("brindle> ");
    const auto helper = waitForOnlyChild(session_->process);
    const int screen = ::open(::ptsname(session_->terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(screen, 0);
    ASSERT_EQ(::tcflow(screen, TCOOFF), 0);
    type("c");
    // The key has been taken; showing it is what the console is at now.
    int unreadKeys = 1;
    waitUntil([&] { return ::ioctl(screen, TIOCINQ, &unreadKeys) == 0 && unreadKeys == 0; },
              "the key to be read");
    ASSERT_EQ(::kill(session_->process, SIGTERM), 0);
    EXPECT_EQ(waitForEnd(), exitedWith(0));
    EXPECT_FALSE(processIsRunning(helper));
    ::close(screen);
}

TEST_F(TerminalTest, EscapeKeyAloneDoesNotStopTheSession) {
    waitForScreen("stateChanged.disconnected");
    type("\033");
    // Nothing else is typed, and still the helper's end is noticed.
    ASSERT_EQ(::kill(waitForOnlyChild(session_->process), SIGKILL), 0);
    waitForScreen("was ended by signal 9");
    EXPECT_EQ(waitForEnd(), exitedWith(1));
}

}  // namespace
}  // namespace brindle::test

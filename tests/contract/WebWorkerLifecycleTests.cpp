#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "support/BackendProcess.h"
#include "support/DrivenPage.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Spawning.h"
#include "support/TemporaryDirectory.h"
#include "support/TextForms.h"
#include "support/Waiting.h"
#include "support/WebWorkerProcess.h"
#include "support/WebWorkerTest.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* linked_page = "<body><div id=side>chats</div></body>";
constexpr const char* guard_name = "brindle-guard";

std::vector<std::string> runtimeFiles(const WebWorkerProcess& worker) {
    return namesIn(worker.path("runtime"));
}

class WebWorkerLifecycle : public WebWorkerTest {};

TEST_F(WebWorkerLifecycle, PIDFileHoldsTheDigitsOfTheProcessIdAndNothingElse) {
    WebWorkerProcess worker;
    worker.waitForState("starting");
    EXPECT_EQ(readFile(worker.path("runtime/worker.pid")), std::to_string(worker.pid()));
}

TEST_F(WebWorkerLifecycle, StatusesLeadFromTheLaunchToALinkedPage) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page));
    if (!worker.journal().isExact()) GTEST_SKIP() << exact_watch_needs_root;
    const auto linked = worker.waitForState("linked");
    auto details = worker.journal().details();
    details.resize(linked + 1);
    details.erase(std::unique(details.begin(), details.end()), details.end());
    // A tick may have come while the page was still being loaded.
    std::erase(details, "Waiting for WhatsApp Web to render login state.");
    const std::vector<std::string> expected{
        "Launching managed WhatsApp Web worker.", "Loading managed WhatsApp worker test HTML from page.html.",
        "WhatsApp worker page loaded. Detecting QR and link state.",
        "Linked to WhatsApp Web. Select a watched chat title to start live listening."};
    EXPECT_EQ(details, expected);
}

TEST_F(WebWorkerLifecycle, EveryStatusSaysWhatTheWorkerCanAndWhenItWasWritten) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page));
    const auto linked = worker.waitForState("linked");
    const auto statuses = worker.journal().statuses();
    for (std::size_t index = 0; index <= linked; ++index) {
        auto status = statuses[index];
        EXPECT_TRUE(isTimestamp(status["lastHeartbeatISO8601"].get<std::string>())) << status;
        EXPECT_EQ(status.contains("displayName"), index == linked) << status;
        for (const char* key : {"lastHeartbeatISO8601", "state", "detail", "displayName"}) status.erase(key);
        EXPECT_EQ(status, (Json{{"supportsLiveCapture", true}, {"supportsOutbound", false}}));
    }
    EXPECT_EQ(statuses[linked]["displayName"], "WhatsApp Web");
}

TEST_F(WebWorkerLifecycle, MakesItsOwnDirectoriesAndNoOthers) {
    WebWorkerOptions options;
    options.on(TestDisplay::shared());
    const fs::path deep = options.dataDirectory() / "deep" / "down";
    options.process.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = deep;
    BackendProcess worker(options.process);
    waitUntil([&] { return fs::exists(deep / "runtime/worker-status.json"); }, "the first status");
    EXPECT_EQ(namesIn(deep), (std::vector<std::string>{"inbound", "runtime"}));
    EXPECT_THAT(namesIn(deep / "inbound"), IsEmpty());
    const auto tree = processTree(worker.pid());
    worker.signal(SIGTERM);
    EXPECT_EQ(worker.waitForExit(), exitedWith(0));
    waitForEnds(tree);
}

TEST_F(WebWorkerLifecycle, ADirectoryThatCannotBeMadeEndsItWithOneLine) {
    WebWorkerOptions options;
    options.on(TestDisplay::shared());
    writeFileAtomically(options.dataDirectory(), "a file");
    BackendProcess worker(options.process);
    EXPECT_EQ(worker.waitForExit(), exitedWith(70));
    ASSERT_EQ(worker.standardErrorLines().size(), 1U) << worker.standardError();
    EXPECT_THAT(worker.standardError(), HasSubstr(options.dataDirectory().string()));
}

TEST_F(WebWorkerLifecycle, WritesNothingToStandardOutput) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page));
    worker.waitForState("linked");
    worker.terminate();
    EXPECT_EQ(worker.process().rawOutput(), "");
}

TEST_F(WebWorkerLifecycle, SaysNothingOfABusForScreenReaders) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page));
    worker.waitForState("linked");
    worker.terminate();
    EXPECT_THAT(worker.process().standardError(), testing::Not(HasSubstr("a11y")));
}

class WebWorkerSignal : public WebWorkerTest, public testing::WithParamInterface<int> {};

TEST_P(WebWorkerSignal, EndsItCleanlyWithItsFilesAndEveryProcessOfTheEngine) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page));
    worker.waitForState("linked");
    const auto tree = worker.tree();
    EXPECT_EQ(processesNamed(worker.pid(), guard_name).size(), 1U);
    worker.process().signal(GetParam());
    EXPECT_EQ(worker.process().waitForExit(), exitedWith(0));
    EXPECT_THAT(runtimeFiles(worker), IsEmpty());
    waitForEnds(tree);
}

INSTANTIATE_TEST_SUITE_P(WebWorkerLifecycle, WebWorkerSignal, testing::Values(SIGTERM, SIGINT, SIGHUP));

TEST_F(WebWorkerLifecycle, ASignalDuringTheStartEndsItToo) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page));
    worker.waitForState("starting");
    const auto tree = worker.tree();
    worker.process().signal(SIGTERM);
    EXPECT_EQ(worker.process().waitForExit(), exitedWith(0));
    EXPECT_THAT(runtimeFiles(worker), IsEmpty());
    waitForEnds(tree);
}

TEST_F(WebWorkerLifecycle, ItsKillingEndsEveryProcessOfTheEngine) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page));
    worker.waitForState("linked");
    const auto tree = worker.tree();
    ASSERT_GE(tree.size(), 4U) << "the worker, its guard, the network process and the page's process";
    worker.process().signal(SIGKILL);
    EXPECT_EQ(worker.process().waitForExit(), killedBy(SIGKILL));
    waitForEnds(tree);
}

TEST_F(WebWorkerLifecycle, ItsKillingEndsAPageThatHangs) {
    DrivenPage page("client.chats(['Team Room'])");
    WebWorkerProcess worker(WebWorkerOptions().withUrl(page.url()));
    worker.waitForState("linked");
    page.post("for (;;);");
    const pid_t web = worker.waitForWebProcess();
    const double before = processorSeconds(web);
    waitUntil([&] { return processorSeconds(web) > before + 0.2; }, "the page to hang");
    const auto tree = worker.tree();
    worker.process().signal(SIGKILL);
    waitForEnds(tree);
}

TEST_F(WebWorkerLifecycle, TheEndOfItsParentEndsItWithALastStatus) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page), true);
    if (!worker.journal().isExact()) GTEST_SKIP() << exact_watch_needs_root;
    const auto linked = worker.waitForState("linked");
    const auto tree = worker.tree();
    worker.process().killIntermediateParent();
    const auto stopped = worker.waitForState("stopped", linked);
    const auto status = worker.journal().statuses()[stopped];
    EXPECT_EQ(status["detail"], "Managed WhatsApp worker is stopping because the managed backend exited.");
    EXPECT_EQ(status["displayName"], "WhatsApp Web");
    EXPECT_EQ(worker.process().waitForExit(), exitedWith(0));
    EXPECT_EQ(worker.journal().size(), stopped + 1) << "a status came after the last one";
    EXPECT_THAT(runtimeFiles(worker), IsEmpty());
    waitForEnds(tree);
}

TEST_F(WebWorkerLifecycle, TheEndOfItsParentDuringTheStartEndsItToo) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page), true);
    // The guard comes first of all, the engine long after it.
    worker.waitUntil([&] { return !processesNamed(worker.pid(), guard_name).empty(); }, "the guard");
    worker.process().killIntermediateParent();
    EXPECT_EQ(worker.process().waitForExit(), exitedWith(0));
    EXPECT_THAT(runtimeFiles(worker), IsEmpty());
}

TEST_F(WebWorkerLifecycle, ABackendThatWasGoneBeforeTheStartEndsItToo) {
    Start start{.commandLine = {"/bin/true"}, .environment = {}, .workingDirectory = {}};
    const pid_t backend = spawn(start);
    // As long as nobody has taken its status it is there, but it has ended.
    ::siginfo_t ended{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(backend), &ended, WEXITED | WNOWAIT), 0);
    auto options = WebWorkerOptions().withHtml(linked_page);
    options.process.environment["BRINDLE_MANAGED_BRIDGE_PARENT_PID"] = std::to_string(backend);
    WebWorkerProcess worker(options);
    EXPECT_EQ(worker.process().waitForExit(), exitedWith(0));
    EXPECT_THAT(runtimeFiles(worker), IsEmpty());
    ::waitpid(backend, nullptr, 0);
}

TEST_F(WebWorkerLifecycle, ASecondSignalDoesNotCutTheEndShort) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page));
    worker.waitForState("linked");
    const auto tree = worker.tree();
    worker.process().signal(SIGTERM);
    worker.waitUntil([&] { return runtimeFiles(worker).empty(); }, "the files to be removed");
    while (worker.process().isRunning()) worker.process().signal(SIGTERM);
    EXPECT_EQ(worker.process().waitForExit(), exitedWith(0));
    waitForEnds(tree);
}

TEST_F(WebWorkerLifecycle, NoProcessOfTheEngineKnowsTheLaunchToken) {
    WebWorkerProcess worker(WebWorkerOptions().withHtml(linked_page));
    worker.waitForState("linked");
    const auto token = worker.options().process.launchToken;
    int checked = 0;
    for (const char* name : {web_process_name, network_process_name, "bwrap"}) {
        for (const pid_t process : processesNamed(worker.pid(), name)) {
            const auto environment = environmentOf(process);
            ASSERT_FALSE(environment.empty()) << name;
            for (const auto& [key, value] : environment) {
                EXPECT_THAT(key, testing::Not(HasSubstr("LAUNCH_TOKEN"))) << name;
                EXPECT_THAT(value, testing::Not(HasSubstr(token->value()))) << name << ' ' << key;
                EXPECT_THAT(value, testing::Not(HasSubstr(token->file().string()))) << name << ' ' << key;
            }
            ++checked;
        }
    }
    EXPECT_GE(checked, 3);
}

TEST_F(WebWorkerLifecycle, WithoutALaunchTokenNothingIsTouched) {
    WebWorkerOptions options;
    options.process.environment.erase("BRINDLE_HELPER_LAUNCH_TOKEN");
    BackendProcess worker(options.process);
    EXPECT_EQ(worker.waitForExit(), exitedWith(64));
    EXPECT_EQ(worker.standardError(), "This component must be launched by Brindle.\n");
    EXPECT_FALSE(fs::exists(options.dataDirectory()));
}

/// What a worker that cannot start says: the test fails unless it is one line and the status is that of a
/// fatal end.
std::string fatalLineOf(const WebWorkerOptions& options) {
    BackendProcess worker(options.process);
    EXPECT_EQ(worker.waitForExit(), exitedWith(70));
    const auto lines = worker.standardErrorLines();
    if (lines.size() != 1) throw TestFailure("not one line but:\n" + worker.standardError());
    EXPECT_THAT(lines[0], testing::StartsWith("[ManagedWhatsAppBackend] fatal: "));
    EXPECT_FALSE(fs::exists(options.path("runtime/worker.pid")));
    return lines[0];
}

class WebWorkerNeeds : public WebWorkerTest {};

TEST_F(WebWorkerNeeds, ADisplayAndSaysSo) {
    EXPECT_THAT(fatalLineOf(WebWorkerOptions()),
                AllOf(HasSubstr("needs a display"), HasSubstr("DISPLAY"), HasSubstr("Xvfb")));
}

TEST_F(WebWorkerNeeds, ADisplayThatAnswers) {
    WebWorkerOptions options;
    options.process.environment["DISPLAY"] = ":65000";
    EXPECT_THAT(fatalLineOf(options), HasSubstr("needs a display"));
}

/// The executable in a directory of its own, in which `module` stands for the engine module unless it is
/// empty.
WebWorkerOptions optionsWithModule(const std::string& module) {
    WebWorkerOptions options;
    options.on(TestDisplay::shared());
    const auto directory = options.place->path() / "program";
    fs::create_directory(directory);
    const fs::path executable(options.process.executable);
    fs::copy_file(executable, directory / executable.filename());
    if (!module.empty()) writeFileAtomically(directory / "BrindleWebHost.so", module);
    options.process.executable = directory / executable.filename();
    return options;
}

TEST_F(WebWorkerNeeds, ItsModuleAndSaysWhereItBelongs) {
    const auto options = optionsWithModule("");
    const auto directory = fs::path(options.process.executable).parent_path();
    EXPECT_THAT(fatalLineOf(options),
                AllOf(HasSubstr("there is no " + (directory / "BrindleWebHost.so").string()),
                      HasSubstr("install the program again")));
}

TEST_F(WebWorkerNeeds, AModuleThatIsOne) {
    EXPECT_THAT(fatalLineOf(optionsWithModule("no module")),
                AllOf(HasSubstr("cannot be loaded"), HasSubstr("BrindleWebHost.so")));
}

TEST_F(WebWorkerNeeds, TheEnginesLibrariesAndNamesTheirPackage) {
    auto module = readFile(webHostModule());
    const std::string library = "libwebkit2gtk-4.1.so.0";
    const auto place = module.find(library);
    ASSERT_NE(place, std::string::npos);
    module.replace(place, library.size(), "libwebkit2gtk-4.1.so.X");
    EXPECT_THAT(
        fatalLineOf(optionsWithModule(module)),
        AllOf(HasSubstr("libwebkit2gtk-4.1.so.X"), HasSubstr("install the package libwebkit2gtk-4.1-0")));
}

TEST_F(WebWorkerNeeds, TheSandboxProgramAndNamesItsPackage) {
    WebWorkerOptions options;
    options.on(TestDisplay::shared());
    options.unshared("--mount", "mount --bind /dev/null /usr/bin/bwrap");
    EXPECT_THAT(fatalLineOf(options), AllOf(HasSubstr("cannot sandbox"), HasSubstr("bwrap is missing"),
                                            HasSubstr("install the packages bubblewrap")));
}

TEST_F(WebWorkerNeeds, NamespacesForTheSandboxAndSaysHowToProvideThem) {
    WebWorkerOptions options;
    options.on(TestDisplay::shared());
    // Limits of a user namespace hold for those within it alone.
    options.unshared("--map-root-user", "echo 0 >/proc/sys/user/max_mnt_namespaces");
    EXPECT_THAT(fatalLineOf(options),
                AllOf(HasSubstr("cannot sandbox"), HasSubstr("let this user create user namespaces")));
}

TEST_F(WebWorkerNeeds, ATrialOfTheSandboxThatEndsAlsoWhenItIsKilledAndLeavesAProcess) {
    WebWorkerOptions options;
    options.on(TestDisplay::shared());
    const auto script = options.place->path() / "bwrap";
    writeScript(script, "sleep 1000 &\nkill -KILL $$");
    options.unshared("--mount", "mount --bind " + script.string() + " /usr/bin/bwrap");
    EXPECT_THAT(fatalLineOf(options), AllOf(HasSubstr("cannot sandbox"), HasSubstr("was ended by signal 9")));
}

class WebWorkerLog : public WebWorkerTest {};

TEST_F(WebWorkerLog, GoesToStandardErrorWithItsCategoryWhereThereIsNoJournal) {
    WebWorkerProcess worker(WebWorkerOptions().withoutJournal());
    worker.waitForState("starting");
    writeFileAtomically(worker.path("runtime/worker-control.json"), "garbage");
    worker.process().waitForStandardError("Failed to decode worker control: ");
    EXPECT_THAT(worker.process().standardErrorLines(),
                testing::Contains(
                    testing::StartsWith("ManagedWhatsAppWebWorker: Failed to decode worker control: ")));
}

/// A datagram socket that stands for the journal's.
class JournalSocket {
  public:
    explicit JournalSocket(const fs::path& path) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        const timeval patience{.tv_sec = must_happen_deadline.count(), .tv_usec = 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        if (::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            throw TestFailure("cannot bind " + path.string());
        }
    }
    ~JournalSocket() { ::close(socket_); }
    JournalSocket(const JournalSocket&) = delete;
    JournalSocket& operator=(const JournalSocket&) = delete;

    /// The fields of the next entry by their names, as the journal's native protocol has them.
    std::map<std::string, std::string> nextEntry() const {
        std::array<char, std::size_t{64} * 1024> buffer{};
        const auto received = ::recv(socket_, buffer.data(), buffer.size(), 0);
        if (received <= 0) throw TestFailure("no entry came to the journal");
        std::map<std::string, std::string> fields;
        std::string_view rest(buffer.data(), static_cast<std::size_t>(received));
        while (!rest.empty()) takeField(rest, fields);
        return fields;
    }

  private:
    /// "NAME=value\n", or "NAME\n", eight bytes that tell the length, the value and "\n".
    static void takeField(std::string_view& rest, std::map<std::string, std::string>& fields) {
        const auto nameEnd = rest.find_first_of("=\n");
        const std::string name(rest.substr(0, nameEnd));
        const bool isPlain = rest.at(nameEnd) == '=';
        rest.remove_prefix(nameEnd + 1);
        std::uint64_t length = rest.find('\n');
        if (!isPlain) {
            std::memcpy(&length, rest.data(), sizeof length);
            rest.remove_prefix(sizeof length);
        }
        fields[name] = rest.substr(0, length);
        rest.remove_prefix(length + 1);
    }

    int socket_;
};

TEST_F(WebWorkerLog, GoesToTheJournalWithItsFieldsWhereThereIsOne) {
    const TemporaryDirectory directory;
    const JournalSocket journal(directory.path() / "socket");
    WebWorkerOptions options;
    options.unshared("--mount", "mount -t tmpfs none /run; mkdir -p /run/systemd/journal; mount --bind " +
                                    directory.path().string() + " /run/systemd/journal");
    WebWorkerProcess worker(std::move(options));
    worker.waitForState("starting");
    writeFileAtomically(worker.path("runtime/worker-control.json"), "garbage");
    const auto fields = journal.nextEntry();
    EXPECT_EQ(fields.at("SUBSYSTEM"), "com.brindle.Brindle");
    EXPECT_EQ(fields.at("CATEGORY"), "ManagedWhatsAppWebWorker");
    EXPECT_EQ(fields.at("PRIORITY"), "3");
    EXPECT_THAT(fields.at("MESSAGE"), testing::StartsWith("Failed to decode worker control: "));
    EXPECT_THAT(worker.process().standardError(), testing::Not(HasSubstr("Failed to decode")));
}

}  // namespace
}  // namespace brindle::test

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Requests.h"
#include "support/TemporaryDirectory.h"
#include "support/TextForms.h"
#include "support/Users.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

/// The directories of a data directory in the order in which they are made.
const std::vector<std::string> directories_in_order = {"inbound",
                                                       "outbound",
                                                       "processed",
                                                       "rejected",
                                                       "runtime",
                                                       "runtime/worker-processed-outbound",
                                                       "runtime/worker-rejected-outbound"};

unsigned modeOf(const fs::path& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) throw TestFailure("cannot stat " + path.string());
    return status.st_mode & 07777U;
}

BackendOptions optionsWithDataDirectory(const std::string& value) {
    BackendOptions options;
    options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = value;
    return options;
}

/// Options that name no data directory, with the general temporary directory in a place of the test.
BackendOptions optionsWithDefaultDirectory(const fs::path& generalTemporaryDirectory) {
    BackendOptions options;
    options.environment.erase("BRINDLE_MANAGED_BRIDGE_DATA_DIR");
    options.environment.erase("XDG_RUNTIME_DIR");
    options.environment["TMPDIR"] = generalTemporaryDirectory.string();
    return options;
}

/// The data directory that a backend with these options publishes in the given place.
std::string publishedDirectory(const fs::path& dataDirectory) {
    return readJsonFile(dataDirectory / "runtime/runtime-status.json").at("dataDirectoryPath");
}

fs::path makeDirectory(const fs::path& path, fs::perms mode) {
    fs::create_directories(path);
    fs::permissions(path, mode);
    return path;
}

/// Keys of a record file in the order in which they stand there.
std::vector<std::string> keysInFile(const fs::path& file) {
    std::vector<std::string> keys;
    const Json document = Json::parse(readFile(file));
    for (const auto& member : document.members()) keys.push_back(member.name);
    return keys;
}

void expectFatalEnd(BackendProcess& backend, const std::string& path) {
    EXPECT_EQ(backend.waitForExit(), exitedWith(software_failure));
    EXPECT_EQ(backend.rawOutput(), "");
    const std::vector<std::string> lines = backend.standardErrorLines();
    ASSERT_EQ(lines.size(), 1U) << backend.standardError();
    EXPECT_TRUE(lines.front().starts_with("[ManagedWhatsAppBackend] fatal: ")) << lines.front();
    EXPECT_NE(lines.front().find(path), std::string::npos) << lines.front();
}

void greetAndFinish(BackendProcess& backend) {
    backend.greet();
    backend.finish();
    ASSERT_EQ(backend.waitForExit(), exitedWith(0)) << backend.standardError();
}

// Where it is.

TEST(DataDirectory, ValueIsTrimmedAndStandardisedAndNothingIsAppended) {
    const TemporaryDirectory place;
    BackendProcess backend(optionsWithDataDirectory("  \t" + (place.path() / "x/y/../z").string() + "\n"));
    greetAndFinish(backend);
    EXPECT_EQ(namesIn(place.path()), std::vector<std::string>{"x"});
    EXPECT_EQ(namesIn(place.path() / "x"), std::vector<std::string>{"z"});
    EXPECT_EQ(publishedDirectory(place.path() / "x/z"), (place.path() / "x/z").string());
    EXPECT_FALSE(fs::exists(place.path() / "x/z/Brindle"));
    EXPECT_FALSE(fs::exists(place.path() / "x/z/ManagedBridge"));
}

TEST(DataDirectory, DotComponentsAndTrailingSlashesDisappearFromThePublishedPath) {
    const TemporaryDirectory place;
    BackendProcess backend(optionsWithDataDirectory((place.path() / "./a/./b//").string()));
    greetAndFinish(backend);
    EXPECT_EQ(publishedDirectory(place.path() / "a/b"), (place.path() / "a/b").string());
}

TEST(DataDirectory, PlatformIsNotAppendedToANamedDirectory) {
    const TemporaryDirectory place;
    BackendOptions options = optionsWithDataDirectory((place.path() / "d").string());
    options.arguments = {"--platform", "signal"};
    BackendProcess backend(options);
    greetAndFinish(backend);
    EXPECT_EQ(publishedDirectory(place.path() / "d"), (place.path() / "d").string());
    EXPECT_FALSE(fs::exists(place.path() / "d/signal"));
}

class BlankDataDirectory : public testing::TestWithParam<std::string> {};

TEST_P(BlankDataDirectory, CountsAsAbsent) {
    const TemporaryDirectory place;
    BackendOptions options = optionsWithDefaultDirectory(place.path());
    options.environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = GetParam();
    BackendProcess backend(options);
    greetAndFinish(backend);
    const fs::path expected = place.path() / "Brindle/ManagedBridge/whatsapp";
    EXPECT_EQ(publishedDirectory(expected), expected.string());
}

INSTANTIATE_TEST_SUITE_P(Values, BlankDataDirectory, testing::Values("", "   ", " \t\r\n"));

TEST(DataDirectory, DefaultEndsInThePlatform) {
    const TemporaryDirectory place;
    BackendOptions options = optionsWithDefaultDirectory(place.path());
    options.arguments = {"--platform", "signal"};
    BackendProcess backend(options);
    greetAndFinish(backend);
    const fs::path expected = place.path() / "Brindle/ManagedBridge/signal";
    EXPECT_EQ(publishedDirectory(expected), expected.string());
}

TEST(DataDirectory, DefaultBaseIsTheRuntimeDirectoryOfTheUser) {
    const TemporaryDirectory place;
    const fs::path runtime = makeDirectory(place.path() / "run", fs::perms::owner_all);
    BackendOptions options = optionsWithDefaultDirectory(place.path());
    options.environment["XDG_RUNTIME_DIR"] = runtime.string();
    BackendProcess backend(options);
    greetAndFinish(backend);
    const fs::path expected = runtime / "Brindle/ManagedBridge/whatsapp";
    EXPECT_EQ(publishedDirectory(expected), expected.string());
    EXPECT_EQ(namesIn(place.path()), std::vector<std::string>{"run"});
}

TEST(DataDirectory, DefaultBaseIsStandardised) {
    const TemporaryDirectory place;
    const fs::path runtime = makeDirectory(place.path() / "run", fs::perms::owner_all);
    BackendOptions options = optionsWithDefaultDirectory(place.path());
    options.environment["XDG_RUNTIME_DIR"] = (place.path() / "./run/../run/").string();
    BackendProcess backend(options);
    greetAndFinish(backend);
    const fs::path expected = runtime / "Brindle/ManagedBridge/whatsapp";
    EXPECT_EQ(publishedDirectory(expected), expected.string());
}

TEST(DataDirectory, RuntimeDirectoryThatDoesNotExistIsPassedOver) {
    const TemporaryDirectory place;
    BackendOptions options = optionsWithDefaultDirectory(place.path());
    options.environment["XDG_RUNTIME_DIR"] = (place.path() / "missing").string();
    BackendProcess backend(options);
    greetAndFinish(backend);
    EXPECT_EQ(namesIn(place.path()), std::vector<std::string>{"Brindle"});
}

TEST(DataDirectory, RuntimeDirectoryThatOthersMayEnterIsPassedOver) {
    const TemporaryDirectory place;
    const fs::path runtime = makeDirectory(
        place.path() / "run", fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    BackendOptions options = optionsWithDefaultDirectory(place.path());
    options.environment["XDG_RUNTIME_DIR"] = runtime.string();
    BackendProcess backend(options);
    greetAndFinish(backend);
    EXPECT_TRUE(fs::exists(place.path() / "Brindle/ManagedBridge/whatsapp"));
    EXPECT_TRUE(namesIn(runtime).empty());
}

TEST(DataDirectory, RuntimeDirectoryThatIsAFileIsPassedOver) {
    const TemporaryDirectory place;
    writeFileAtomically(place.path() / "run", "");
    fs::permissions(place.path() / "run", fs::perms::owner_all);
    BackendOptions options = optionsWithDefaultDirectory(place.path());
    options.environment["XDG_RUNTIME_DIR"] = (place.path() / "run").string();
    BackendProcess backend(options);
    greetAndFinish(backend);
    EXPECT_TRUE(fs::exists(place.path() / "Brindle/ManagedBridge/whatsapp"));
}

TEST(DataDirectory, RuntimeDirectoryOfAnotherUserIsPassedOver) {
    const TemporaryDirectory place;
    fs::path foreign = "/root";  // For a user other than root: a directory that certainly is not his.
    if (isRoot()) {
        foreign = makeDirectory(place.path() / "run", fs::perms::owner_all);
        giveTo(another_user, foreign);
    }
    BackendOptions options = optionsWithDefaultDirectory(place.path());
    options.environment["XDG_RUNTIME_DIR"] = foreign.string();
    BackendProcess backend(options);
    greetAndFinish(backend);
    EXPECT_TRUE(fs::exists(place.path() / "Brindle/ManagedBridge/whatsapp"));
    EXPECT_FALSE(isRoot() && fs::exists(foreign / "Brindle"));
}

TEST(DataDirectory, BlankRuntimeDirectoryCountsAsAbsent) {
    const TemporaryDirectory place;
    BackendOptions options = optionsWithDefaultDirectory(place.path());
    options.environment["XDG_RUNTIME_DIR"] = "  ";
    BackendProcess backend(options);
    greetAndFinish(backend);
    EXPECT_TRUE(fs::exists(place.path() / "Brindle/ManagedBridge/whatsapp"));
}

/// Removes what a backend without any temporary directory of its own leaves below /tmp. No two tests on the
/// machine have one at a time: they would take each other's common parents away.
class LeftoversBelowTmp {
  public:
    explicit LeftoversBelowTmp(const std::string& platform)
        : platform_(platform), tmp_(::open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        while (::flock(tmp_, LOCK_EX) != 0) {
            if (errno != EINTR) throw TestFailure("cannot lock /tmp");
        }
    }
    ~LeftoversBelowTmp() {
        std::error_code ignored;
        fs::remove_all(path(), ignored);
        fs::path common = path();
        // Only where nothing else is.
        for (int level = 0; level < 3; ++level) fs::remove(common = common.parent_path(), ignored);
        ::close(tmp_);
    }
    LeftoversBelowTmp(const LeftoversBelowTmp&) = delete;
    LeftoversBelowTmp& operator=(const LeftoversBelowTmp&) = delete;

    fs::path path() const {
        return "/tmp/brindle-" + std::to_string(geteuid()) + "/Brindle/ManagedBridge/" + platform_;
    }

  private:
    std::string platform_;
    int tmp_;
};

TEST(DataDirectory, FolderOfTheUserInTmpIsTheBaseWhereNoTemporaryDirectoryIsNamed) {
    for (const bool isEmpty : {true, false}) {
        const std::string platform = "test-" + std::to_string(getpid());
        const LeftoversBelowTmp leftovers(platform);
        BackendOptions options = optionsWithDefaultDirectory("");
        if (!isEmpty) options.environment.erase("TMPDIR");
        options.arguments = {"--platform", platform};
        BackendProcess backend(options);
        greetAndFinish(backend);
        EXPECT_EQ(publishedDirectory(leftovers.path()), leftovers.path().string()) << isEmpty;
        fs::path directory = leftovers.path();
        for (int level = 0; level < 4; ++level, directory = directory.parent_path()) {
            EXPECT_EQ(modeOf(directory), 0700U) << directory;
        }
    }
}

// Its directories.

TEST(DataDirectory, HoldsItsDirectoriesWhenTheGreetingCame) {
    BackendProcess backend;
    backend.greet();
    for (const std::string& directory : directories_in_order) {
        EXPECT_TRUE(fs::is_directory(backend.path(directory))) << directory;
    }
    EXPECT_EQ(namesIn(backend.path()),
              (std::vector<std::string>{"inbound", "outbound", "processed", "rejected", "runtime"}));
}

TEST(DataDirectory, DirectoriesThatAreMadeArePrivateToTheUser) {
    const TemporaryDirectory place;
    BackendProcess backend(optionsWithDefaultDirectory(place.path()));
    greetAndFinish(backend);
    const fs::path data = place.path() / "Brindle/ManagedBridge/whatsapp";
    for (const fs::path& path : {data.parent_path().parent_path(), data.parent_path(), data}) {
        EXPECT_EQ(modeOf(path), 0700U) << path;
    }
    for (const std::string& directory : directories_in_order) {
        EXPECT_EQ(modeOf(data / directory), 0700U) << directory;
    }
}

TEST(DataDirectory, IntermediateDirectoriesOfANamedPlaceAreMadeAndPrivate) {
    const TemporaryDirectory place;
    BackendProcess backend(optionsWithDataDirectory((place.path() / "a/b/c").string()));
    greetAndFinish(backend);
    EXPECT_EQ(modeOf(place.path() / "a"), 0700U);
    EXPECT_EQ(modeOf(place.path() / "a/b"), 0700U);
    EXPECT_EQ(modeOf(place.path() / "a/b/c"), 0700U);
}

TEST(DataDirectory, ExistingDirectoriesAndTheirContentStay) {
    BackendOptions options;
    const fs::path data = options.dataDirectory->path();
    for (const std::string& directory : directories_in_order) {
        fs::create_directories(data / directory);
        writeFileAtomically(data / directory / "kept.txt", directory);
    }
    BackendProcess backend(options);
    greetAndFinish(backend);
    for (const std::string& directory : directories_in_order) {
        EXPECT_EQ(readFile(data / directory / "kept.txt"), directory);
    }
}

class BlockedDirectory : public testing::TestWithParam<std::size_t> {};

TEST_P(BlockedDirectory, EndsTheStartAtItsPlaceInTheOrder) {
    BackendOptions options;
    const fs::path data = options.dataDirectory->path();
    const std::string& blocked = directories_in_order.at(GetParam());
    const bool isBelowRuntime = blocked.starts_with("runtime/");
    if (isBelowRuntime) fs::create_directory(data / "runtime");
    writeFileAtomically(data / blocked, "in the way");

    BackendProcess backend(options);
    expectFatalEnd(backend, (data / blocked).string());

    for (std::size_t index = 0; index < directories_in_order.size(); ++index) {
        const std::string& directory = directories_in_order[index];
        if (index < GetParam()) {
            EXPECT_TRUE(fs::is_directory(data / directory)) << directory;
        }
        if (index > GetParam()) {
            EXPECT_FALSE(fs::exists(data / directory)) << directory;
        }
    }
    EXPECT_FALSE(fs::exists(data / "runtime/runtime-status.json"));
    EXPECT_FALSE(fs::exists(data / "runtime/worker-control.json"));
    EXPECT_EQ(readFile(data / blocked), "in the way");
}

INSTANTIATE_TEST_SUITE_P(Each, BlockedDirectory, testing::Range<std::size_t>(0, 7));

TEST(DataDirectory, FileInItsOwnPlaceEndsTheStart) {
    const TemporaryDirectory place;
    writeFileAtomically(place.path() / "data", "in the way");
    BackendProcess backend(optionsWithDataDirectory((place.path() / "data").string()));
    expectFatalEnd(backend, (place.path() / "data").string());
    EXPECT_EQ(readFile(place.path() / "data"), "in the way");
}

class ForeignDirectoryBelowTheTemporaryDirectory : public testing::TestWithParam<std::string> {};

TEST_P(ForeignDirectoryBelowTheTemporaryDirectory, IsRefused) {
    const TemporaryDirectory place;
    const fs::path foreign = place.path() / GetParam();
    fs::create_directories(foreign.parent_path());
    if (isRoot()) {
        makeDirectory(foreign, fs::perms::all);
        giveTo(another_user, foreign);
    } else {
        // Only root can give a directory away; one of root's own is at hand for everybody else.
        fs::create_directory_symlink("/usr", foreign);
    }
    BackendProcess backend(optionsWithDefaultDirectory(place.path()));
    expectFatalEnd(backend, foreign.string());
    EXPECT_FALSE(fs::exists(foreign / "inbound"));
    EXPECT_FALSE(fs::exists(foreign / "ManagedBridge"));
    EXPECT_FALSE(fs::exists(foreign / "whatsapp"));
}

INSTANTIATE_TEST_SUITE_P(EachLevel, ForeignDirectoryBelowTheTemporaryDirectory,
                         testing::Values("Brindle", "Brindle/ManagedBridge",
                                         "Brindle/ManagedBridge/whatsapp"));

TEST(DataDirectory, DirectoriesOfAnEarlierRunBelowTheTemporaryDirectoryAreUsedAgain) {
    const TemporaryDirectory place;
    BackendProcess first(optionsWithDefaultDirectory(place.path()));
    greetAndFinish(first);
    BackendProcess second(optionsWithDefaultDirectory(place.path()));
    greetAndFinish(second);
}

TEST(DataDirectory, VanishedDirectoryIsLoggedAndNotMadeAgain) {
    BackendProcess backend;
    backend.connectAndListen();
    makeVanish(backend.path());
    backend.waitForStandardError("[ManagedWhatsAppBackend] failed to write runtime status: ");
    backend.waitForStandardError("[ManagedWhatsAppBackend] failed to write worker control: ");
    backend.waitForStandardError("[ManagedWhatsAppBackend] failed to drain inbound directory: ");
    backend.send(sendMessageRequest({{"conversationId", "c"}, {"text", "t"}}));
    const std::string description = backend.nextEnvelope().at("error").at("_0").at("message");
    EXPECT_NE(description.find(backend.path("outbound").string()), std::string::npos) << description;
    EXPECT_FALSE(fs::exists(backend.path()));
    backend.finish();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    EXPECT_FALSE(fs::exists(backend.path()));
}

TEST(DataDirectory, FailuresOfAVanishedDirectoryNamePathAndReason) {
    BackendProcess backend;
    backend.connectAndListen();
    makeVanish(backend.path());
    for (const std::string what :
         {"write runtime status", "write worker control", "drain inbound directory"}) {
        const std::string prefix = "[ManagedWhatsAppBackend] failed to " + what + ": ";
        backend.waitForStandardError(prefix);
        const std::vector<std::string> lines = backend.standardErrorLines();
        const auto line = std::find_if(lines.begin(), lines.end(),
                                       [&](const std::string& text) { return text.starts_with(prefix); });
        ASSERT_NE(line, lines.end());
        EXPECT_NE(line->find(backend.path().string(), prefix.size()), std::string::npos) << *line;
        EXPECT_NE(line->find("No such file or directory"), std::string::npos) << *line;
    }
}

TEST(DataDirectory, EverythingWorksAgainOnceTheDirectoriesAreBack) {
    BackendProcess backend;
    backend.connectAndListen();
    makeVanish(backend.path());
    backend.waitForStandardError("failed to drain inbound directory: ");
    backend.waitForStandardError("failed to write worker control: ");
    for (const std::string& directory : directories_in_order) fs::create_directories(backend.path(directory));
    backend.waitForRuntimeStatus([](const Json& status) { return status["connectionState"] == "connected"; });
    backend.waitForControl([](const Json& control) { return control.contains("activeScope"); });
    backend.writeInbound("m-1.json", inboundRecord("m-1", "back"));
    EXPECT_EQ(backend.nextEnvelope().at("inboundEvent").at("_0").at("event").at("text"), "back");
    backend.waitForEntries("processed", 1);
    backend.send(sendMessageRequest({{"conversationId", "c"}, {"text", "t"}}));
    backend.waitForEntries("outbound", 1);
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

// Its records.

class RecordForm : public testing::Test {
  protected:
    void sendMessage(const Json& message) {
        backend_.greet();
        backend_.send(sendMessageRequest(message));
        backend_.waitForEntries("outbound", 1);
    }
    fs::path outboundFile() const {
        return backend_.path("outbound") / namesIn(backend_.path("outbound")).front();
    }
    Json outboundRecord() const { return readJsonFile(outboundFile()); }

    BackendProcess backend_;
};

TEST_F(RecordForm, RuntimeStatusWithoutWorkerScopeOrConnection) {
    backend_.greet();
    Json status = backend_.waitForRuntimeStatus(
        [](const Json& found) { return found["workerDetail"].get<std::string>().ends_with("executable."); });
    EXPECT_TRUE(isTimestamp(status.at("updatedAtISO8601").get<std::string>()));
    status.erase("updatedAtISO8601");
    EXPECT_EQ(
        status,
        (Json{
            {"platform", "whatsapp"},
            {"backendVersion", "managed-whatsapp-backend-3"},
            {"dataDirectoryPath", backend_.path().string()},
            {"connectionState", "disconnected"},
            {"workerProcessRunning", false},
            {"workerState", "not_configured"},
            {"workerDetail",
             "No managed WhatsApp worker configured. Install the protocol worker dependencies or provide an explicit worker executable."},
            {"workerSupportsLiveCapture", false},
            {"workerSupportsOutbound", false}}));
}

TEST_F(RecordForm, RecordFilesHaveTheirKeysInAlphabeticalOrder) {
    backend_.connectAndListen();
    backend_.send(sendMessageRequest({{"conversationId", "c"}, {"text", "t"}, {"replyToMessageId", "m-1"}}));
    backend_.waitForEntries("outbound", 1);
    EXPECT_EQ(keysInFile(backend_.path("runtime/runtime-status.json")),
              (std::vector<std::string>{"activeScopeDescription", "backendVersion", "connectionState",
                                        "dataDirectoryPath", "platform", "updatedAtISO8601", "workerDetail",
                                        "workerProcessRunning", "workerState", "workerSupportsLiveCapture",
                                        "workerSupportsOutbound"}));
    EXPECT_EQ(keysInFile(backend_.path("runtime/worker-control.json")),
              (std::vector<std::string>{"activeScope", "platform", "updatedAtISO8601"}));
    EXPECT_EQ(keysInFile(outboundFile()),
              (std::vector<std::string>{"attachments", "conversationId", "createdAtISO8601", "messageId",
                                        "replyToMessageId", "text"}));
}

TEST_F(RecordForm, RecordFilesArePrettyPrinted) {
    sendMessage({{"conversationId", "c"}, {"text", "t"}});
    for (const fs::path& file : {outboundFile(), backend_.path("runtime/runtime-status.json"),
                                 backend_.path("runtime/worker-control.json")}) {
        const std::string text = readFile(file);
        const Json document = Json::parse(text);
        const auto lineFeeds = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
        EXPECT_GT(lineFeeds, document.size()) << text;
    }
}

TEST_F(RecordForm, SlashesAreEscaped) {
    sendMessage({{"conversationId", "a/b"}, {"text", "see https://example.org/x"}});
    const std::string text = readFile(outboundFile());
    EXPECT_NE(text.find(R"("a\/b")"), std::string::npos) << text;
    EXPECT_NE(text.find(R"("see https:\/\/example.org\/x")"), std::string::npos) << text;
    const std::string status = readFile(backend_.path("runtime/runtime-status.json"));
    std::string escaped = backend_.path().string();
    for (std::size_t at = 0; (at = escaped.find('/', at)) != std::string::npos; at += 2)
        escaped.insert(at, "\\");
    EXPECT_NE(status.find("\"" + escaped + "\""), std::string::npos) << status;
}

TEST_F(RecordForm, OutboundRecordWithoutReplyAndAttachments) {
    sendMessage({{"conversationId", "team-room"}, {"text", "On my way"}});
    Json record = outboundRecord();
    EXPECT_TRUE(isCanonicalUuid(record.at("messageId").get<std::string>()));
    EXPECT_TRUE(isTimestamp(record.at("createdAtISO8601").get<std::string>()));
    EXPECT_EQ(outboundFile().filename().string(), record.at("messageId").get<std::string>() + ".json");
    record.erase("messageId");
    record.erase("createdAtISO8601");
    EXPECT_EQ(record,
              (Json{{"conversationId", "team-room"}, {"text", "On my way"}, {"attachments", Json::array()}}));
}

TEST_F(RecordForm, NullReplyAndAttachmentsCountAsAbsent) {
    sendMessage(
        {{"conversationId", "c"}, {"text", "t"}, {"replyToMessageId", nullptr}, {"attachments", nullptr}});
    EXPECT_FALSE(outboundRecord().contains("replyToMessageId"));
    EXPECT_EQ(outboundRecord().at("attachments"), Json::array());
}

TEST_F(RecordForm, EmptyReplyCountsAsPresent) {
    sendMessage({{"conversationId", "c"}, {"text", ""}, {"replyToMessageId", ""}});
    EXPECT_EQ(outboundRecord().at("replyToMessageId"), "");
    EXPECT_EQ(outboundRecord().at("text"), "");
}

TEST_F(RecordForm, AttachmentsAreCarriedFieldByField) {
    const Json full = {{"id", "a-1"},
                       {"kind", "image"},
                       {"fileName", "photo/1.png"},
                       {"mimeType", "image/png"},
                       {"localPath", "/nowhere/photo.png"},
                       {"dataBase64", "not inspected/=="},
                       {"caption", "\xE2\x98\x95"}};
    const Json bare = {{"kind", "file"}, {"fileName", ""}, {"mimeType", ""}};
    Json withExtras = bare;
    withExtras["note"] = {{"any", Json::array({1, nullptr})}};
    withExtras["caption"] = nullptr;
    sendMessage({{"conversationId", "c"}, {"text", "t"}, {"attachments", {full, withExtras}}});
    EXPECT_EQ(outboundRecord().at("attachments"), Json::array({full, bare}));
}

TEST_F(RecordForm, TextIsCarriedExactly) {
    using namespace std::string_literals;
    const auto text = "nul \0 quote \" backslash \\ line\nfeed tab\t e\xCC\x81 \xF0\x9F\x98\x80 \x7F"s;
    sendMessage({{"conversationId", " padded "}, {"text", text}});
    EXPECT_EQ(outboundRecord().at("text").get<std::string>(), text);
    EXPECT_EQ(outboundRecord().at("conversationId"), " padded ");
}

TEST_F(RecordForm, NonAsciiTextIsWrittenAsUtf8) {
    sendMessage({{"conversationId", "c"}, {"text", "caf\xC3\xA9 \xF0\x9F\x98\x80"}});
    EXPECT_NE(readFile(outboundFile()).find("\"caf\xC3\xA9 \xF0\x9F\x98\x80\""), std::string::npos);
}

TEST_F(RecordForm, ControlRecordWithoutScope) {
    backend_.greet();
    Json control = backend_.readJson("runtime/worker-control.json");
    EXPECT_TRUE(isTimestamp(control.at("updatedAtISO8601").get<std::string>()));
    control.erase("updatedAtISO8601");
    EXPECT_EQ(control, (Json{{"platform", "whatsapp"}}));
}

TEST_F(RecordForm, NoTemporaryFilesStayBehind) {
    backend_.connectAndListen();
    for (int count = 0; count < 50; ++count) {
        backend_.send(sendMessageRequest({{"conversationId", "c"}, {"text", std::to_string(count)}}));
    }
    backend_.waitForEntries("outbound", 50);
    backend_.finish();
    EXPECT_EQ(namesIn(backend_.path("outbound")).size(), 50U);
    EXPECT_EQ(namesIn(backend_.path("runtime")),
              (std::vector<std::string>{"runtime-status.json", "worker-control.json",
                                        "worker-processed-outbound", "worker-rejected-outbound"}));
}

TEST_F(RecordForm, ReadersNeverSeeAPartOfARecord) {
    backend_.greet();
    constexpr int rounds = 300;
    std::string requests;
    for (int round = 0; round < rounds; ++round) {
        const std::string title(static_cast<std::size_t>(1 + round * 20), 'x');
        requests += startListeningRequest(conversationScope(std::to_string(round), title)).dump() + "\n";
    }
    backend_.sendRaw(requests);
    const std::string last = std::to_string(rounds - 1);
    Json control;
    do {
        // readJson fails the test when the document is not whole.
        control = backend_.readJson("runtime/worker-control.json");
        const Json status = backend_.readJson("runtime/runtime-status.json");
        ASSERT_TRUE(status.contains("updatedAtISO8601"));
    } while (!control.contains("activeScope") || control["activeScope"]["id"] != last);
}

struct ScopeForm {
    std::string name;
    Json scope;
    Json control;
    std::string description;
};

void PrintTo(const ScopeForm& form, std::ostream* stream) {
    *stream << form.name;
}

class ScopeRecord : public testing::TestWithParam<ScopeForm> {};

TEST_P(ScopeRecord, StandsInControlAndStatus) {
    BackendProcess backend;
    backend.greet();
    backend.send(startListeningRequest(GetParam().scope));
    const Json control =
        backend.waitForControl([](const Json& found) { return found.contains("activeScope"); });
    EXPECT_EQ(control.at("activeScope"), GetParam().control);
    EXPECT_EQ(control.at("platform"), "whatsapp");
    EXPECT_TRUE(isTimestamp(control.at("updatedAtISO8601").get<std::string>()));
    // The control record may be the work of the poller, whose status had come a moment before the request.
    const Json status = backend.waitForRuntimeStatus(
        [](const Json& found) { return found.contains("activeScopeDescription"); });
    EXPECT_EQ(status.at("activeScopeDescription"), GetParam().description);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ScopeRecord,
    testing::Values(ScopeForm{"Conversation",
                              conversationScope("team-room", "Team Room"),
                              {{"kind", "conversation"}, {"id", "team-room"}, {"title", "Team Room"}},
                              "Conversation Team Room [team-room]"},
                    ScopeForm{"Channel",
                              channelScope("news", "News"),
                              {{"kind", "channel"}, {"id", "news"}, {"title", "News"}},
                              "Channel News [news]"},
                    ScopeForm{"ThreadWithTitle",
                              threadScope("t-9", "Launch"),
                              {{"kind", "thread"}, {"id", "t-9"}, {"title", "Launch"}},
                              "Thread Launch [t-9]"},
                    ScopeForm{"ThreadWithoutTitle",
                              threadScope("t-9"),
                              {{"kind", "thread"}, {"id", "t-9"}},
                              "Thread t-9 [t-9]"},
                    ScopeForm{"ThreadWithNullTitle",
                              {{"thread", {{"id", "t-9"}, {"title", nullptr}}}},
                              {{"kind", "thread"}, {"id", "t-9"}},
                              "Thread t-9 [t-9]"},
                    ScopeForm{"ThreadWithEmptyTitle",
                              threadScope("t-9", ""),
                              {{"kind", "thread"}, {"id", "t-9"}, {"title", ""}},
                              "Thread  [t-9]"},
                    ScopeForm{"TestOnly",
                              testOnlyScope("Smoke test"),
                              {{"kind", "testOnly"}, {"title", "Smoke test"}},
                              "Self-test Smoke test"},
                    ScopeForm{"EmptyTexts",
                              conversationScope("", ""),
                              {{"kind", "conversation"}, {"id", ""}, {"title", ""}},
                              "Conversation  []"}),
    [](const testing::TestParamInfo<ScopeForm>& form) { return form.param.name; });

TEST(ControlRecord, CarriesThePlatformOfTheCommandLine) {
    BackendOptions options;
    options.arguments = {"--platform", "signal"};
    BackendProcess backend(options);
    backend.nextLine();
    EXPECT_EQ(backend.readJson("runtime/worker-control.json").at("platform"), "signal");
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("platform"), "signal");
}

// Reading inbound records.

/// Connects, listens and hands one inbound record over; the backend has dealt with it when the object is
/// there.
class OneInboundRecord {
  public:
    explicit OneInboundRecord(const Json& record) {
        backend_.connectAndListen();
        backend_.writeInbound("r.json", record);
        backend_.waitUntil(
            [&] {
                was_accepted_ = fs::exists(backend_.path("processed/r.json"));
                return was_accepted_ || fs::exists(backend_.path("rejected/r.json"));
            },
            "the inbound record to be taken");
        lines_ = backend_.finishAndTakeRest();
    }
    bool wasAccepted() const { return was_accepted_; }
    /// The one envelope that it led to.
    Json event() const {
        if (lines_.size() != 1)
            throw TestFailure("expected one envelope, got " + std::to_string(lines_.size()));
        return Json::parse(lines_.front()).at("inboundEvent").at("_0").at("event");
    }
    std::size_t envelopes() const { return lines_.size(); }
    std::string log() const { return backend_.standardError(); }

  private:
    BackendProcess backend_;
    bool was_accepted_ = false;
    std::vector<std::string> lines_;
};

void expectRejected(const Json& record) {
    const OneInboundRecord result(record);
    EXPECT_FALSE(result.wasAccepted()) << record;
    EXPECT_EQ(result.envelopes(), 0U) << record;
    EXPECT_TRUE(result.log().starts_with("[ManagedWhatsAppBackend] rejected inbound event at r.json: "))
        << result.log();
}

const std::vector<std::string> required_inbound_keys = {
    "conversationId", "conversationTitle", "senderId", "senderDisplayName", "text", "isDirectMessage"};
const std::vector<std::string> optional_inbound_keys = {"messageId", "timestampISO8601", "rawReference"};

class RequiredInboundKey : public testing::TestWithParam<std::string> {};

TEST_P(RequiredInboundKey, RecordWithoutItIsRejectedWhole) {
    Json record = inboundRecord("m-1", "hi");
    record.erase(GetParam());
    expectRejected(record);
}

TEST_P(RequiredInboundKey, RecordWithNullThereIsRejectedWhole) {
    Json record = inboundRecord("m-1", "hi");
    record[GetParam()] = nullptr;
    expectRejected(record);
}

TEST_P(RequiredInboundKey, RecordWithANumberThereIsRejectedWhole) {
    Json record = inboundRecord("m-1", "hi");
    record[GetParam()] = 1;
    expectRejected(record);
}

INSTANTIATE_TEST_SUITE_P(Each, RequiredInboundKey, testing::ValuesIn(required_inbound_keys),
                         [](const auto& key) { return key.param; });

class OptionalInboundKey : public testing::TestWithParam<std::string> {};

TEST_P(OptionalInboundKey, RecordWithoutItIsAccepted) {
    Json record = inboundRecord("m-1", "hi");
    record.erase(GetParam());
    EXPECT_TRUE(OneInboundRecord(record).wasAccepted());
}

TEST_P(OptionalInboundKey, NullThereCountsAsAbsent) {
    Json record = inboundRecord("m-1", "hi");
    record[GetParam()] = nullptr;
    const OneInboundRecord result(record);
    EXPECT_TRUE(result.wasAccepted());
    EXPECT_TRUE(result.event().at(GetParam()).isString());
}

TEST_P(OptionalInboundKey, EmptyTextThereCountsAsPresent) {
    Json record = inboundRecord("m-1", "hi");
    record[GetParam()] = "";
    EXPECT_EQ(OneInboundRecord(record).event().at(GetParam()), "");
}

TEST_P(OptionalInboundKey, RecordWithANumberThereIsRejectedWhole) {
    Json record = inboundRecord("m-1", "hi");
    record[GetParam()] = 1;
    expectRejected(record);
}

INSTANTIATE_TEST_SUITE_P(Each, OptionalInboundKey, testing::ValuesIn(optional_inbound_keys),
                         [](const auto& key) { return key.param; });

TEST(InboundRecord, WithoutAnyOptionalKeyIsAccepted) {
    Json record = inboundRecord("m-1", "hi");
    for (const std::string& key : optional_inbound_keys) record.erase(key);
    EXPECT_TRUE(OneInboundRecord(record).wasAccepted());
}

TEST(InboundRecord, UnknownKeysAreIgnored) {
    Json record = inboundRecord("m-1", "hi");
    record["note"] = {{"any", Json::array({1.5, nullptr, "x"})}};
    const OneInboundRecord result(record);
    EXPECT_TRUE(result.wasAccepted());
    EXPECT_EQ(result.event(), inboundRecord("m-1", "hi"));
}

TEST(InboundRecord, BooleanGivenAsTextIsRejected) {
    Json record = inboundRecord("m-1", "hi");
    record["isDirectMessage"] = "true";
    expectRejected(record);
}

TEST(InboundRecord, ArrayIsRejected) {
    expectRejected(Json::array({inboundRecord("m-1", "hi")}));
}

}  // namespace
}  // namespace brindle::test

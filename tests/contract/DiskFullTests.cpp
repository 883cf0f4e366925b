#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Requests.h"
#include "support/SmallFileSystem.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

const std::string no_space = "No space left on device";

/// Set for the run of a test inside a namespace in which it may mount.
constexpr const char* inside_namespace_marker = "BRINDLE_TEST_MAY_MOUNT";

/// Runs a command in a namespace of its own, where an ordinary user may mount too; whether it succeeds.
bool succeedsInNamespaceOfItsOwn(std::vector<std::string> command) {
    command.insert(command.begin(), {"unshare", "--map-root-user", "--mount"});
    std::vector<char*> arguments;
    for (auto& word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        setenv(inside_namespace_marker, "1", 1);
        // The one test must run there whatever share of the tests this process has.
        unsetenv("GTEST_TOTAL_SHARDS");
        unsetenv("GTEST_SHARD_INDEX");
        execvp("unshare", arguments.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Whether the running test succeeds there.
bool testSucceedsInNamespaceOfItsOwn() {
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    return succeedsInNamespaceOfItsOwn(
        {fs::read_symlink("/proc/self/exe"),
         std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name()});
}

/// A backend whose data directory lies on a small file system that the test can fill.
class DiskFull : public testing::Test {
  protected:
    /// False when the test has run elsewhere already and has nothing left to do here.
    bool prepare(const std::string& limits = "size=128k") {
        disk_ = std::make_unique<SmallFileSystem>(options_.dataDirectory->path(), limits);
        if (disk_->isMounted()) return true;
        runElsewhere();
        return false;
    }
    BackendProcess& start() { return backend_.emplace(options_); }
    BackendProcess& backend() { return *backend_; }
    const BackendOptions& options() const { return options_; }
    /// From the next start on, standard output is appended to a file.
    void writeOutputTo(const fs::path& file) {
        options_.arguments = {"-c", "exec \"$0\" >>\"$1\"", options_.executable, file.string()};
        options_.executable = "/bin/sh";
    }
    /// From the next start on, standard output is not read.
    void leaveOutputUnread() { options_.readOutputAtOnce = false; }

    const SmallFileSystem& disk() const { return *disk_; }
    fs::path filler() const { return options_.dataDirectory->path() / "filler"; }

    /// Fills the disk; when this returns both records have failed once, and every later write fails too.
    void fill() {
        const std::size_t failedStatusWrites = linesWith(status_failure_prefix).size();
        const std::size_t failedControlWrites = linesWith(control_failure_prefix).size();
        waitUntil(
            [&] {
                disk_->takeFreeSpace(filler());
                return linesWith(status_failure_prefix).size() > failedStatusWrites &&
                       linesWith(control_failure_prefix).size() > failedControlWrites;
            },
            "a failed write of both records");
    }
    void makeRoom() const { fs::remove(filler()); }
    /// Takes every free inode, as fill() does with the blocks.
    void takeAllInodes() {
        const std::size_t failedStatusWrites = linesWith(status_failure_prefix).size();
        fs::create_directory(filler());
        waitUntil(
            [&] {
                while (isAnotherFileMade()) {
                }
                return linesWith(status_failure_prefix).size() > failedStatusWrites;
            },
            "a failed write for want of an inode");
    }
    void giveInodesBack() const { fs::remove_all(filler()); }

    std::vector<std::string> linesWith(const std::string& prefix) {
        std::vector<std::string> lines = backend().standardErrorLines();
        std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(prefix); });
        return lines;
    }
    void expectFailureLine(const std::string& prefix, const std::string& file) {
        const std::vector<std::string> lines = linesWith(prefix);
        ASSERT_FALSE(lines.empty()) << backend().standardError();
        EXPECT_NE(lines.front().find(backend().path(file).string()), std::string::npos) << lines.front();
        EXPECT_NE(lines.front().find(no_space), std::string::npos) << lines.front();
    }
    /// Sends a message of the given text; the description of the `error` that answers, empty when none does.
    std::string errorOfSending(const std::string& text) {
        backend().send(sendMessageRequest({{"conversationId", "team-room"}, {"text", text}}));
        backend().send(disconnectRequest());  // Always answered by one envelope.
        const Json first = backend().nextEnvelope();
        if (first.contains("stateChanged")) return {};
        EXPECT_TRUE(backend().nextEnvelope().contains("stateChanged"));
        return first.at("error").at("_0").at("message");
    }

  private:
    bool isAnotherFileMade() {
        const auto file = filler() / std::to_string(++fillers_);
        const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (descriptor < 0) return false;
        close(descriptor);
        return true;
    }
    void runElsewhere() const {
        const bool isElsewhere = getenv(inside_namespace_marker) != nullptr;
        if (!isElsewhere &&
            !succeedsInNamespaceOfItsOwn({"mount", "-t", "tmpfs", "none", options_.dataDirectory->path()})) {
            GTEST_SKIP()
                << "Only root may mount a small file system; without user namespaces nobody else may ("
                << disk_->whyNot() << ").";
        }
        if (isElsewhere || !testSucceedsInNamespaceOfItsOwn()) {
            ADD_FAILURE() << "the test failed in a namespace of its own (" << disk_->whyNot() << ")";
        }
    }

    BackendOptions options_;
    std::unique_ptr<SmallFileSystem> disk_;
    std::optional<BackendProcess> backend_;
    int fillers_ = 0;
};

TEST_F(DiskFull, StatusAndControlFailuresAreLoggedWithPathAndReason) {
    if (!prepare()) return;
    start().greet();
    fill();
    expectFailureLine(status_failure_prefix, "runtime/runtime-status.json");
    expectFailureLine(control_failure_prefix, "runtime/worker-control.json");
    EXPECT_TRUE(backend().finishAndTakeRest().empty());
    EXPECT_EQ(backend().waitForExit(), exitedWith(0));
}

TEST_F(DiskFull, LastStatusAndControlStayWhole) {
    if (!prepare()) return;
    start().connectAndListen();
    backend().waitForStatusWrites(1);
    fill();
    backend().send(disconnectRequest());
    EXPECT_TRUE(backend().nextEnvelope().contains("stateChanged"));
    EXPECT_EQ(backend().readJson("runtime/runtime-status.json").at("connectionState"), "connected");
    EXPECT_EQ(backend().readJson("runtime/worker-control.json").at("activeScope").at("id"), "team-room");
}

TEST_F(DiskFull, FailedWritesLeaveNothingBehind) {
    if (!prepare()) return;
    start().greet();
    fill();
    EXPECT_NE(errorOfSending("lost"), "");
    backend().finish();
    EXPECT_TRUE(namesIn(backend().path("outbound")).empty());
    EXPECT_EQ(namesIn(backend().path("runtime")),
              (std::vector<std::string>{"runtime-status.json", "worker-control.json",
                                        "worker-processed-outbound", "worker-rejected-outbound"}));
}

TEST_F(DiskFull, StatusAndControlAreWrittenAgainWhenSpaceReturns) {
    if (!prepare()) return;
    start().greet();
    fill();
    backend().send(startListeningRequest(conversationScope()));
    makeRoom();
    backend().waitForRuntimeStatus(
        [](const Json& status) { return status.contains("activeScopeDescription"); });
    backend().waitForControl([](const Json& control) { return control.contains("activeScope"); });
}

TEST_F(DiskFull, SendMessageIsAnsweredByAnErrorNamingPathAndReason) {
    if (!prepare()) return;
    start().greet();
    fill();
    const std::string description = errorOfSending("lost");
    EXPECT_NE(description.find(backend().path("outbound").string()), std::string::npos) << description;
    EXPECT_NE(description.find(no_space), std::string::npos) << description;
    EXPECT_EQ(description.find('\n'), std::string::npos);
}

TEST_F(DiskFull, SendMessageWorksAgainWhenSpaceReturns) {
    if (!prepare()) return;
    start().greet();
    fill();
    EXPECT_NE(errorOfSending("lost"), "");
    makeRoom();
    EXPECT_EQ(errorOfSending("arrives"), "");
    const std::vector<std::string> names = namesIn(backend().path("outbound"));
    ASSERT_EQ(names.size(), 1U);
    EXPECT_EQ(backend().readJson(fs::path("outbound") / names.front()).at("text"), "arrives");
}

TEST_F(DiskFull, MessageThatDoesNotFitLeavesNoPartOfItself) {
    if (!prepare()) return;
    start().greet();
    EXPECT_NE(errorOfSending(std::string(200 * 1024, 'x')).find(no_space), std::string::npos);
    EXPECT_TRUE(namesIn(backend().path("outbound")).empty());
    EXPECT_EQ(errorOfSending("small"), "");
    EXPECT_EQ(namesIn(backend().path("outbound")).size(), 1U);
}

TEST_F(DiskFull, EarlierMessagesStay) {
    if (!prepare()) return;
    start().greet();
    EXPECT_EQ(errorOfSending("first"), "");
    fill();
    EXPECT_NE(errorOfSending("second"), "");
    const std::vector<std::string> names = namesIn(backend().path("outbound"));
    ASSERT_EQ(names.size(), 1U);
    EXPECT_EQ(backend().readJson(fs::path("outbound") / names.front()).at("text"), "first");
}

TEST_F(DiskFull, RequestsAreAnsweredAllTheSame) {
    if (!prepare()) return;
    start().greet();
    fill();
    backend().send(connectRequest());
    EXPECT_TRUE(backend().nextEnvelope().at("stateChanged").at("_0").at("state").contains("connecting"));
    EXPECT_TRUE(backend().nextEnvelope().at("stateChanged").at("_0").at("state").contains("connected"));
    backend().send(startListeningRequest(testOnlyScope("X")));
    EXPECT_TRUE(backend().nextEnvelope().contains("inboundEvent"));
    EXPECT_TRUE(backend().finishAndTakeRest().empty());
}

TEST_F(DiskFull, WaitingInboundRecordsAreDeliveredOnceAndMoved) {
    if (!prepare()) return;
    start().greet();
    backend().writeInbound("a.json", inboundRecord("a", "first"));
    backend().writeInbound("c.json", inboundRecord("c", "second"));
    backend().writeInboundRaw("b.json", "{");
    fill();
    backend().send(connectRequest());
    backend().send(startListeningRequest(conversationScope()));
    EXPECT_TRUE(backend().nextEnvelope().contains("stateChanged"));
    EXPECT_TRUE(backend().nextEnvelope().contains("stateChanged"));
    EXPECT_EQ(backend().nextEnvelope().at("inboundEvent").at("_0").at("event"), inboundRecord("a", "first"));
    EXPECT_EQ(backend().nextEnvelope().at("inboundEvent").at("_0").at("event"), inboundRecord("c", "second"));
    EXPECT_EQ(backend().waitForEntries("processed", 2), (std::vector<std::string>{"a.json", "c.json"}));
    EXPECT_EQ(backend().waitForEntries("rejected", 1), std::vector<std::string>{"b.json"});
    EXPECT_TRUE(backend().finishAndTakeRest().empty());
    EXPECT_EQ(linesWith("[ManagedWhatsAppBackend] rejected inbound event at ").size(), 1U);
}

TEST_F(DiskFull, MessagesThatTheParentHasNotReadAreNotTakenForOldOnes) {
    // A tenth of it is less than either those that a worker has sent or those that lie unread.
    if (!prepare("size=256k")) return;
    constexpr int sent = 8;
    constexpr int unread = 20;
    const auto data = options().dataDirectory->path();
    fs::create_directories(data / "runtime" / "worker-processed-outbound");
    fs::create_directories(data / "inbound");
    for (int i = 0; i < sent; ++i)
        writeFileAtomically(data / "runtime" / "worker-processed-outbound" / (std::to_string(i) + ".json"),
                            "{}");
    for (int i = 0; i < unread; ++i)
        writeFileAtomically(data / "inbound" / (std::to_string(i) + ".json"),
                            inboundRecord(std::to_string(i), "unread").dump());
    leaveOutputUnread();
    start().send(connectRequest());
    backend().send(startListeningRequest(conversationScope()));
    backend().waitForEntries("processed", unread);
    waitUntil(
        [&] { return visibleNamesIn(backend().path("runtime/worker-processed-outbound")).size() < sent; },
        "the first records to go");
    // The rest of them follow within a few hundredths of a second.
    backend().waitForStatusWrites(1);
    backend().closeOutputReader();
    backend().closeInput();
    EXPECT_EQ(backend().waitForExit(), exitedWith(0));
    EXPECT_EQ(visibleNamesIn(backend().path("inbound")).size(), std::size_t{unread});
}

TEST_F(DiskFull, NothingFollowsHalfALineOfStandardOutputThoughSpaceReturns) {
    if (!prepare()) return;
    // Its last block has room for the replies and a part of the message.
    constexpr std::size_t block_bytes = 4096;
    constexpr std::size_t room_bytes = 600;
    const auto output = options().dataDirectory->path() / "output";
    writeFileAtomically(output.string(), std::string(block_bytes - room_bytes, '-') + "\n");
    writeOutputTo(output);
    start().waitForFile("runtime/worker-control.json");
    backend().send(connectRequest());
    backend().send(startListeningRequest(conversationScope()));
    backend().waitForControl([](const Json& control) { return control.contains("activeScope"); });
    // It is there before the disk is full, and comes when it is.
    const auto inbound = options().dataDirectory->path() / "inbound";
    writeFileAtomically((inbound / ".m-1").string(), inboundRecord("m-1", std::string(1000, 'x')).dump());
    fill();
    fs::rename(inbound / ".m-1", inbound / "m-1.json");
    backend().waitForEntries("rejected", 1);
    makeRoom();
    backend().waitForStatusWrites(1);
    backend().send(connectRequest());
    EXPECT_EQ(backend().waitForExit(), exitedWith(software_failure));
    const auto text = readFile(output.string());
    EXPECT_EQ(text.size(), block_bytes);
    EXPECT_TRUE(text.ends_with("xxxx")) << text.substr(text.size() - 100);
}

TEST_F(DiskFull, EndOfInputEndsTheProcessNormally) {
    if (!prepare()) return;
    start().greet();
    fill();
    backend().closeInput();
    EXPECT_EQ(backend().waitForExit(), exitedWith(0));
}

TEST_F(DiskFull, StartWithoutRoomForTheDirectoriesIsFatal) {
    // The root directory of the file system and two more.
    if (!prepare("size=128k,nr_inodes=3")) return;
    start();
    EXPECT_EQ(backend().waitForExit(), exitedWith(70));
    EXPECT_EQ(backend().rawOutput(), "");
    const std::vector<std::string> lines = backend().standardErrorLines();
    ASSERT_EQ(lines.size(), 1U) << backend().standardError();
    EXPECT_TRUE(lines.front().starts_with("[ManagedWhatsAppBackend] fatal: ")) << lines.front();
    EXPECT_NE(lines.front().find(backend().path("processed").string()), std::string::npos) << lines.front();
    EXPECT_NE(lines.front().find(no_space), std::string::npos) << lines.front();
    EXPECT_EQ(namesIn(backend().path()), (std::vector<std::string>{"inbound", "outbound"}));
}

TEST_F(DiskFull, StartWithRoomForDirectoriesOnlyIsLoggedAndGoesOn) {
    // The root directory, the seven below it, and none for a record.
    if (!prepare("size=128k,nr_inodes=8")) return;
    start().greet();
    backend().waitForStandardError(status_failure_prefix);
    backend().waitForStandardError(control_failure_prefix);
    backend().send(connectRequest());
    EXPECT_TRUE(backend().nextEnvelope().contains("stateChanged"));
    EXPECT_TRUE(backend().nextEnvelope().contains("stateChanged"));
    EXPECT_TRUE(backend().finishAndTakeRest().empty());
    EXPECT_EQ(backend().waitForExit(), exitedWith(0));
    EXPECT_EQ(namesIn(backend().path("runtime")),
              (std::vector<std::string>{"worker-processed-outbound", "worker-rejected-outbound"}));
}

TEST_F(DiskFull, WantOfInodesCostsNoMessage) {
    if (!prepare("size=1m,nr_inodes=40")) return;
    start().greet();
    EXPECT_EQ(errorOfSending("first"), "");
    backend().writeInbound("a.json", inboundRecord("a", "waits"));
    takeAllInodes();
    EXPECT_NE(errorOfSending("refused").find(no_space), std::string::npos);
    EXPECT_EQ(namesIn(backend().path("outbound")).size(), 1U);
    backend().send(connectRequest());
    EXPECT_TRUE(backend().nextEnvelope().contains("stateChanged"));
    EXPECT_TRUE(backend().nextEnvelope().contains("stateChanged"));
    backend().send(startListeningRequest(conversationScope()));
    EXPECT_EQ(backend().nextEnvelope().at("inboundEvent").at("_0").at("event"), inboundRecord("a", "waits"));
    backend().waitForEntries("processed", 1);
    giveInodesBack();
    EXPECT_EQ(errorOfSending("second"), "");
    EXPECT_EQ(namesIn(backend().path("outbound")).size(), 2U);
}

/// A disk that can be read and takes no change.
class ReadOnlyDisk : public DiskFull {
  protected:
    static constexpr const char* read_only = "Read-only file system";
};

TEST_F(ReadOnlyDisk, RefusesMessagesToSendUntilItTakesThemAgain) {
    if (!prepare()) return;
    start().greet();
    EXPECT_EQ(errorOfSending("first"), "");
    disk().setReadOnly(true);
    EXPECT_NE(errorOfSending("refused").find(read_only), std::string::npos);
    backend().waitForStandardError(status_failure_prefix);
    disk().setReadOnly(false);
    EXPECT_EQ(errorOfSending("second"), "");
    EXPECT_EQ(namesIn(backend().path("outbound")).size(), 2U);
    EXPECT_TRUE(backend().finishAndTakeRest().empty());
    EXPECT_EQ(backend().waitForExit(), exitedWith(0));
}

TEST_F(ReadOnlyDisk, MessageThatCameInIsDeliveredAtEveryLookUntilItCanBeFiledAway) {
    if (!prepare()) return;
    start().greet();
    backend().writeInbound("a.json", inboundRecord("a", "again"));
    disk().setReadOnly(true);
    backend().send(connectRequest());
    backend().send(startListeningRequest(conversationScope()));
    EXPECT_TRUE(backend().nextEnvelope().contains("stateChanged"));
    EXPECT_TRUE(backend().nextEnvelope().contains("stateChanged"));
    for (int look = 0; look < 2; ++look) {
        EXPECT_EQ(backend().nextEnvelope().at("inboundEvent").at("_0").at("event"),
                  inboundRecord("a", "again"));
    }
    EXPECT_EQ(namesIn(backend().path("inbound")), std::vector<std::string>{"a.json"});
    disk().setReadOnly(false);
    // The disk may take changes again between the two moves of one look; then the record goes where the
    // second one leads.
    const auto entries = [&](const char* name) { return namesIn(backend().path(name)); };
    backend().waitUntil([&] { return entries("inbound").empty(); }, "the record to be filed away");
    EXPECT_EQ(entries("processed").size() + entries("rejected").size(), 1U);
    backend().finish();
}

TEST_F(ReadOnlyDisk, DoesNotKeepAHelperFromStartingWhereEverythingIsThere) {
    if (!prepare()) return;
    start().greet();
    backend().finish();
    disk().setReadOnly(true);
    start().greet();
    backend().waitForStandardError(status_failure_prefix);
    EXPECT_TRUE(backend().finishAndTakeRest().empty());
    EXPECT_EQ(backend().waitForExit(), exitedWith(0));
}

TEST_F(ReadOnlyDisk, StartWithoutItsDirectoriesIsFatal) {
    if (!prepare()) return;
    disk().setReadOnly(true);
    start();
    EXPECT_EQ(backend().waitForExit(), exitedWith(software_failure));
    const auto lines = backend().standardErrorLines();
    ASSERT_EQ(lines.size(), 1U) << backend().standardError();
    EXPECT_TRUE(lines.front().starts_with(fatal_prefix)) << lines.front();
    EXPECT_NE(lines.front().find(read_only), std::string::npos) << lines.front();
}

}  // namespace
}  // namespace brindle::test

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/Sanitizers.h"
#include "support/Spawning.h"
#include "support/TextForms.h"
#include "support/Waiting.h"
#include "support/WorkerScript.h"

namespace brindle::test {
namespace {

using Lines = std::vector<std::string>;

constexpr int small_pipe_bytes = 4096;
constexpr std::size_t nearly_full_bytes = 3500;
constexpr std::size_t backlog = 3000;

std::string nameOf(std::size_t number) {
    return std::to_string(100'000 + number);
}

/// A backlog of messages whose texts are the files' names and then `padding`.
void putBacklog(const std::filesystem::path& inbound, std::size_t count, const std::string& padding = {}) {
    std::filesystem::create_directories(inbound);
    for (std::size_t i = 0; i < count; ++i) {
        writeFileAtomically(inbound / (nameOf(i) + ".json"),
                            inboundRecord(nameOf(i), nameOf(i) + padding).dump());
    }
}

/// The texts of the messages among whole lines of standard output.
Lines messagesIn(const Lines& lines) {
    Lines texts;
    for (const auto& line : lines) {
        const auto envelope = Json::parse(line);
        if (envelope.contains("inboundEvent"))
            texts.push_back(envelope["inboundEvent"]["_0"]["event"]["text"]);
    }
    return texts;
}

Lines inboundTexts(const std::filesystem::path& inbound) {
    auto names = visibleNamesIn(inbound);
    std::sort(names.begin(), names.end());
    for (auto& name : names) name = name.substr(0, name.size() - std::string(".json").size());
    return names;
}

/// Everything up to the last line feed, in lines.
Lines wholeLines(const std::string& text) {
    return linesOf(text.substr(0, text.rfind('\n') + 1));
}

/// A parent of its own: starts the backend, says the lines of $HERE/requests, reads at least a hundred lines,
/// keeps in $HERE/read what it got, and kills itself.
constexpr const char* dying_parent = R"pl(
my ($here, $backend) = @ARGV;
pipe(my $input, my $requests) or die; pipe(my $answers, my $output) or die;
my $process = fork;
if ($process == 0) {
    open(STDIN, "<&", $input); open(STDOUT, ">&", $output); open(STDERR, ">", "$here/errors");
    close $_ for $requests, $answers;
    exec $backend;
}
close $_ for $input, $output;
open(my $file, "<", "$here/requests"); syswrite($requests, join("", <$file>));
my $read = "";
while (($read =~ tr/\n//) < 100) { sysread($answers, $read, 4096, length $read) or die; }
open(my $keep, ">", "$here/read"); syswrite($keep, $read); close $keep;
open(my $pid, ">", "$here/pid"); syswrite($pid, "$process\n"); close $pid;
kill "KILL", $$;
)pl";

TEST(DyingParent, LosesNoWaitingMessageAndGetsNoneTwice) {
    const TemporaryDirectory here;
    const BackendOptions options;
    const auto data = options.dataDirectory->path();
    putBacklog(data / "inbound", backlog);
    std::ofstream(here.path() / "requests") << connectRequest() << "\n"
                                            << startListeningRequest(conversationScope()) << "\n";
    const pid_t parent =
        spawn({.commandLine = {"/usr/bin/perl", "-e", dying_parent, here.path().string(), options.executable},
               .environment = options.environment,
               .workingDirectory = {}});
    waitForEnds({parent});
    endAll({parent});
    pid_t backend = 0;
    ASSERT_TRUE(std::ifstream(here.path() / "pid") >> backend);
    waitForEnds({backend});
    endAll({backend});

    auto messages = messagesIn(wholeLines(readFile((here.path() / "read").string())));
    EXPECT_GE(messages.size(), 90U);
    EXPECT_EQ(visibleNamesIn(data / "rejected"), Lines{});
    EXPECT_EQ(visibleNamesIn(data / "processed").size(), messages.size());
    const auto waiting = inboundTexts(data / "inbound");
    messages.insert(messages.end(), waiting.begin(), waiting.end());
    Lines expected;
    for (std::size_t i = 0; i < backlog; ++i) expected.push_back(nameOf(i));
    EXPECT_EQ(messages, expected);

    BackendProcess next(options);
    next.connectAndListen();
    next.waitForEntries("inbound", 0);
    EXPECT_EQ(messagesIn(next.finish()), waiting);
}

TEST(DyingParent, FindsAtTheNextStartWhatItHadNotRead) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.pauseReadingOutput();
    putBacklog(backend.path("inbound"), 5);
    backend.waitForEntries("processed", 5);
    backend.closeOutputReader();
    backend.closeInput();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    EXPECT_EQ(visibleNamesIn(backend.path("inbound")).size(), 5U);
    EXPECT_EQ(visibleNamesIn(backend.path("processed")).size(), 0U);
    EXPECT_EQ(backend.standardError(), "");
}

TEST(DyingParent, FindsWhatItHadNotReadThoughAReplyFailsFirst) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.pauseReadingOutput();
    putBacklog(backend.path("inbound"), 5);
    backend.waitForEntries("processed", 5);
    backend.closeOutputReader();
    backend.send(connectRequest());
    EXPECT_EQ(backend.waitForExit(), exitedWith(software_failure));
    EXPECT_EQ(visibleNamesIn(backend.path("inbound")).size(), 5U);
}

TEST(DyingParent, FindsWhatItHadNotReadThoughItsEndOfTheInputStaysOpen) {
    BackendOptions options;
    options.underIntermediateParent = true;
    BackendProcess backend(options);
    backend.connectAndListen();
    backend.pauseReadingOutput();
    putBacklog(backend.path("inbound"), 5);
    backend.waitForEntries("processed", 5);
    backend.closeOutputReader();
    backend.killIntermediateParent();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    EXPECT_EQ(visibleNamesIn(backend.path("inbound")).size(), 5U);
    EXPECT_EQ(visibleNamesIn(backend.path("processed")).size(), 0U);
}

TEST(LostReader, CostsTheMessageAtHandAndNoOther) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.closeOutputReader();
    putBacklog(backend.path("inbound"), 3);
    const auto rejected = backend.waitForEntries("rejected", 1);
    EXPECT_EQ(rejected.size(), 1U);
    backend.waitForStandardError("Broken pipe");
    // Several beats of the poller pass.
    backend.waitForStatusWrites();
    EXPECT_EQ(visibleNamesIn(backend.path("rejected")), rejected);
    EXPECT_EQ(visibleNamesIn(backend.path("inbound")).size(), 2U);
    EXPECT_EQ(backend.standardErrorLines().size(), 1U) << backend.standardError();
    backend.send(sendMessageRequest(teamRoomMessage("still recorded")));
    backend.waitForEntries("outbound", 1);
    backend.closeInput();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    EXPECT_EQ(visibleNamesIn(backend.path("inbound")).size(), 2U);
}

TEST(LostReader, EndsTheBackendWithTheFirstReplyThatFails) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.closeOutputReader();
    putBacklog(backend.path("inbound"), 3);
    backend.waitForEntries("rejected", 1);
    backend.send(connectRequest());
    EXPECT_EQ(backend.waitForExit(), exitedWith(software_failure));
}

BackendOptions optionsWithSmallOutput() {
    BackendOptions options;
    options.stdoutPipeBytes = small_pipe_bytes;
    return options;
}

TEST(UnreadOutput, KeepsNeitherMessagesNorStatusNorTheEndWaitingForADelivery) {
    // A pipe of four pages takes no more once the fourth is begun, and each line begins one.
    constexpr std::size_t page_bytes = 4096;
    const std::string padding(page_bytes * 4 / 5, 'x');
    BackendOptions options;
    options.stdoutPipeBytes = 4 * page_bytes;
    BackendProcess backend(options);
    backend.greet();
    putBacklog(backend.path("inbound"), 200, padding);
    backend.send(connectRequest());
    EXPECT_EQ(backend.nextLine(), connecting_line);
    EXPECT_EQ(backend.nextLine(), connected_line);
    backend.pauseReadingOutput();
    backend.send(startListeningRequest(conversationScope()));
    backend.waitUntil([&] { return backend.unreadOutputBytes() > 3 * page_bytes; }, "a full output pipe");
    const auto delivered = visibleNamesIn(backend.path("processed")).size();
    EXPECT_LT(delivered, 200U);
    backend.send(sendMessageRequest(teamRoomMessage("hi")));
    backend.waitForEntries("outbound", 1);
    backend.waitForStatusWrites();
    EXPECT_LE(visibleNamesIn(backend.path("processed")).size(), delivered + 1);
    backend.closeInput();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    EXPECT_EQ(visibleNamesIn(backend.path("rejected")), Lines{});
}

TEST(UnreadOutput, LineThatHasBegunIsFinishedAndRepliesWaitForIt) {
    BackendProcess backend(optionsWithSmallOutput());
    backend.connectAndListen();
    backend.pauseReadingOutput();
    const std::string text(1'000'000, 'x');
    backend.writeInbound("large.json", inboundRecord("m-1", text));
    backend.waitUntil([&] { return backend.unreadOutputBytes() > nearly_full_bytes; }, "the line to begin");
    backend.send(sendMessageRequest(teamRoomMessage("hi")));
    backend.waitForEntries("outbound", 1);
    backend.send(connectRequest());
    backend.waitForStatusWrites();
    EXPECT_TRUE(std::filesystem::exists(backend.path("inbound/large.json"))) << "not delivered yet";
    backend.resumeReadingOutput();
    EXPECT_EQ(backend.nextEnvelope()["inboundEvent"]["_0"]["event"]["text"], text);
    EXPECT_EQ(backend.nextLine(), connecting_line);
    EXPECT_EQ(backend.nextLine(), connected_line);
    backend.waitForFile("processed/large.json");
}

TEST(UnreadError, KeepsNeitherStatusNorRepliesWaitingAndLosesNoLine) {
    constexpr int lines = 6000;
    const WorkerScript worker(
        "i=0; while [ $i -lt 6000 ]; do echo \"line $i of the worker, somewhat long\"; i=$((i+1)); done; mark done; stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.pauseReadingError();
    backend.greet();
    worker.waitForMark("done");
    backend.waitUntil([&] { return backend.unreadErrorBytes() > 60'000; }, "a full error pipe");
    backend.waitForStatusWrites();
    backend.send(connectRequest());
    EXPECT_EQ(backend.nextLine(), connecting_line);
    EXPECT_EQ(backend.nextLine(), connected_line);
    backend.resumeReadingError();
    backend.waitForStandardError("line 5999 of the worker, somewhat long\n");
    const auto relayed = backend.standardErrorLines();
    EXPECT_GE(relayed.size(), static_cast<std::size_t>(lines));
    backend.finish();
}

TEST(UnreadError, LinesOfTheWorkerAreDroppedBeforeThoseOfTheBackendAndCounted) {
    constexpr std::size_t lines = 400'000;
    const WorkerScript worker("yes x | head -n 400000; mark done; stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.pauseReadingError();
    backend.connectAndListen();
    worker.waitForMark("done");
    backend.writeInboundRaw("broken.json", "{");
    backend.waitForEntries("rejected", 1);
    backend.resumeReadingError();
    const std::string notice = "[ManagedWhatsAppBackend] dropped ";
    const auto isCounted = [&](const std::string& all) {
        std::size_t relayed = 0;
        std::size_t dropped = 0;
        bool isOwnLineThere = false;
        for (const auto& line : wholeLines(all)) {
            if (line == "[ManagedWhatsAppWorker] x") ++relayed;
            if (line.starts_with(notice)) dropped += std::stoul(line.substr(notice.size()));
            if (line.starts_with("[ManagedWhatsAppBackend] rejected inbound event at broken.json: "))
                isOwnLineThere = true;
        }
        return dropped > 0 && isOwnLineThere && relayed + dropped == lines;
    };
    backend.waitForStandardErrorWhere(isCounted);
    backend.finish();
}

TEST(LargeInbound, MemoryOfALargeMessageIsGivenBack) {
    if (sanitizerOfExecutables() != Sanitizer::none) GTEST_SKIP() << memory_is_kept;
    constexpr std::size_t large_bytes = std::size_t{16} << 20U;
    constexpr std::size_t kept_bytes = std::size_t{4} << 20U;
    BackendProcess backend;
    backend.connectAndListen();
    const auto before = backend.residentBytes();
    backend.writeInbound("large.json", inboundRecord("m-1", std::string(large_bytes, 'x')));
    backend.nextLine();
    backend.waitForFile("processed/large.json");
    backend.waitUntil([&] { return backend.residentBytes() < before + kept_bytes; },
                      "the memory of the large message to be given back");
}

TEST(LargeInbound, MemoryOfARecordOfManyValuesIsGivenBack) {
    if (sanitizerOfExecutables() != Sanitizer::none) GTEST_SKIP() << memory_is_kept;
    constexpr int values = 1'000'000;
    constexpr std::size_t kept_bytes = std::size_t{4} << 20U;
    BackendProcess backend;
    backend.connectAndListen();
    const auto before = backend.residentBytes();
    auto record = inboundRecord("m-1", "Hello").dump();
    std::string unknown = R"(,"unknown":[1)";
    for (int i = 1; i < values; ++i) unknown += ",1";
    backend.writeInboundRaw("large.json", record.insert(record.size() - 1, unknown + "]"));
    backend.nextLine();
    backend.waitForFile("processed/large.json");
    backend.waitUntil([&] { return backend.residentBytes() < before + kept_bytes; },
                      "the memory of the large record to be given back");
}

}  // namespace
}  // namespace brindle::test

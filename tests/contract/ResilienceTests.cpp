#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/BackendProcess.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Sanitizers.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"
#include "support/WorkerScript.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

Json recordWithText(const std::string& text) {
    return {{"conversationId", "room"},
            {"conversationTitle", "Room"},
            {"senderId", "s"},
            {"senderDisplayName", "Sam"},
            {"text", text},
            {"isDirectMessage", true}};
}

std::string nameOf(int number) {
    return std::to_string(100'000 + number);
}

/// A backlog whose texts are the files' names; nothing of it is read before the backend listens.
void putBacklog(const BackendProcess& backend, int count) {
    for (int i = 0; i < count; ++i) {
        std::ofstream(backend.path("inbound") / (nameOf(i) + ".json")) << recordWithText(nameOf(i));
    }
}

const std::string connect_line = R"({"connect":{"_0":{"platform":"whatsapp"}}})";
const std::string listen_line =
    R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"conversation":{"id":"room","title":"Room"}}}}})";
const std::string send_line =
    R"({"sendMessage":{"_0":{"platform":"whatsapp","message":{"conversationId":"room","text":"Hi"}}}})";

/// The backend under a limit of the shell's ulimit.
BackendOptions limited(BackendOptions options, const std::string& limit) {
    options.arguments = {"-c", "ulimit " + limit + "; exec \"$0\"", options.executable};
    options.executable = "/bin/sh";
    return options;
}

std::size_t entriesIn(const fs::path& directory) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
}

TEST(Resilience, BacklogArrivesInOrderOfNamesThoughTheParentReadsSlowly) {
    constexpr int count = 800;
    BackendProcess backend;
    backend.greet();
    putBacklog(backend, count);
    backend.pauseReadingOutput();
    backend.send(connect_line);
    backend.send(listen_line);
    // Several beats of the poller pass while the delivery waits for its reader.
    backend.waitForStatusWrites(1);
    backend.resumeReadingOutput();
    std::vector<std::string> texts;
    std::vector<std::string> expected;
    while (texts.size() < count) {
        const auto envelope = backend.nextEnvelope();
        if (envelope.contains("inboundEvent"))
            texts.push_back(envelope["inboundEvent"]["_0"]["event"]["text"]);
    }
    for (int i = 0; i < count; ++i) expected.push_back(nameOf(i));
    EXPECT_EQ(texts, expected);
    backend.finish();
    EXPECT_EQ(backend.standardError(), "");
    EXPECT_EQ(entriesIn(backend.path("processed")), static_cast<std::size_t>(count));
}

TEST(Resilience, EndOfInputDuringALongDeliveryLosesNothing) {
    constexpr int count = 3000;
    BackendProcess backend;
    backend.greet();
    putBacklog(backend, count);
    backend.send(connect_line);
    backend.send(listen_line);
    const auto lines = backend.finishAndTakeRest();
    std::size_t events = 0;
    for (const auto& line : lines) {
        if (Json::parse(line).contains("inboundEvent")) ++events;
    }
    EXPECT_GT(events, 0U);
    EXPECT_EQ(entriesIn(backend.path("processed")), events);
    EXPECT_EQ(entriesIn(backend.path("inbound")), count - events);
    EXPECT_EQ(entriesIn(backend.path("rejected")), 0U);
}

TEST(Resilience, FileSizeLimitIsAFailureAndNotADeath) {
    if (sanitizerOfExecutables() == Sanitizer::thread) GTEST_SKIP() << files_are_written;
    BackendProcess backend(limited({}, "-f 0"));
    backend.greet();
    backend.send(send_line);
    const auto error = backend.nextEnvelope();
    ASSERT_TRUE(error.contains("error")) << error;
    const std::string message = error["error"]["_0"]["message"];
    EXPECT_NE(message.find(backend.path("outbound").string()), std::string::npos) << message;
    EXPECT_NE(message.find("File too large"), std::string::npos) << message;
    backend.waitForStandardError("failed to write runtime status: ");
    backend.closeInput();
    EXPECT_EQ(backend.waitForExit().code, 0);
}

TEST(Resilience, WantOfDescriptorsNeverLeavesAWorkerBehind) {
    if (sanitizerOfExecutables() != Sanitizer::none) GTEST_SKIP() << descriptors_are_needed;
    for (int descriptors = 5; descriptors <= 20; ++descriptors) {
        const WorkerScript worker("echo $$ > $HERE/own-pid; mark ready; stay");
        BackendProcess backend(
            limited(optionsWithWorker(worker.path()), "-n " + std::to_string(descriptors)));
        backend.closeInput();
        const auto status = backend.waitForExit();
        EXPECT_TRUE(status.exited) << descriptors;
        EXPECT_TRUE(status.code == 0 || status.code == 70) << descriptors << ": " << status.code;
        if (status.code == 70) {
            EXPECT_THAT(backend.standardError(), HasSubstr("[ManagedWhatsAppBackend] fatal: Cannot "))
                << descriptors;
        }
        pid_t pid = 0;
        if (std::ifstream(worker.file("own-pid")) >> pid) {
            waitUntil([&] { return !processIsRunning(pid); }, "the end of the worker");
        }
    }
}

TEST(Resilience, MessagesThatHadArrivedAreRecordedBeforeATerminationSignalTakesEffect) {
    constexpr int count = 300;
    BackendProcess backend;
    backend.greet();
    backend.signal(SIGSTOP);
    std::string requests;
    for (int i = 0; i < count; ++i) requests += send_line + "\n";
    backend.sendRaw(requests + send_line);
    backend.signal(SIGTERM);
    backend.signal(SIGCONT);
    const auto status = backend.waitForExit();
    EXPECT_FALSE(status.exited);
    EXPECT_EQ(status.signal, SIGTERM);
    // The last line had not arrived whole: it is neither carried out nor answered.
    EXPECT_EQ(entriesIn(backend.path("outbound")), static_cast<std::size_t>(count));
    EXPECT_EQ(backend.receivedLines().size(), 2U);
}

TEST(Resilience, PlatformThatIsNotUtf8IsServedUnderTheNameThatHelloAnnounces) {
    BackendOptions options;
    options.arguments = {"--platform", "\xFF"};
    BackendProcess backend(options);
    const auto hello = backend.nextEnvelope();
    const std::string announced = hello["hello"]["_0"]["platform"];
    EXPECT_EQ(announced, "\xEF\xBF\xBD");
    backend.nextEnvelope();
    backend.send(Json{{"connect", {{"_0", {{"platform", announced}}}}}});
    EXPECT_TRUE(backend.nextEnvelope()["stateChanged"]["_0"]["state"].contains("connecting"));
    backend.finish();
}

TEST(Resilience, RecordOfAbsurdSizeIsRejectedUnread) {
    BackendProcess backend;
    backend.greet();
    const auto file = backend.path("inbound") / "huge.json";
    std::ofstream(file).put('{');
    fs::resize_file(file, std::uintmax_t{8} << 30U);
    backend.send(connect_line);
    backend.send(listen_line);
    backend.waitForStandardError("rejected inbound event at huge.json: Cannot read");
    backend.waitForEntries("rejected", 1);
    EXPECT_LT(backend.residentBytes(), std::size_t{512} << 20U);
    backend.finish();
}

TEST(Resilience, LineBreakInAWorkersPathStaysOneLineOfDiagnostics) {
    const TemporaryDirectory directory;
    BackendProcess backend(optionsWithWorker(directory.path() / "a\nb"));
    backend.greet();
    backend.finish();
    EXPECT_EQ(backend.standardErrorLines().size(), 1U) << backend.standardError();
}

}  // namespace
}  // namespace brindle::test

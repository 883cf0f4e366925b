#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Processes.h"
#include "support/Requests.h"
#include "support/TemporaryDirectory.h"
#include "support/TextForms.h"
#include "support/Users.h"
#include "support/Waiting.h"
#include "support/WorkerScript.h"
#include "system/Descriptor.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

const std::string rejected_prefix = "[ManagedWhatsAppBackend] rejected inbound event at ";
const std::string drain_failure_prefix = "[ManagedWhatsAppBackend] failed to drain inbound directory: ";
const std::string worker_status_failure_prefix = "[ManagedWhatsAppBackend] failed to decode worker status: ";
const std::string parent_gone_line =
    "[ManagedWhatsAppBackend] bridge service parent is no longer alive; stopping the managed backend and worker.\n";

Json eventOf(const Json& envelope) {
    return envelope.at("inboundEvent").at("_0").at("event");
}

std::string nextMessageId(BackendProcess& backend) {
    return eventOf(backend.nextEnvelope()).at("messageId");
}

/// Message ids of the events that arrive until a line that is always answered by `error` has been answered.
std::vector<std::string> messageIdsUpToHere(BackendProcess& backend) {
    backend.send(std::string("{"));
    std::vector<std::string> ids;
    for (;;) {
        const Json envelope = backend.nextEnvelope();
        if (envelope.contains("error")) return ids;
        if (envelope.contains("inboundEvent")) ids.push_back(eventOf(envelope).at("messageId"));
    }
}

Json recordOf(const std::string& id, const std::string& conversationId, const std::string& title) {
    Json record = inboundRecord(id, "text of " + id);
    record["conversationId"] = conversationId;
    record["conversationTitle"] = title;
    return record;
}

void writeRecords(const BackendProcess& backend, const std::vector<std::string>& ids) {
    for (const std::string& id : ids) backend.writeInbound(id + ".json", inboundRecord(id, "text of " + id));
}

std::vector<std::string> linesWith(const BackendProcess& backend, const std::string& prefix) {
    std::vector<std::string> lines = backend.standardErrorLines();
    std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(prefix); });
    return lines;
}

std::size_t countOf(const BackendProcess& backend, const std::string& text) {
    const std::string all = backend.standardError();
    std::size_t count = 0;
    for (std::size_t at = 0; (at = all.find(text, at)) != std::string::npos; at += text.size()) ++count;
    return count;
}

void expectNames(const BackendProcess& backend, const std::string& directory,
                 std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    EXPECT_EQ(namesIn(backend.path(directory)), names) << directory;
}

/// Until the next two status ticks the inbound poller has run at least twice.
void waitForSomeDrains(const BackendProcess& backend) {
    backend.waitForStatusWrites(3);
}

/// Puts a directory that holds something, over which nothing can be moved, in the place of a record.
void occupy(const BackendProcess& backend, const std::string& record) {
    const fs::path place = backend.path(record);
    backend.waitUntil(
        [&] {
            std::error_code error;
            fs::remove(place, error);
            return fs::create_directories(place / "occupied", error);
        },
        "the place of " + record + " to be taken");
}

/// Of two names the one that was made because `taken` was taken: the same behind a UUID.
std::string freshNameAmong(std::vector<std::string> names, const std::string& taken) {
    std::erase(names, taken);
    constexpr std::size_t uuid_length = 36;
    if (names.size() != 1 || !isCanonicalUuid(names.front().substr(0, uuid_length)) ||
        names.front().substr(uuid_length) != "-" + taken) {
        throw TestFailure("not a fresh name: " + testing::PrintToString(names));
    }
    return names.front();
}

/// Connects and listens, and gives the message ids of all that is delivered at once.
std::vector<std::string> idsDeliveredAtOnce(BackendProcess& backend,
                                            const Json& scope = conversationScope()) {
    backend.send(connectRequest());
    backend.send(startListeningRequest(scope));
    return messageIdsUpToHere(backend);
}

// Delivery.

TEST(InboundDelivery, RecordThatComesWhileListeningIsDeliveredAndProcessed) {
    BackendProcess backend;
    backend.connectAndListen();
    const Json record = inboundRecord("m-1", "hello");
    backend.writeInbound("m-1.json", record);
    EXPECT_EQ(eventOf(backend.nextEnvelope()), record);
    EXPECT_EQ(backend.waitForEntries("processed", 1), std::vector<std::string>{"m-1.json"});
    expectNames(backend, "inbound", {});
    EXPECT_EQ(backend.readJson("processed/m-1.json"), record);
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
    EXPECT_EQ(backend.standardError(), "");
}

TEST(InboundDelivery, RecordThatComesRightAfterListeningHasBegunWaitsForNoBeat) {
    // The first beat comes so long after the start. Tried again, because a busy machine may take longer.
    constexpr std::chrono::milliseconds first_beat{250};
    waitUntil(
        [&] {
            const auto begin = std::chrono::steady_clock::now();
            BackendProcess backend;
            backend.greet();
            EXPECT_TRUE(idsDeliveredAtOnce(backend).empty());
            writeRecords(backend, {"m-1"});
            EXPECT_EQ(nextMessageId(backend), "m-1");
            return std::chrono::steady_clock::now() - begin < first_beat;
        },
        "a record delivered before the first beat");
}

TEST(InboundDelivery, StartListeningDrainsAtOnce) {
    BackendProcess backend;
    backend.greet();
    writeRecords(backend, {"m-1", "m-2"});
    // Answered in order, so the events are there before the answer to the line after the request.
    EXPECT_EQ(idsDeliveredAtOnce(backend), (std::vector<std::string>{"m-1", "m-2"}));
}

TEST(InboundDelivery, FollowsPlainOrderOfFileNames) {
    BackendProcess backend;
    backend.greet();
    // Written in another order than they are delivered in, so that the date of a file shows no influence.
    for (const char* name : {"b", "\xC3\xA4", "a", "9", "Z", "10", "a-1", "a.b", "_"})
        writeRecords(backend, {name});
    EXPECT_EQ(idsDeliveredAtOnce(backend),
              (std::vector<std::string>{"10", "9", "Z", "_", "a-1", "a.b", "a", "b", "\xC3\xA4"}));
}

TEST(InboundDelivery, OnlyVisibleFilesWithTheExactExtensionAreRead) {
    BackendProcess backend;
    backend.greet();
    const std::vector<std::string> others = {"c.txt", "A.JSON",  ".x.json",    "noextension", "json",
                                             ".json", "d.jsonx", "e.json.tmp", "f.Json",      "g.json~"};
    for (const std::string& name : others) backend.writeInbound(name, inboundRecord(name, "not read"));
    writeRecords(backend, {"b", "a"});
    EXPECT_EQ(idsDeliveredAtOnce(backend), (std::vector<std::string>{"a", "b"}));
    waitForSomeDrains(backend);
    expectNames(backend, "inbound", others);
    expectNames(backend, "processed", {"a.json", "b.json"});
    expectNames(backend, "rejected", {});
    EXPECT_EQ(backend.standardError(), "");
}

TEST(InboundDelivery, DirectoriesBelowInboundAreNotEntered) {
    BackendProcess backend;
    fs::create_directories(backend.waitForFile("inbound") / "sub");
    writeFileAtomically(backend.path("inbound/sub/m-1.json"), inboundRecord("m-1", "hidden away").dump());
    backend.connectAndListen();
    writeRecords(backend, {"m-2"});
    EXPECT_EQ(nextMessageId(backend), "m-2");
    waitForSomeDrains(backend);
    expectNames(backend, "inbound", {"sub"});
    expectNames(backend, "inbound/sub", {"m-1.json"});
}

TEST(InboundDelivery, AbsentTextsAreSubstituted) {
    BackendProcess backend;
    backend.connectAndListen();
    Json record = inboundRecord("ignored", "hello");
    record.erase("messageId");
    record.erase("timestampISO8601");
    record.erase("rawReference");
    backend.writeInbound("m1.json", record);
    Json event = eventOf(backend.nextEnvelope());
    EXPECT_TRUE(isCanonicalUuid(event.at("messageId").get<std::string>())) << event;
    EXPECT_TRUE(isTimestamp(event.at("timestampISO8601").get<std::string>())) << event;
    EXPECT_EQ(event.at("rawReference"), "m1.json");
    for (const char* key : {"messageId", "timestampISO8601", "rawReference"}) event.erase(key);
    EXPECT_EQ(event, record);
}

TEST(InboundDelivery, EverySubstitutedMessageIdIsFresh) {
    BackendProcess backend;
    backend.connectAndListen();
    Json record = inboundRecord("ignored", "hello");
    record.erase("messageId");
    backend.writeInbound("a.json", record);
    backend.writeInbound("b.json", record);
    const std::string first = nextMessageId(backend);
    EXPECT_NE(first, nextMessageId(backend));
}

TEST(InboundDelivery, EmptyTextsCountAsPresent) {
    BackendProcess backend;
    backend.connectAndListen();
    Json record = inboundRecord("", "");
    record["timestampISO8601"] = "";
    record["rawReference"] = "";
    record["senderId"] = "";
    record["senderDisplayName"] = "";
    backend.writeInbound("m1.json", record);
    EXPECT_EQ(eventOf(backend.nextEnvelope()), record);
}

TEST(InboundDelivery, TextsArriveUnchanged) {
    BackendProcess backend;
    backend.connectAndListen();
    Json record = inboundRecord("../m/1", "a/b \"q\" \\ \n\t e\xCC\x81 \xF0\x9F\x98\x80");
    record["timestampISO8601"] = "not inspected";
    record["isDirectMessage"] = true;
    backend.writeInbound("m1.json", record);
    EXPECT_EQ(eventOf(backend.nextEnvelope()), record);
}

TEST(InboundDelivery, RecordMayHaveAnyNameAndFormatting) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.writeInboundRaw(" odd name.json", "\n\t" + inboundRecord("m-1", "hello").dump(7) + " \r\n");
    EXPECT_EQ(nextMessageId(backend), "m-1");
    EXPECT_EQ(backend.waitForEntries("processed", 1), std::vector<std::string>{" odd name.json"});
}

TEST(InboundDelivery, LargeRecordIsDelivered) {
    BackendProcess backend;
    backend.connectAndListen();
    const std::string text(3'000'000, 'x');
    backend.writeInbound("m-1.json", inboundRecord("m-1", text));
    EXPECT_TRUE(eventOf(backend.nextEnvelope()).at("text") == text);
}

TEST(InboundDelivery, ManyRecordsArriveOnceEachInOrder) {
    BackendProcess backend;
    backend.greet();
    constexpr int count = 300;
    std::vector<std::string> ids;
    for (int number = 0; number < count; ++number) ids.push_back("m-" + std::to_string(1000 + number));
    writeRecords(backend, ids);
    // Just after a tick, so that no drain of the poller runs beside the one of the request.
    backend.waitForStatusWrites(2);
    EXPECT_EQ(idsDeliveredAtOnce(backend), ids);
    EXPECT_EQ(backend.waitForEntries("processed", count).size(), ids.size());
    EXPECT_EQ(backend.standardError(), "");
}

// When delivery happens.

TEST(InboundDelivery, WaitsWhileDisconnected) {
    BackendProcess backend;
    backend.greet();
    writeRecords(backend, {"m-1"});
    backend.send(startListeningRequest(conversationScope()));
    EXPECT_TRUE(messageIdsUpToHere(backend).empty());
    waitForSomeDrains(backend);
    expectNames(backend, "inbound", {"m-1.json"});
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(InboundDelivery, HappensOnceTheConnectionFollowsTheScope) {
    BackendProcess backend;
    backend.greet();
    writeRecords(backend, {"m-1"});
    backend.send(startListeningRequest(conversationScope()));
    backend.send(connectRequest());
    EXPECT_TRUE(backend.nextEnvelope().contains("stateChanged"));
    EXPECT_TRUE(backend.nextEnvelope().contains("stateChanged"));
    EXPECT_EQ(nextMessageId(backend), "m-1");
}

TEST(InboundDelivery, WaitsWithoutAScope) {
    BackendProcess backend;
    backend.greet();
    writeRecords(backend, {"m-1"});
    backend.send(connectRequest());
    EXPECT_TRUE(messageIdsUpToHere(backend).empty());
    waitForSomeDrains(backend);
    expectNames(backend, "inbound", {"m-1.json"});
}

TEST(InboundDelivery, WaitsAfterStopListening) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.send(stopListeningRequest());
    messageIdsUpToHere(backend);
    writeRecords(backend, {"m-1"});
    waitForSomeDrains(backend);
    expectNames(backend, "inbound", {"m-1.json"});
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

TEST(InboundDelivery, WaitsDuringTheSelfTestScope) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.send(startListeningRequest(testOnlyScope("Team Room")));
    EXPECT_TRUE(backend.nextEnvelope().contains("inboundEvent"));
    writeRecords(backend, {"m-1"});
    backend.writeInboundRaw("broken.json", "{");
    waitForSomeDrains(backend);
    expectNames(backend, "inbound", {"broken.json", "m-1.json"});
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
    EXPECT_EQ(backend.standardError(), "");
}

TEST(InboundDelivery, UndecodableFilesAreNotTouchedBeforeListening) {
    BackendProcess backend;
    backend.greet();
    backend.writeInboundRaw("broken.json", "{");
    waitForSomeDrains(backend);
    expectNames(backend, "inbound", {"broken.json"});
    EXPECT_EQ(backend.standardError(), "");
}

// The scope filter.

struct FilterCase {
    std::string name;
    Json scope;
    Json record;
    bool belongs;
};

void PrintTo(const FilterCase& filter, std::ostream* stream) {
    *stream << filter.name;
}

class ScopeFilter : public testing::TestWithParam<FilterCase> {};

TEST_P(ScopeFilter, DecidesWhetherARecordIsDelivered) {
    BackendProcess backend;
    backend.greet();
    backend.writeInbound("a.json", GetParam().record);
    const std::vector<std::string> ids = idsDeliveredAtOnce(backend, GetParam().scope);
    backend.finish();
    if (GetParam().belongs) {
        EXPECT_EQ(ids, std::vector<std::string>{"m"});
        expectNames(backend, "processed", {"a.json"});
    } else {
        EXPECT_TRUE(ids.empty());
        expectNames(backend, "inbound", {"a.json"});
        expectNames(backend, "processed", {});
        expectNames(backend, "rejected", {});
    }
    EXPECT_EQ(backend.standardError(), "");
}

const std::string composed = "caf\xC3\xA9";
const std::string decomposed = "cafe\xCC\x81";

INSTANTIATE_TEST_SUITE_P(
    Table, ScopeFilter,
    testing::Values(
        FilterCase{"ConversationById", conversationScope("I", "T"), recordOf("m", "I", "other"), true},
        FilterCase{"ConversationByTitle", conversationScope("I", "T"), recordOf("m", "other", "T"), true},
        FilterCase{"ConversationByBoth", conversationScope("I", "T"), recordOf("m", "I", "T"), true},
        FilterCase{"ConversationByNeither", conversationScope("I", "T"), recordOf("m", "other", "other"),
                   false},
        FilterCase{"ConversationIdIsNotATitle", conversationScope("I", "T"), recordOf("m", "T", "I"), false},
        FilterCase{"ConversationByEmptyTitle", conversationScope("I", ""), recordOf("m", "other", ""), true},
        FilterCase{"ConversationByEmptyId", conversationScope("", "T"), recordOf("m", "", "other"), true},
        FilterCase{"ConversationEmptyTitleIsNoWildcard", conversationScope("I", ""), recordOf("m", "x", "y"),
                   false},
        FilterCase{"ChannelById", channelScope("I", "T"), recordOf("m", "I", "other"), true},
        FilterCase{"ChannelByTitle", channelScope("I", "T"), recordOf("m", "other", "T"), true},
        FilterCase{"ChannelByNeither", channelScope("I", "T"), recordOf("m", "other", "other"), false},
        FilterCase{"ThreadById", threadScope("I", "T"), recordOf("m", "I", "other"), true},
        FilterCase{"ThreadByTitle", threadScope("I", "T"), recordOf("m", "other", "T"), true},
        FilterCase{"ThreadByNeither", threadScope("I", "T"), recordOf("m", "other", "other"), false},
        FilterCase{"ThreadWithoutTitle", threadScope("I"), recordOf("m", "other", "other"), true},
        FilterCase{"ThreadWithEmptyTitleByTitle", threadScope("I", ""), recordOf("m", "other", ""), true},
        FilterCase{"ThreadWithEmptyTitleByNeither", threadScope("I", ""), recordOf("m", "other", "other"),
                   false},
        FilterCase{"CaseCounts", conversationScope("I", "T"), recordOf("m", "i", "t"), false},
        FilterCase{"BlanksCount", conversationScope("I", "T"), recordOf("m", " I", "T "), false},
        FilterCase{"PrefixIsNotEnough", conversationScope("I", "T"), recordOf("m", "II", "TT"), false},
        FilterCase{"DecomposedTitleIsAnother", conversationScope("I", composed),
                   recordOf("m", "x", decomposed), false},
        FilterCase{"ComposedTitleIsAnother", conversationScope("I", decomposed), recordOf("m", "x", composed),
                   false},
        FilterCase{"DecomposedIdIsAnother", channelScope(composed, "T"), recordOf("m", decomposed, "x"),
                   false},
        FilterCase{"SameCodePoints", threadScope("I", decomposed), recordOf("m", "x", decomposed), true}),
    [](const testing::TestParamInfo<FilterCase>& filter) { return filter.param.name; });

TEST(InboundDelivery, RecordOfAnotherChatStaysUntouchedAndUnlogged) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.writeInbound("a.json", recordOf("m-1", "elsewhere", "Elsewhere"));
    writeRecords(backend, {"m-2"});
    EXPECT_EQ(nextMessageId(backend), "m-2");
    waitForSomeDrains(backend);
    expectNames(backend, "inbound", {"a.json"});
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
    EXPECT_EQ(backend.standardError(), "");
}

TEST(InboundDelivery, WaitingRecordIsDeliveredWhenALaterScopeMatches) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.writeInbound("a.json", recordOf("m-1", "elsewhere", "Elsewhere"));
    waitForSomeDrains(backend);
    backend.send(startListeningRequest(conversationScope("elsewhere", "any")));
    EXPECT_EQ(messageIdsUpToHere(backend), std::vector<std::string>{"m-1"});
}

// Files that cannot be accepted.

TEST(InboundRejection, InvalidJsonIsLoggedAndMovedAndYieldsNoEnvelope) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.writeInboundRaw("broken.json", "{ not json");
    EXPECT_EQ(backend.waitForEntries("rejected", 1), std::vector<std::string>{"broken.json"});
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
    EXPECT_EQ(readFile(backend.path("rejected/broken.json")), "{ not json");
    const std::vector<std::string> lines = backend.standardErrorLines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(lines.front().starts_with(rejected_prefix + "broken.json: ")) << lines.front();
    EXPECT_GT(lines.front().size(), (rejected_prefix + "broken.json: ").size());
}

class UndecodableContent : public testing::TestWithParam<std::string> {};

TEST_P(UndecodableContent, IsRejected) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.writeInboundRaw("r.json", GetParam());
    EXPECT_EQ(backend.waitForEntries("rejected", 1), std::vector<std::string>{"r.json"});
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
    EXPECT_EQ(linesWith(backend, rejected_prefix + "r.json: ").size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Contents, UndecodableContent,
    testing::Values("", " ", "null", "[]", "{}", "\"text\"", "7",
                    inboundRecord("m", "twice").dump() + inboundRecord("m", "twice").dump(),
                    inboundRecord("m", "trailing").dump() + ",",
                    inboundRecord("m", "cut").dump().substr(0, 60),
                    // Neither a byte outside UTF-8 nor half of a pair is text.
                    "{\"conversationId\":\"\xFF\",\"conversationTitle\":\"t\",\"senderId\":\"s\","
                    "\"senderDisplayName\":\"d\",\"text\":\"x\",\"isDirectMessage\":true}",
                    "{\"conversationId\":\"\\ud800\",\"conversationTitle\":\"t\","
                    "\"senderId\":\"s\",\"senderDisplayName\":\"d\",\"text\":\"x\","
                    "\"isDirectMessage\":true}"));

TEST(InboundRejection, DoesNotStopTheOtherFiles) {
    BackendProcess backend;
    backend.greet();
    backend.writeInboundRaw("b.json", "{");
    writeRecords(backend, {"a", "c"});
    EXPECT_EQ(idsDeliveredAtOnce(backend), (std::vector<std::string>{"a", "c"}));
    expectNames(backend, "rejected", {"b.json"});
    expectNames(backend, "inbound", {});
}

TEST(InboundRejection, UndecodableFileIsRejectedWhateverTheScope) {
    BackendProcess backend;
    backend.connectAndListen(conversationScope("no such id", "No such title"));
    backend.writeInboundRaw("b.json", "{");
    EXPECT_EQ(backend.waitForEntries("rejected", 1), std::vector<std::string>{"b.json"});
}

/// A way to put something into "inbound" that is no regular file.
struct SpecialEntry {
    std::string name;
    std::function<void(const fs::path& path, const fs::path& place)> make;
};

void PrintTo(const SpecialEntry& entry, std::ostream* stream) {
    *stream << entry.name;
}

void makeFifo(const fs::path& path) {
    if (mkfifo(path.c_str(), 0600) != 0) throw TestFailure("cannot make a FIFO at " + path.string());
}

void makeSocket(const fs::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // An address is short, and the temporary directory may lie deep.
    const Descriptor directory(open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string name =
        "/proc/self/fd/" + std::to_string(directory.get()) + "/" + path.filename().string();
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    const Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw TestFailure("cannot make a socket at " + path.string());
}

class SpecialInboundEntry : public testing::TestWithParam<SpecialEntry> {};

TEST_P(SpecialInboundEntry, IsLoggedAndMovedAndNeverWaitedFor) {
    const TemporaryDirectory place;
    BackendProcess backend;
    backend.greet();
    GetParam().make(backend.path("inbound/b.json"), place.path());
    writeRecords(backend, {"a", "c"});
    EXPECT_EQ(idsDeliveredAtOnce(backend), (std::vector<std::string>{"a", "c"}));
    expectNames(backend, "rejected", {"b.json"});
    expectNames(backend, "inbound", {});
    expectNames(backend, "processed", {"a.json", "c.json"});
    backend.finish();
    const std::vector<std::string> lines = backend.standardErrorLines();
    ASSERT_EQ(lines.size(), 1U) << backend.standardError();
    EXPECT_TRUE(lines.front().starts_with(rejected_prefix + "b.json: ")) << lines.front();
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SpecialInboundEntry,
    testing::Values(
        SpecialEntry{"Directory", [](const fs::path& path, const fs::path&) { fs::create_directory(path); }},
        SpecialEntry{"DirectoryWithContent",
                     [](const fs::path& path, const fs::path&) {
                         fs::create_directory(path);
                         writeFileAtomically(path / "x.json", "{}");
                     }},
        SpecialEntry{"Fifo", [](const fs::path& path, const fs::path&) { makeFifo(path); }},
        SpecialEntry{"Socket", [](const fs::path& path, const fs::path&) { makeSocket(path); }},
        SpecialEntry{
            "LinkToNothing",
            [](const fs::path& path, const fs::path& place) { fs::create_symlink(place / "missing", path); }},
        SpecialEntry{"LinkToItself",
                     [](const fs::path& path, const fs::path&) { fs::create_symlink("b.json", path); }},
        SpecialEntry{"LinkToDirectory",
                     [](const fs::path& path, const fs::path& place) { fs::create_symlink(place, path); }},
        SpecialEntry{"LinkToFifo",
                     [](const fs::path& path, const fs::path& place) {
                         makeFifo(place / "fifo");
                         fs::create_symlink(place / "fifo", path);
                     }},
        SpecialEntry{"LinkToEndlessDevice",
                     [](const fs::path& path, const fs::path&) { fs::create_symlink("/dev/zero", path); }},
        SpecialEntry{"LinkToEmptyDevice",
                     [](const fs::path& path, const fs::path&) { fs::create_symlink("/dev/null", path); }},
        SpecialEntry{"LinkToTerminal",
                     [](const fs::path& path, const fs::path&) { fs::create_symlink("/dev/tty", path); }}),
    [](const testing::TestParamInfo<SpecialEntry>& entry) { return entry.param.name; });

TEST(InboundRejection, LinkIsMovedItselfAndItsTargetStays) {
    const TemporaryDirectory place;
    BackendProcess backend;
    backend.connectAndListen();
    fs::create_symlink(place.path(), backend.path("inbound/link.json"));
    backend.waitForEntries("rejected", 1);
    EXPECT_TRUE(fs::is_symlink(backend.path("rejected/link.json")));
    EXPECT_TRUE(fs::is_directory(place.path()));
}

// Moves.

TEST(InboundMoves, NameTakenInProcessedGetsAUuidPrefix) {
    BackendProcess backend;
    writeFileAtomically(backend.waitForFile("processed") / "m-1.json", "earlier");
    backend.connectAndListen();
    writeRecords(backend, {"m-1"});
    EXPECT_EQ(nextMessageId(backend), "m-1");
    const std::vector<std::string> names = backend.waitForEntries("processed", 2);
    EXPECT_EQ(readFile(backend.path("processed/m-1.json")), "earlier");
    const std::string name = freshNameAmong(names, "m-1.json");
    EXPECT_EQ(backend.readJson(fs::path("processed") / name), inboundRecord("m-1", "text of m-1"));
    EXPECT_EQ(backend.standardError(), "");
}

TEST(InboundMoves, NameTakenInRejectedGetsAUuidPrefix) {
    BackendProcess backend;
    writeFileAtomically(backend.waitForFile("rejected") / "m-1.json", "earlier");
    backend.connectAndListen();
    backend.writeInboundRaw("m-1.json", "{");
    const std::vector<std::string> names = backend.waitForEntries("rejected", 2);
    EXPECT_EQ(readFile(backend.path("rejected/m-1.json")), "earlier");
    freshNameAmong(names, "m-1.json");
    backend.finish();
    EXPECT_EQ(linesWith(backend, rejected_prefix + "m-1.json: ").size(), 1U) << backend.standardError();
}

TEST(InboundMoves, SameNameAgainAndAgainLosesNothing) {
    BackendProcess backend;
    backend.connectAndListen();
    for (std::size_t round = 1; round <= 3; ++round) {
        writeRecords(backend, {"m-1"});
        EXPECT_EQ(nextMessageId(backend), "m-1");
        backend.waitForEntries("processed", round);
    }
    EXPECT_EQ(backend.standardError(), "");
}

TEST(InboundMoves, DeliveredRecordThatCannotBeProcessedIsLoggedAndRejected) {
    BackendProcess backend;
    backend.connectAndListen();
    makeVanish(backend.path("processed"));
    writeRecords(backend, {"m-1"});
    EXPECT_EQ(nextMessageId(backend), "m-1");
    EXPECT_EQ(backend.waitForEntries("rejected", 1), std::vector<std::string>{"m-1.json"});
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
    const std::vector<std::string> lines = backend.standardErrorLines();
    ASSERT_EQ(lines.size(), 1U) << backend.standardError();
    EXPECT_TRUE(lines.front().starts_with(rejected_prefix + "m-1.json: ")) << lines.front();
    EXPECT_FALSE(fs::exists(backend.path("processed")));
}

TEST(InboundRejection, RecordThatCannotBeSentIsLoggedAndRejected) {
    BackendProcess backend;
    backend.connectAndListen();
    backend.closeOutputReader();
    writeRecords(backend, {"m-1"});
    EXPECT_EQ(backend.waitForEntries("rejected", 1), std::vector<std::string>{"m-1.json"});
    backend.waitForStandardError(rejected_prefix + "m-1.json: ");
    expectNames(backend, "inbound", {});
    expectNames(backend, "processed", {});
}

TEST(InboundMoves, FailedMoveNamesThePathThatIsMissingAndTheReason) {
    BackendProcess backend;
    backend.connectAndListen();
    makeVanish(backend.path("processed"));
    writeRecords(backend, {"m-1"});
    backend.waitForEntries("rejected", 1);
    const std::string log = backend.waitForStandardError(rejected_prefix + "m-1.json: ");
    EXPECT_NE(log.find(backend.path("processed").string()), std::string::npos) << log;
    EXPECT_NE(log.find("No such file or directory"), std::string::npos) << log;
}

TEST(InboundMoves, DrainStopsAtTheFileThatCannotEvenBeRejected) {
    BackendProcess backend;
    backend.greet();
    backend.writeInboundRaw("b.json", "{");
    writeRecords(backend, {"a", "c"});
    makeVanish(backend.path("rejected"));
    EXPECT_EQ(idsDeliveredAtOnce(backend), std::vector<std::string>{"a"});
    waitForSomeDrains(backend);
    expectNames(backend, "inbound", {"b.json", "c.json"});
    EXPECT_FALSE(fs::exists(backend.path("rejected")));
    const std::vector<std::string> lines = backend.standardErrorLines();
    ASSERT_GE(lines.size(), 4U) << "the file is tried again on every drain";
    for (std::size_t index = 0; index + 1 < lines.size(); index += 2) {
        EXPECT_TRUE(lines[index].starts_with(rejected_prefix + "b.json: ")) << lines[index];
        EXPECT_TRUE(lines[index + 1].starts_with(drain_failure_prefix)) << lines[index + 1];
        EXPECT_NE(lines[index + 1].find("No such file or directory"), std::string::npos) << lines[index + 1];
    }
}

TEST(InboundMoves, RemainingFilesFollowOnceRejectingWorksAgain) {
    BackendProcess backend;
    backend.greet();
    backend.writeInboundRaw("b.json", "{");
    writeRecords(backend, {"c"});
    makeVanish(backend.path("rejected"));
    backend.send(connectRequest());
    backend.send(startListeningRequest(conversationScope()));
    backend.waitForStandardError(drain_failure_prefix);
    EXPECT_TRUE(messageIdsUpToHere(backend).empty());
    fs::create_directory(backend.path("rejected"));
    EXPECT_EQ(nextMessageId(backend), "c");
    backend.waitForEntries("processed", 1);
    expectNames(backend, "rejected", {"b.json"});
    expectNames(backend, "inbound", {});
}

TEST(InboundMoves, EventIsSentBeforeTheFileMoves) {
    BackendProcess backend;
    backend.connectAndListen();
    makeVanish(backend.path("processed"));
    makeVanish(backend.path("rejected"));
    writeRecords(backend, {"m-1"});
    // Neither move succeeds, so that each drain sends it again.
    EXPECT_EQ(nextMessageId(backend), "m-1");
    EXPECT_EQ(nextMessageId(backend), "m-1");
    expectNames(backend, "inbound", {"m-1.json"});
}

TEST(InboundMoves, InboundDirectoryThatCannotBeListedIsLoggedOnEveryDrainAndNotMadeAgain) {
    BackendProcess backend;
    backend.connectAndListen();
    makeVanish(backend.path("inbound"));
    backend.waitUntil([&] { return countOf(backend, drain_failure_prefix) >= 3; },
                      "the failures of three drains");
    EXPECT_FALSE(fs::exists(backend.path("inbound")));
    const std::string log = backend.standardError();
    EXPECT_NE(log.find(backend.path("inbound").string()), std::string::npos) << log;
    EXPECT_NE(log.find("No such file or directory"), std::string::npos) << log;
}

TEST(InboundMoves, DeliveryWorksAgainOnceTheInboundDirectoryIsBack) {
    BackendProcess backend;
    backend.connectAndListen();
    makeVanish(backend.path("inbound"));
    backend.waitForStandardError(drain_failure_prefix);
    fs::create_directory(backend.path("inbound"));
    writeRecords(backend, {"m-1"});
    EXPECT_EQ(nextMessageId(backend), "m-1");
    backend.waitForEntries("processed", 1);
}

TEST(InboundMoves, MissingInboundDirectoryIsNoMatterWhileNotListening) {
    BackendProcess backend;
    backend.greet();
    makeVanish(backend.path("inbound"));
    waitForSomeDrains(backend);
    EXPECT_EQ(backend.standardError(), "");
}

// The runtime status.

TEST(RuntimeStatus, IsRewrittenWithoutAnyRequest) {
    BackendProcess backend;
    backend.greet();
    const std::string first = backend.readJson("runtime/runtime-status.json").at("updatedAtISO8601");
    backend.waitForRuntimeStatus([&](const Json& status) { return status["updatedAtISO8601"] > first; });
    backend.waitForControl([&](const Json& control) { return control["updatedAtISO8601"] > first; });
}

TEST(RuntimeStatus, RemovedFilesComeBackWithTheNextTick) {
    BackendProcess backend;
    backend.greet();
    fs::remove(backend.path("runtime/runtime-status.json"));
    fs::remove(backend.path("runtime/worker-control.json"));
    backend.waitForFile("runtime/runtime-status.json");
    backend.waitForFile("runtime/worker-control.json");
}

TEST(RuntimeStatus, CopiesTheWorkerStatusAsItStands) {
    const WorkerScript worker(
        R"(publish worker-status.json '{"state":"a word of its own","displayName":"Ada","detail":"all well",
"lastHeartbeatISO8601":"whenever","contactQRLink":"https://example.org/q","supportsLiveCapture":true,
"supportsOutbound":false,"unknown":[1,null]}'
stay)");
    BackendProcess backend(optionsWithWorker(worker.path()));
    Json status = backend.waitForRuntimeStatus(
        [](const Json& found) { return found["workerState"] == "a word of its own"; });
    EXPECT_TRUE(isTimestamp(status.at("updatedAtISO8601").get<std::string>()));
    status.erase("updatedAtISO8601");
    EXPECT_EQ(status, (Json{{"platform", "whatsapp"},
                            {"backendVersion", "managed-whatsapp-backend-3"},
                            {"dataDirectoryPath", backend.path().string()},
                            {"connectionState", "disconnected"},
                            {"workerConfiguredExecutablePath", worker.path().string()},
                            {"workerProcessRunning", true},
                            {"workerState", "a word of its own"},
                            {"workerDisplayName", "Ada"},
                            {"workerDetail", "all well"},
                            {"workerLastHeartbeatISO8601", "whenever"},
                            {"workerContactQRLink", "https://example.org/q"},
                            {"workerSupportsLiveCapture", true},
                            {"workerSupportsOutbound", false}}));
}

TEST(RuntimeStatus, AbsentTextsOfTheWorkerStayAbsent) {
    const WorkerScript worker(
        R"(publish worker-status.json '{"state":"linked","detail":null,"supportsLiveCapture":false,"supportsOutbound":true}'
stay)");
    BackendProcess backend(optionsWithWorker(worker.path()));
    const Json status =
        backend.waitForRuntimeStatus([](const Json& found) { return found["workerState"] == "linked"; });
    for (const char* key :
         {"workerDetail", "workerDisplayName", "workerLastHeartbeatISO8601", "workerContactQRLink"}) {
        EXPECT_FALSE(status.contains(key)) << key;
    }
    EXPECT_EQ(status.at("workerSupportsOutbound"), true);
}

TEST(RuntimeStatus, EmptyTextsOfTheWorkerCountAsPresent) {
    const WorkerScript worker(
        R"(publish worker-status.json '{"state":"","detail":"","displayName":"","supportsLiveCapture":false,"supportsOutbound":false}'
stay)");
    BackendProcess backend(optionsWithWorker(worker.path()));
    const Json status =
        backend.waitForRuntimeStatus([](const Json& found) { return found["workerState"] == ""; });
    EXPECT_EQ(status.at("workerDetail"), "");
    EXPECT_EQ(status.at("workerDisplayName"), "");
}

TEST(RuntimeStatus, FollowsTheWorkerStatusAndFallsBackWhenItVanishes) {
    const WorkerScript worker(
        R"(publish worker-status.json '{"state":"starting","supportsLiveCapture":true,"supportsOutbound":false}'
await next
publish worker-status.json '{"state":"linked","supportsLiveCapture":true,"supportsOutbound":false}'
await vanish
rm "$BRINDLE_MANAGED_BRIDGE_DATA_DIR/runtime/worker-status.json"
stay)");
    BackendProcess backend(optionsWithWorker(worker.path()));
    backend.waitForRuntimeStatus([](const Json& status) { return status["workerState"] == "starting"; });
    worker.allow("next");
    backend.waitForRuntimeStatus([](const Json& status) { return status["workerState"] == "linked"; });
    worker.allow("vanish");
    backend.waitForRuntimeStatus([](const Json& status) { return status["workerState"] == "launching"; });
    EXPECT_EQ(backend.standardError(), "");
}

class UndecodableWorkerStatus : public testing::TestWithParam<std::string> {};

TEST_P(UndecodableWorkerStatus, IsLoggedAndTheBackendsOwnStateIsPublished) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    worker.waitForPid();
    backend.greet();
    writeFileAtomically(backend.path("runtime/worker-status.json"), GetParam());
    const std::string log = backend.waitForStandardError(worker_status_failure_prefix);
    EXPECT_TRUE(log.starts_with(worker_status_failure_prefix)) << log;
    backend.waitForStatusWrites(1);
    const Json status = backend.readJson("runtime/runtime-status.json");
    EXPECT_EQ(status.at("workerState"), "launching");
    EXPECT_EQ(status.at("workerDetail"),
              "Managed WhatsApp worker launched at " + worker.path().string() + ".");
    EXPECT_EQ(status.at("workerSupportsLiveCapture"), false);
    EXPECT_EQ(status.at("workerProcessRunning"), true);
    EXPECT_TRUE(backend.finishAndTakeRest().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Contents, UndecodableWorkerStatus,
    testing::Values(
        "", "{", "{}", "[]", R"({"state":"linked","supportsLiveCapture":true})",
        R"({"state":"linked","supportsLiveCapture":1,"supportsOutbound":false})",
        R"({"state":"linked","displayName":5,"supportsLiveCapture":true,"supportsOutbound":false})",
        R"({"supportsLiveCapture":true,"supportsOutbound":false})"));

TEST(RuntimeStatus, WorkerStatusThatIsAFifoIsAFailureAndNotWaitedFor) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    worker.waitForPid();
    backend.greet();
    makeFifo(backend.path("runtime/worker-status.json"));
    backend.waitForStandardError(worker_status_failure_prefix);
    backend.waitForStatusWrites(2);
}

TEST(RuntimeStatus, WorkerStatusThatIsADirectoryIsAFailure) {
    const WorkerScript worker("stay");
    BackendProcess backend(optionsWithWorker(worker.path()));
    worker.waitForPid();
    backend.greet();
    fs::create_directory(backend.path("runtime/worker-status.json"));
    backend.waitForStandardError(worker_status_failure_prefix);
    backend.waitForStatusWrites(2);
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("workerState"), "launching");
}

TEST(RuntimeStatus, WorkerStatusIsNotReadWithoutARunningWorker) {
    BackendProcess backend;
    backend.greet();
    writeFileAtomically(backend.path("runtime/worker-status.json"),
                        R"({"state":"linked","supportsLiveCapture":true,"supportsOutbound":true})");
    backend.waitForStatusWrites(2);
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("workerState"), "not_configured");
    writeFileAtomically(backend.path("runtime/worker-status.json"), "{");
    backend.waitForStatusWrites(2);
    EXPECT_EQ(backend.standardError(), "");
}

TEST(RuntimeStatus, ThatCannotBeWrittenIsLoggedAndControlIsStillWritten) {
    BackendProcess backend;
    backend.greet();
    occupy(backend, "runtime/runtime-status.json");
    const std::string log = backend.waitForStandardError(status_failure_prefix);
    EXPECT_NE(log.find(backend.path("runtime/runtime-status.json").string()), std::string::npos) << log;
    backend.send(startListeningRequest(conversationScope()));
    backend.waitForControl([](const Json& control) { return control.contains("activeScope"); });
    EXPECT_TRUE(linesWith(backend, control_failure_prefix).empty()) << backend.standardError();
    backend.finish();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
    expectNames(backend, "runtime",
                {"runtime-status.json", "worker-control.json", "worker-processed-outbound",
                 "worker-rejected-outbound"});
}

TEST(ControlFile, ThatCannotBeWrittenIsLoggedAndStatusIsStillWritten) {
    BackendProcess backend;
    backend.greet();
    occupy(backend, "runtime/worker-control.json");
    const std::string log = backend.waitForStandardError(control_failure_prefix);
    EXPECT_NE(log.find(backend.path("runtime/worker-control.json").string()), std::string::npos) << log;
    backend.waitForStatusWrites(2);
    EXPECT_TRUE(linesWith(backend, status_failure_prefix).empty()) << backend.standardError();
}

TEST(RuntimeStatus, MissingRuntimeDirectoryFailsBothFilesAndIsNotMadeAgain) {
    BackendProcess backend;
    backend.greet();
    // The write that follows the greeting and the first of the timer's may come at the same time.
    backend.waitForStatusWrites(2);
    makeVanish(backend.path("runtime"));
    backend.waitUntil([&] { return countOf(backend, status_failure_prefix) >= 3; },
                      "three failed status writes");
    const std::vector<std::string> lines = backend.standardErrorLines();
    for (std::size_t index = 0; index + 1 < lines.size(); ++index) {
        if (!lines[index].starts_with(status_failure_prefix)) continue;
        EXPECT_TRUE(lines[index + 1].starts_with(control_failure_prefix)) << lines[index + 1];
    }
    EXPECT_FALSE(fs::exists(backend.path("runtime")));
    backend.finish();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
}

TEST(ControlFile, CarriesTheScopeEvenWhileDisconnected) {
    BackendProcess backend;
    backend.greet();
    backend.send(startListeningRequest(conversationScope()));
    const Json control =
        backend.waitForControl([](const Json& found) { return found.contains("activeScope"); });
    EXPECT_EQ(control.at("activeScope").at("title"), "Team Room");
    EXPECT_EQ(backend.readJson("runtime/runtime-status.json").at("connectionState"), "disconnected");
}

// The watch on the parent.

TEST(ParentMonitor, DeathOfTheParentEndsTheBackendNormally) {
    const auto backend = BackendProcess::startUnderIntermediateParent();
    backend->greet();
    backend->killIntermediateParent();
    EXPECT_EQ(backend->waitForExit(), exitedWith(0));
    EXPECT_EQ(backend->standardError(), parent_gone_line);
    EXPECT_EQ(backend->receivedLines().size(), 2U);
}

TEST(ParentMonitor, BackendWithAnotherParentThanAtItsStartEndsEvenWhileTheFirstOneIsStillKnown) {
    const auto backend = BackendProcess::startUnderIntermediateParent();
    backend->greet();
    // Not reaped yet, the first parent still answers a probe.
    const pid_t firstParent = parentOf(backend->pid());
    ASSERT_EQ(kill(firstParent, SIGKILL), 0);
    backend->waitForStandardError(parent_gone_line);
    EXPECT_EQ(kill(firstParent, 0), 0);
    backend->killIntermediateParent();
    EXPECT_EQ(backend->waitForExit(), exitedWith(0));
}

TEST(ParentMonitor, DeathOfTheParentStopsTheWorkerAndPublishesThat) {
    const WorkerScript worker("stay");
    const auto backend = BackendProcess::startUnderIntermediateParent(optionsWithWorker(worker.path()));
    const pid_t pid = worker.waitForPid();
    backend->connectAndListen();
    backend->killIntermediateParent();
    EXPECT_EQ(backend->waitForExit(), exitedWith(0));
    waitUntil([&] { return !processIsRunning(pid); }, "the end of the worker");
    const Json status = backend->readJson("runtime/runtime-status.json");
    EXPECT_EQ(status.at("workerState"), "stopped");
    EXPECT_EQ(status.at("workerDetail"), "Managed WhatsApp worker stopped.");
    EXPECT_EQ(status.at("workerProcessRunning"), false);
    EXPECT_EQ(status.at("connectionState"), "connected");
    EXPECT_EQ(backend->standardError(), parent_gone_line);
}

TEST(ParentMonitor, DeathOfTheParentRemovesTheFilesOfTheWorker) {
    const WorkerScript worker(R"(publish worker.pid "$$"
publish worker-status.json '{"state":"linked","supportsLiveCapture":true,"supportsOutbound":true}'
stay)");
    const auto backend = BackendProcess::startUnderIntermediateParent(optionsWithWorker(worker.path()));
    backend->waitForRuntimeStatus([](const Json& status) { return status["workerState"] == "linked"; });
    backend->killIntermediateParent();
    EXPECT_EQ(backend->waitForExit(), exitedWith(0));
    EXPECT_FALSE(fs::exists(backend->path("runtime/worker-status.json")));
    EXPECT_FALSE(fs::exists(backend->path("runtime/worker.pid")));
}

TEST(ParentMonitor, WorkerThatIgnoresSigtermDoesNotHoldTheEndUp) {
    const WorkerScript worker("trap '' TERM\nmark ready\nstay");
    const auto backend = BackendProcess::startUnderIntermediateParent(optionsWithWorker(worker.path()));
    worker.waitForMark("ready");
    backend->killIntermediateParent();
    EXPECT_EQ(backend->waitForExit(), exitedWith(0));
}

TEST(ParentMonitor, RepliesThatNobodyTakesDoNotHoldTheEndUp) {
    BackendOptions options;
    constexpr int pipe_bytes = 4096;
    options.stdoutPipeBytes = pipe_bytes;
    options.readOutputAtOnce = false;
    const auto backend = BackendProcess::startUnderIntermediateParent(options);
    std::string requests;
    for (int count = 0; count < 200; ++count) requests += connectRequest().dump() + "\n";
    backend->sendRaw(requests);
    // Less than one more envelope fits: the process waits in the middle of its replies.
    constexpr std::size_t room_for_no_envelope = 128;
    waitUntil([&] { return backend->unreadOutputBytes() > pipe_bytes - room_for_no_envelope; },
              "the pipe of standard output to be full");
    backend->killIntermediateParent();
    EXPECT_EQ(backend->waitForExit(), exitedWith(0));
}

TEST(ParentMonitor, LivingParentIsNoReasonToEnd) {
    const auto backend = BackendProcess::startUnderIntermediateParent();
    backend->greet();
    // The parent is checked as often as the status is written.
    backend->waitForStatusWrites(4);
    EXPECT_TRUE(backend->isRunning());
    EXPECT_EQ(backend->standardError(), "");
}

TEST(ParentMonitor, ParentOfAnotherUserIsAlive) {
    if (!isRoot()) GTEST_SKIP() << "Only root can start a process as somebody else.";
    const TemporaryDirectory place;
    if (!isReachableForEverybody(place.path().parent_path())) {
        GTEST_SKIP() << "Another user cannot reach the temporary directory " << place.path().parent_path();
    }
    BackendOptions options;
    const fs::path executable = place.path() / "backend";
    fs::copy_file(backendExecutable(), executable);
    const fs::path wrapper = place.path() / "wrapper";
    writeScript(wrapper, "exec setpriv --reuid=65534 --clear-groups '" + executable.string() + "'");
    options.executable = wrapper.string();
    for (const fs::path& path : {place.path(), executable, wrapper, options.dataDirectory->path(),
                                 options.launchToken->file().parent_path(), options.launchToken->file()}) {
        giveTo(another_user, path);
    }
    BackendProcess backend(options);
    backend.greet();
    backend.waitForStatusWrites(4);
    EXPECT_TRUE(backend.isRunning());
    EXPECT_EQ(backend.standardError(), "");
    backend.finish();
    EXPECT_EQ(backend.waitForExit(), exitedWith(0));
}

TEST(ParentMonitor, BackendWithoutAnyParentEnds) {
    // The first process of a process namespace has no parent in it.
    const TemporaryDirectory place;
    BackendOptions options;
    const fs::path wrapper = place.path() / "wrapper";
    const std::string userNamespace = isRoot() ? "" : "--map-root-user ";
    writeScript(wrapper,
                "exec unshare " + userNamespace + "--pid --fork --kill-child '" + backendExecutable() + "'");
    options.executable = wrapper.string();
    BackendProcess backend(options);
    EXPECT_EQ(backend.waitForExit(), exitedWith(0)) << backend.standardError();
    EXPECT_EQ(backend.standardError(), parent_gone_line);
}

}  // namespace
}  // namespace brindle::test

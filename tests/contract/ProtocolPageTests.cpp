#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Requests.h"

namespace brindle::test {
namespace {

using testing::Contains;
using Lines = std::vector<std::string>;

constexpr const char* self_test_conversation = "managed-whatsapp-backend-self-test";

/// The lines of the page's blocks of that kind.
Lines linesOnThePage(const std::string& kind) {
    Lines lines;
    bool isInside = false;
    std::istringstream page(readFile(SOURCE_DIRECTORY "/docs/bridge-protocol.md"));
    for (std::string line; std::getline(page, line);) {
        const bool isFence = line.starts_with("```");
        if (isInside && !isFence) lines.push_back(line);
        if (isFence) isInside = line == "```json " + kind;
    }
    return lines;
}

Lines linesToTheHelper() {
    return linesOnThePage("to-helper");
}

Lines linesFromTheHelper() {
    return linesOnThePage("from-helper");
}

std::string caseOf(const std::string& line) {
    return Json::parse(line).firstName();
}

/// The record of a line.
Json recordIn(const std::string& line) {
    return Json::parse(line).at(caseOf(line)).at("_0");
}

Lines linesOfCase(const Lines& lines, const std::string& name) {
    Lines found;
    for (const auto& line : lines)
        if (caseOf(line) == name) found.push_back(line);
    return found;
}

BackendOptions servingPlatform(const std::string& platform) {
    BackendOptions options;
    options.arguments = {"--platform", platform};
    return options;
}

/// Sends the line to a helper of its platform, and returns what it answers.
Lines answersTo(BackendProcess& backend, const std::string& line) {
    // Its greeting.
    for (int count = 0; count < 2; ++count) backend.nextLine();
    backend.send(line);
    return backend.finishAndTakeRest();
}

TEST(ProtocolPage, ShowsEveryMessageTwice) {
    std::map<std::string, int> counts;
    for (const auto& lines : {linesToTheHelper(), linesFromTheHelper()})
        for (const auto& line : lines) ++counts[caseOf(line)];
    for (const auto* name : {"hello", "connect", "disconnect", "startListening", "stopListening",
                             "sendMessage", "inboundEvent", "stateChanged", "error"}) {
        EXPECT_GE(counts[name], 2) << name;
    }
}

TEST(ProtocolPage, LinesToTheHelperAreCarriedOut) {
    for (const auto& line : linesToTheHelper()) {
        BackendProcess backend(servingPlatform(recordIn(line).at("platform").text()));
        const auto answers = answersTo(backend, line);
        EXPECT_TRUE(linesOfCase(answers, "error").empty()) << line;
        const bool hasAnAnswer = caseOf(line) == "connect" || caseOf(line) == "disconnect";
        EXPECT_TRUE(!hasAnAnswer || !answers.empty()) << line;
    }
}

TEST(ProtocolPage, MessagesOnItReachTheWorkerAsTheyStand) {
    for (const auto& line : linesOfCase(linesToTheHelper(), "sendMessage")) {
        BackendProcess backend;
        answersTo(backend, line);
        auto message = recordIn(line).at("message");
        if (!message.contains("attachments")) message["attachments"] = Json::array();
        auto record = backend.readJson("outbound/" + backend.waitForEntries("outbound", 1).front());
        record.erase("messageId");
        record.erase("createdAtISO8601");
        EXPECT_EQ(record, message);
    }
}

TEST(ProtocolPage, GreetingsAreWhatTheHelperWrites) {
    for (const auto& line : linesOfCase(linesFromTheHelper(), "hello")) {
        BackendProcess backend(servingPlatform(recordIn(line).at("platform").text()));
        EXPECT_EQ(backend.nextLine(), line);
    }
}

TEST(ProtocolPage, StatesAreWhatTheHelperWrites) {
    BackendProcess backend;
    backend.send(connectRequest());
    const auto written = backend.finish();
    for (const auto& line : linesOfCase(linesFromTheHelper(), "stateChanged")) {
        EXPECT_THAT(written, Contains(line));
    }
}

TEST(ProtocolPage, MessagesThatComeInAreWhatTheHelperWrites) {
    for (const auto& line : linesOfCase(linesFromTheHelper(), "inboundEvent")) {
        auto event = recordIn(line).at("event");
        if (event.at("conversationId") == self_test_conversation) continue;
        BackendProcess backend;
        backend.connectAndListen(
            {{"conversation",
              {{"id", event.at("conversationId")}, {"title", event.at("conversationTitle")}}}});
        const auto name = event.at("messageId").text() + ".json";
        if (event.at("rawReference") == name) event.erase("rawReference");
        backend.writeInbound(name, event);
        EXPECT_EQ(backend.nextLine(), line);
    }
}

TEST(ProtocolPage, SelfTestIsWhatTheHelperWrites) {
    int compared = 0;
    for (const auto& line : linesOfCase(linesFromTheHelper(), "inboundEvent")) {
        const auto shown = recordIn(line).at("event");
        if (shown.at("conversationId") != self_test_conversation) continue;
        BackendProcess backend;
        const auto answers = answersTo(
            backend, startListeningRequest(testOnlyScope(shown.at("conversationTitle").text())).dump());
        ASSERT_EQ(answers.size(), 1U);
        auto written = answers.front();
        for (const auto* field : {"messageId", "timestampISO8601"}) {
            const auto fresh = recordIn(answers.front()).at("event").at(field).text();
            written.replace(written.find(fresh), fresh.size(), shown.at(field).text());
        }
        EXPECT_EQ(written, line);
        ++compared;
    }
    EXPECT_EQ(compared, 1);
}

TEST(ProtocolPage, ErrorsAreWhatTheHelperAnswers) {
    BackendProcess backend;
    backend.greet();
    for (const auto& line : linesOnThePage("refused")) backend.send(line);
    EXPECT_EQ(backend.finishAndTakeRest(), linesOfCase(linesFromTheHelper(), "error"));
}

}  // namespace
}  // namespace brindle::test

#include "console/WatchFacts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <locale.h>

#include <filesystem>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "support/TestClock.h"

namespace brindle::console {
namespace {

using testing::Contains;
using testing::HasSubstr;

class WatchFactsTest : public testing::Test {
  protected:
    void write(const std::filesystem::path& relative, std::string_view content) const {
        std::filesystem::create_directories((place_.path() / relative).parent_path());
        test::writeFileAtomically(place_.path() / relative, content);
    }

    std::vector<std::string> lines() {
        return watchLines(watchFacts(files_, directory_), test::TestClock::start);
    }

    test::TemporaryDirectory place_;
    PosixFileManager files_;
    DataDirectory directory_{
        {{"BRINDLE_MANAGED_BRIDGE_DATA_DIR", place_.path().string()}}, files_, "whatsapp"};
};

TEST_F(WatchFactsTest, SayThatNothingIsThere) {
    EXPECT_THAT(lines(), Contains("helper     none has been here"));
    EXPECT_THAT(lines(), Contains("in         0 delivered, 0 waiting, 0 rejected"));
    EXPECT_THAT(lines(), Contains("last       no message yet"));
}

TEST_F(WatchFactsTest, CountWhatCameAndWhatGoes) {
    for (const auto* file : {"inbound/1.json", "inbound/2.json", "processed/0.json", "rejected/x.json",
                             "outbound/3.json", "runtime/worker-processed-outbound/4.json"}) {
        write(file, "{}");
    }
    EXPECT_THAT(lines(), Contains("in         1 delivered, 2 waiting, 1 rejected"));
    EXPECT_THAT(lines(), Contains("out        1 sent, 1 waiting, 0 rejected"));
}

TEST_F(WatchFactsTest, TellTheWorkersStateAndTheAgeOfItsHeartbeat) {
    write(
        "runtime/runtime-status.json",
        R"({"platform":"whatsapp","backendVersion":"3","dataDirectoryPath":"/d","connectionState":"connected",)"
        R"("activeScopeDescription":"Conversation Team [t]","workerProcessRunning":true,"workerState":"watching_chat",)"
        R"("workerLastHeartbeatISO8601":"2026-01-05T09:29:55Z","workerSupportsLiveCapture":true,)"
        R"("workerSupportsOutbound":false,"updatedAtISO8601":"2026-01-05T09:29:00Z"})");
    EXPECT_THAT(lines(), Contains("helper     does not run, status written 60 s ago"));
    EXPECT_THAT(lines(), Contains("listening  Conversation Team [t]"));
    EXPECT_THAT(lines(), Contains("worker     watching_chat, heartbeat 5 s ago"));
}

TEST_F(WatchFactsTest, ShowTheMessageOfTheGreatestName) {
    const auto message = [](const std::string& text) {
        return R"({"conversationId":"c","conversationTitle":"C","senderId":"s","senderDisplayName":"Ada","text":")" +
               text + R"(","isDirectMessage":true})";
    };
    write("processed/1.json", message("first"));
    write("inbound/2.json", message("second"));
    EXPECT_THAT(lines(), Contains("last       Ada: second"));
    write("processed/3.json", message("third"));
    EXPECT_THAT(lines(), Contains("last       Ada: third"));
}

TEST_F(WatchFactsTest, SayThatTheLastMessageCannotBeRead) {
    write("inbound/1.json", "{}");
    EXPECT_THAT(lines(), Contains("last       one that cannot be read; inbox tells why"));
}

TEST(Fitted, CutsAtTheWidth) {
    EXPECT_EQ(fitted("abc", 5), "abc");
    EXPECT_EQ(fitted("abcdef", 5), "abcde");
    EXPECT_EQ(fitted("", 5), "");
}

TEST(Fitted, CutsBeforeAWideCharacterThatHasNoRoom) {
    // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread.
    const std::string before = ::setlocale(LC_CTYPE, nullptr);
    ASSERT_NE(::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    EXPECT_EQ(fitted("a日本", 3), "a日");
    EXPECT_EQ(fitted("a日本", 4), "a日");
    EXPECT_EQ(fitted("e\u0301b", 1), "e\u0301");
    ::setlocale(LC_CTYPE, before.c_str());
    // NOLINTEND(concurrency-mt-unsafe)
}

}  // namespace
}  // namespace brindle::console

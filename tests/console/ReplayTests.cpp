#include "console/Replay.h"

#include <gtest/gtest.h>

namespace brindle::console {
namespace {

RecordedLine request(const std::string& line) {
    return {.milliseconds = 0, .direction = std::string(RecordedLine::to_helper), .line = line};
}

RecordedLine reply(const std::string& line) {
    return {.milliseconds = 0, .direction = std::string(RecordedLine::from_helper), .line = line};
}

TEST(Replay, SendsARequestOnceAsMuchHasComeAsHadComeThen) {
    Replay replay({reply("hello"), request("connect"), reply("connected"), request("stop")}, {"hello"});
    EXPECT_EQ(replay.nextRequest(), "connect");
    EXPECT_EQ(replay.nextRequest(), std::nullopt);
    replay.received("connected");
    EXPECT_EQ(replay.nextRequest(), "stop");
    EXPECT_EQ(replay.nextRequest(), std::nullopt);
    EXPECT_EQ(replay.differences(), "");
    EXPECT_EQ(replay.requestCount(), 2U);
}

TEST(Replay, OfARecordingThatBeganLaterPassesOverTheGreeting) {
    Replay replay({request("connect"), reply("connected")}, {"hello"});
    EXPECT_EQ(replay.nextRequest(), "connect");
    replay.received("connected");
    EXPECT_EQ(replay.nextRequest(), std::nullopt);
    EXPECT_EQ(replay.differences(), "");
}

TEST(Replay, ShowsWhatDiffers) {
    Replay replay({request("a"), reply("one"), reply("two")}, {});
    replay.nextRequest();
    replay.received("one");
    replay.received("2");
    replay.received("three");
    EXPECT_EQ(replay.differences(), "- two\n+ 2\n+ three\n");
}

TEST(Replay, PassesOverTimesAndIdentifiersThatAreNewEachTime) {
    Replay replay(
        {reply(
            "at 2026-01-05T09:30:00Z 00000000-0000-4000-8000-000000000001 00000000-0000-4000-8000-000000000001")},
        {"at 2027-01-05T09:30:00Z 00000000-0000-4000-8000-00000000000A 00000000-0000-4000-8000-00000000000A"});
    EXPECT_EQ(replay.nextRequest(), std::nullopt);
    EXPECT_EQ(replay.differences(), "");
}

TEST(Replay, TellsOneIdentifierFromAnother) {
    const Replay replay({reply("00000000-0000-4000-8000-000000000001 00000000-0000-4000-8000-000000000001")},
                        {"00000000-0000-4000-8000-00000000000A 00000000-0000-4000-8000-00000000000B"});
    EXPECT_NE(replay.differences(), "");
}

TEST(LineDifferences, KeepWhatIsCommonTogether) {
    EXPECT_EQ(lineDifferences({"a", "b", "c"}, {"a", "c", "d"}), "- b\n+ d\n");
    EXPECT_EQ(lineDifferences({}, {}), "");
    EXPECT_EQ(lineDifferences({"x"}, {}), "- x\n");
}

}  // namespace
}  // namespace brindle::console

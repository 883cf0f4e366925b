#include "bridge/BridgeChannel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "records/DecodingFailure.h"
#include "support/ChildProcesses.h"
#include "support/MemoryStreams.h"
#include "support/Pipes.h"

namespace brindle {
namespace {

/// A line that asks to connect `platform`.
std::string connectLine(const std::string& platform) {
    return encodedLine(BridgeConnectRequest{platform});
}

/// The platform that the next request asks to connect; "" when none follows.
std::string nextPlatform(BridgeChannel& channel) {
    if (!channel.waitForRequest()) return {};
    return std::get<BridgeConnectRequest>(channel.takeRequest()).platform;
}

class BridgeChannelTests : public testing::Test {
  protected:
    BridgeStreams streamsWith(int input) const {
        return {.input = input, .output = streams_.output(), .error = streams_.error()};
    }

    test::MemoryStreams streams_;
};

TEST_F(BridgeChannelTests, TakesRequestsInOrderUntilTheEndOfInput) {
    const auto input = test::memoryFileWith(connectLine("one") + connectLine("two"));
    BridgeChannel channel(streamsWith(input.get()));
    EXPECT_EQ(nextPlatform(channel), "one");
    EXPECT_EQ(nextPlatform(channel), "two");
    EXPECT_FALSE(channel.waitForRequest());
}

TEST_F(BridgeChannelTests, PassesOverLinesWithoutText) {
    const auto input = test::memoryFileWith("\n \t\r\n\u2003\n" + connectLine("one") + "\n\n");
    BridgeChannel channel(streamsWith(input.get()));
    EXPECT_EQ(nextPlatform(channel), "one");
    EXPECT_FALSE(channel.waitForRequest());
}

TEST_F(BridgeChannelTests, TakesTheRequestAfterALineThatHoldsNone) {
    const auto input = test::memoryFileWith("nonsense\n{\"what\":{}}\n" + connectLine("one"));
    BridgeChannel channel(streamsWith(input.get()));
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(channel.waitForRequest());
        EXPECT_THROW(channel.takeRequest(), DecodingFailure);
    }
    EXPECT_EQ(nextPlatform(channel), "one");
}

TEST_F(BridgeChannelTests, EndRequestEndsTheInput) {
    const auto input = test::makePipe();
    const Descriptor endRequest(::eventfd(0, EFD_CLOEXEC));
    auto streams = streamsWith(input.reading.get());
    streams.endRequest = endRequest.get();
    BridgeChannel channel(streams);
    test::put(input.writing, connectLine("one"));
    EXPECT_EQ(nextPlatform(channel), "one");
    std::thread requester([&] { ::eventfd_write(endRequest.get(), 1); });
    EXPECT_FALSE(channel.waitForRequest());
    requester.join();
}

/// Somebody else may have inherited the parent's end of the input.
TEST_F(BridgeChannelTests, ParentThatHasEndedIsGoingThoughTheInputStaysOpen) {
    const auto input = test::makePipe();
    const auto ready = test::makePipe();
    auto answers = test::makePipe();
    const auto beBackend = [&](pid_t parent) {
        BridgeChannel channel(streamsWith(input.reading.get()));
        const auto answer = [&] {
            test::put(answers.writing, channel.departureWatch().isDeparting() ? "is going\n" : "is there\n");
        };
        answer();
        test::put(ready.writing, "x");
        while (::getppid() == parent) std::this_thread::sleep_for(std::chrono::milliseconds{1});
        answer();
    };
    const auto beParent = [&] {
        const pid_t self = ::getpid();
        if (::fork() == 0) {
            beBackend(self);
            ::_exit(0);
        }
        test::readSome(ready.reading);
        return 0;
    };
    EXPECT_EQ(test::statusOfChild(beParent), 0);
    answers.writing.reset();
    EXPECT_EQ(test::readAll(answers.reading), "is there\nis going\n");
}

TEST_F(BridgeChannelTests, LargeRequestStandsBetweenSmallOnes) {
    const std::string large(LineReader::kept_buffer_bytes * 3, 'x');
    const auto input = test::memoryFileWith(connectLine("one") + connectLine(large) + connectLine("two"));
    BridgeChannel channel(streamsWith(input.get()));
    EXPECT_EQ(nextPlatform(channel), "one");
    EXPECT_TRUE(nextPlatform(channel) == large);
    EXPECT_EQ(nextPlatform(channel), "two");
}

std::size_t bytesInUse() {
    const auto heap = ::mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

TEST_F(BridgeChannelTests, GivesTheMemoryOfALargeRequestBack) {
    constexpr std::size_t large = std::size_t{16} << 20U;
    const auto before = bytesInUse();
    if (before == 0) GTEST_SKIP() << "this allocator does not tell how much memory is in use";
    for (const std::string_view shape : {"a request", "no request"}) {
        const auto input = [&] {
            const std::string text(large, 'x');
            return test::memoryFileWith((shape == "a request" ? connectLine(text) : text + "\n") +
                                        connectLine("two"));
        }();
        BridgeChannel channel(streamsWith(input.get()));
        ASSERT_TRUE(channel.waitForRequest());
        EXPECT_GT(bytesInUse(), before + large);
        try {
            channel.takeRequest();
        } catch (const DecodingFailure&) {
        }
        EXPECT_EQ(nextPlatform(channel), "two");
        EXPECT_LT(bytesInUse(), before + 2 * LineReader::kept_buffer_bytes) << shape;
    }
}

/// What is known of each value of a document takes memory too.
TEST_F(BridgeChannelTests, GivesTheMemoryOfARequestOfManyValuesBack) {
    const auto before = bytesInUse();
    if (before == 0) GTEST_SKIP() << "this allocator does not tell how much memory is in use";
    const auto input = [] {
        std::string text = "[0";
        while (text.size() < 2 * LineReader::kept_buffer_bytes) text += ",0";
        return test::memoryFileWith(text + "]\n" + connectLine("two"));
    }();
    BridgeChannel channel(streamsWith(input.get()));
    ASSERT_TRUE(channel.waitForRequest());
    EXPECT_THROW(channel.takeRequest(), DecodingFailure);
    EXPECT_EQ(nextPlatform(channel), "two");
    EXPECT_LT(bytesInUse(), before + 2 * LineReader::kept_buffer_bytes);
}

TEST_F(BridgeChannelTests, WritesEnvelopesAndDiagnostics) {
    BridgeChannel channel(streamsWith(-1));
    channel.emit(BridgeErrorEvent{"one"});
    channel.emitter().emit(BridgeErrorEvent{"two"});
    channel.emitter().log("three\n");
    EXPECT_EQ(streams_.text().output,
              encodedLine(BridgeErrorEvent{"one"}) + encodedLine(BridgeErrorEvent{"two"}));
    EXPECT_EQ(streams_.text().error, "three\n");
}

TEST_F(BridgeChannelTests, UnreadOutputIsGivenUpOnceTheInputIsClosed) {
    auto input = test::makePipe();
    const auto unread = test::makePipe();
    test::fill(unread.writing);
    BridgeChannel channel(
        {.input = input.reading.get(), .output = unread.writing.get(), .error = streams_.error()});
    std::thread parent([&] { input.writing.reset(); });
    EXPECT_THROW(channel.emit(BridgeErrorEvent{"x"}), OutputAbandoned);
    parent.join();
}

TEST_F(BridgeChannelTests, UnreadOutputIsGivenUpOnceTheEndIsRequested) {
    const auto input = test::makePipe();
    const auto unread = test::makePipe();
    const Descriptor endRequest(::eventfd(1, EFD_CLOEXEC));
    test::fill(unread.writing);
    BridgeChannel channel({.input = input.reading.get(),
                           .output = unread.writing.get(),
                           .error = streams_.error(),
                           .endRequest = endRequest.get()});
    EXPECT_THROW(channel.emit(BridgeErrorEvent{"x"}), OutputAbandoned);
}

}  // namespace
}  // namespace brindle

#include "bridge/ManagedWhatsAppBackendEmitter.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "support/ChildProcesses.h"
#include "support/MemoryStreams.h"
#include "support/Pipes.h"
#include "system/FileSystemFailure.h"
#include "system/Processes.h"

namespace brindle {
namespace {

using test::MemoryStreams;

class EmitterTests : public testing::Test {
  protected:
    MemoryStreams streams_;
    DepartureWatch watch_;
    ManagedWhatsAppBackendEmitter emitter_{streams_.output(), streams_.error(), watch_};
    const Descriptor full_{::open("/dev/full", O_WRONLY | O_CLOEXEC)};
};

TEST_F(EmitterTests, WritesEnvelopesToItsOutput) {
    emitter_.emit(BridgeErrorEvent{"one"});
    emitter_.emit(BridgeErrorEvent{"two/2"});
    EXPECT_EQ(streams_.text().output,
              "{\"error\":{\"_0\":{\"message\":\"one\"}}}\n"
              "{\"error\":{\"_0\":{\"message\":\"two\\/2\"}}}\n");
    EXPECT_EQ(streams_.text().error, "");
}

TEST_F(EmitterTests, WritesLogTextUnchangedToItsError) {
    emitter_.log("no line feed added / Zoë");
    emitter_.log("\n");
    emitter_.log("");
    EXPECT_EQ(streams_.text().output, "");
    EXPECT_EQ(streams_.text().error, "no line feed added / Zoë\n");
}

TEST_F(EmitterTests, RepairsLogTextThatIsNotUtf8) {
    emitter_.log("a\xFF\n");
    EXPECT_EQ(streams_.text().error, "a\uFFFD\n");
}

TEST_F(EmitterTests, FailsWhenStandardOutputCannotBeWritten) {
    ManagedWhatsAppBackendEmitter emitter(full_.get(), streams_.error(), watch_);
    try {
        emitter.emit(BridgeErrorEvent{"text"});
        ADD_FAILURE() << "written";
    } catch (const FileSystemFailure& failure) {
        EXPECT_EQ(failure.code(), ENOSPC);
        EXPECT_STREQ(failure.what(), "Cannot write to \"standard output\": No space left on device.");
    }
}

TEST_F(EmitterTests, LogNeverFails) {
    ManagedWhatsAppBackendEmitter emitter(streams_.output(), full_.get(), watch_);
    emitter.log("text\n");
    emitter.emit(BridgeErrorEvent{"goes on"});
    EXPECT_THAT(streams_.text().output, testing::HasSubstr("goes on"));
}

TEST_F(EmitterTests, LinesOfSeveralThreadsNeverInterleave) {
    constexpr int writers = 4;
    constexpr int lines_each = 50;
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; ++writer) {
        threads.emplace_back([this, writer] {
            // Longer than one write of a stream takes at a time.
            const std::string text(20'000, static_cast<char>('a' + writer));
            for (int i = 0; i < lines_each; ++i) {
                emitter_.emit(BridgeErrorEvent{text});
                emitter_.log(text + "\n");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const auto text = streams_.text();
    for (const auto* stream : {&text.output, &text.error}) {
        std::map<std::string, int> counts;
        std::istringstream lines(*stream);
        for (std::string line; std::getline(lines, line);) ++counts[line];
        ASSERT_EQ(counts.size(), static_cast<std::size_t>(writers));
        for (const auto& [line, count] : counts) EXPECT_EQ(count, lines_each);
    }
}

TEST_F(EmitterTests, LineThatHasBegunIsFinishedBeforeTheNext) {
    auto ends = test::makeSmallPipe();
    ManagedWhatsAppBackendEmitter emitter(ends.writing.get(), streams_.error(), watch_);
    const BridgeErrorEvent large{std::string(20'000, 'x')};
    const auto end = emitter.begin(large);
    ASSERT_TRUE(end);
    EXPECT_EQ(*end, encodedLine(large).size());
    EXPECT_FALSE(emitter.isWrittenUpTo(*end));
    std::string received;
    std::thread reader([&] {
        while (!received.ends_with(encodedLine(BridgeErrorEvent{"next"})))
            received += test::readSome(ends.reading);
    });
    emitter.emit(BridgeErrorEvent{"next"});
    reader.join();
    EXPECT_TRUE(emitter.isWrittenUpTo(*end));
    EXPECT_TRUE(received == encodedLine(large) + encodedLine(BridgeErrorEvent{"next"}));
}

TEST_F(EmitterTests, DeliveryDoesNotGetIntoALineThatAnotherThreadIsWriting) {
    constexpr int lines_each = 50;
    auto ends = test::makeSmallPipe();
    ManagedWhatsAppBackendEmitter emitter(ends.writing.get(), streams_.error(), watch_);
    // Longer than the pipe, so that each line waits for its reader in the middle.
    const std::string text(20'000, 'x');
    const auto line = encodedLine(BridgeErrorEvent{text});
    const std::size_t all = 2 * lines_each * line.size();
    std::string received;
    std::thread reader([&] {
        while (received.size() < all) received += test::readSome(ends.reading);
    });
    std::thread replies([&] {
        for (int i = 0; i < lines_each; ++i) emitter.emit(BridgeErrorEvent{text});
    });
    for (int i = 0; i < lines_each; ++i) {
        while (!emitter.takesLine()) std::this_thread::yield();
        auto end = emitter.begin(BridgeErrorEvent{text});
        for (; !end; end = emitter.begin(BridgeErrorEvent{text})) std::this_thread::yield();
        while (!emitter.isWrittenUpTo(*end)) std::this_thread::yield();
    }
    replies.join();
    reader.join();
    std::istringstream lines(received);
    int whole = 0;
    for (std::string each; std::getline(lines, each); ++whole) ASSERT_EQ(each + "\n", line);
    EXPECT_EQ(whole, 2 * lines_each);
}

TEST_F(EmitterTests, LineBeginsOnlyWhereNoOtherIsUnfinished) {
    auto ends = test::makeSmallPipe();
    ManagedWhatsAppBackendEmitter emitter(ends.writing.get(), streams_.error(), watch_);
    EXPECT_TRUE(emitter.takesLine());
    const BridgeErrorEvent large{std::string(20'000, 'x')};
    const auto end = emitter.begin(large);
    ASSERT_TRUE(end);
    EXPECT_FALSE(emitter.takesLine());
    EXPECT_FALSE(emitter.begin(BridgeErrorEvent{"next"}));
    // Nor is anything of the first one lost by that.
    std::string received = test::readSome(ends.reading);
    EXPECT_FALSE(emitter.begin(BridgeErrorEvent{"next"}));
    while (!emitter.isWrittenUpTo(*end)) received += test::readSome(ends.reading);
    while (received.size() < encodedLine(large).size()) received += test::readSome(ends.reading);
    EXPECT_TRUE(received == encodedLine(large));
}

TEST_F(EmitterTests, DiagnosticWaitsForTheEnvelopeThatHasBegunOnTheSameStream) {
    auto ends = test::makeSmallPipe();
    ManagedWhatsAppBackendEmitter emitter(ends.writing.get(), ends.writing.get(), watch_);
    const BridgeErrorEvent large{std::string(20'000, 'x')};
    const auto end = emitter.begin(large);
    // Now there is room for the diagnostic, which belongs behind the rest of the envelope.
    std::string received = test::readSome(ends.reading);
    emitter.log("diagnostic\n");
    while (!emitter.isWrittenUpTo(*end)) received += test::readSome(ends.reading);
    while (received.size() < encodedLine(large).size()) received += test::readSome(ends.reading);
    emitter.log("another\n");
    while (!received.ends_with("another\n")) received += test::readSome(ends.reading);
    EXPECT_TRUE(received == encodedLine(large) + "diagnostic\nanother\n");
}

TEST_F(EmitterTests, UnreadDiagnosticsKeepNobodyWaiting) {
    auto ends = test::makePipe();
    test::fill(ends.writing);
    {
        ManagedWhatsAppBackendEmitter emitter(streams_.output(), ends.writing.get(), watch_);
        for (int i = 0; i < 1000; ++i) emitter.relay("a line\n");
        emitter.log("a line\n");
        emitter.emit(BridgeErrorEvent{"answer"});
        watch_.abandonOutput();
    }
    EXPECT_EQ(streams_.text().output, encodedLine(BridgeErrorEvent{"answer"}));
}

TEST_F(EmitterTests, LastDiagnosticsAreWaitedForWhileSomebodyReads) {
    auto ends = test::makePipe();
    const auto filled = test::fill(ends.writing);
    std::string received;
    std::thread reader;
    {
        ManagedWhatsAppBackendEmitter emitter(streams_.output(), ends.writing.get(), watch_);
        emitter.log("the last line\n");
        reader = std::thread([&] { received = test::readAll(ends.reading); });
    }
    ends.writing.reset();
    reader.join();
    EXPECT_EQ(received.substr(filled), "the last line\n");
}

/// Lets no file grow beyond so many bytes.
void limitFileSize(rlim_t limit) {
    const rlimit size{.rlim_cur = limit, .rlim_max = RLIM_INFINITY};
    ::setrlimit(RLIMIT_FSIZE, &size);
}

TEST_F(EmitterTests, NoEnvelopeFollowsHalfAnEnvelope) {
    EXPECT_EQ(test::statusOfChild([this] {
                  ignoreSignalsOfFailedWrites();
                  for (const rlim_t limit : {rlim_t{10}, RLIM_INFINITY}) {
                      limitFileSize(limit);
                      try {
                          emitter_.emit(BridgeErrorEvent{"text"});
                          return 1;
                      } catch (const FileSystemFailure&) {
                      }
                  }
                  emitter_.log("goes on\n");
                  return 0;
              }),
              0);
    EXPECT_EQ(streams_.text().output, "{\"error\":{");
    EXPECT_EQ(streams_.text().error, "goes on\n");
}

TEST_F(EmitterTests, NoDiagnosticFollowsHalfADiagnostic) {
    EXPECT_EQ(test::statusOfChild([this] {
                  ignoreSignalsOfFailedWrites();
                  limitFileSize(4);
                  emitter_.log("half a line\n");
                  limitFileSize(RLIM_INFINITY);
                  emitter_.log("next\n");
                  emitter_.emit(BridgeErrorEvent{"goes on"});
                  return 0;
              }),
              0);
    EXPECT_EQ(streams_.text().error, "half");
    EXPECT_EQ(streams_.text().output, encodedLine(BridgeErrorEvent{"goes on"}));
}

}  // namespace
}  // namespace brindle

#include "bridge/ManagedWhatsAppBackendEmitter.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "support/CapturedStreams.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

using test::CapturedStreams;

TEST(EmitterTests, WritesEnvelopesToStandardOutput) {
    CapturedStreams streams;
    DepartureWatch watch;
    ManagedWhatsAppBackendEmitter emitter(watch);
    emitter.emit(BridgeErrorEvent{"one"});
    emitter.emit(BridgeErrorEvent{"two/2"});
    const auto text = streams.take();
    EXPECT_EQ(text.output,
              "{\"error\":{\"_0\":{\"message\":\"one\"}}}\n"
              "{\"error\":{\"_0\":{\"message\":\"two\\/2\"}}}\n");
    EXPECT_EQ(text.error, "");
}

TEST(EmitterTests, WritesLogTextUnchangedToStandardError) {
    CapturedStreams streams;
    DepartureWatch watch;
    ManagedWhatsAppBackendEmitter emitter(watch);
    emitter.log("no line feed added / Zoë");
    emitter.log("\n");
    emitter.log("");
    const auto text = streams.take();
    EXPECT_EQ(text.output, "");
    EXPECT_EQ(text.error, "no line feed added / Zoë\n");
}

TEST(EmitterTests, RepairsLogTextThatIsNotUtf8) {
    CapturedStreams streams;
    DepartureWatch watch;
    ManagedWhatsAppBackendEmitter(watch).log("a\xFF\n");
    EXPECT_EQ(streams.take().error, "a\uFFFD\n");
}

TEST(EmitterTests, FailsWhenStandardOutputCannotBeWritten) {
    int code = 0;
    std::string description;
    {
        CapturedStreams streams;
        const Descriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
        ::dup2(full.get(), STDOUT_FILENO);
        DepartureWatch watch;
        ManagedWhatsAppBackendEmitter emitter(watch);
        try {
            emitter.emit(BridgeErrorEvent{"text"});
        } catch (const FileSystemFailure& failure) {
            code = failure.code();
            description = failure.what();
        }
    }
    EXPECT_EQ(code, ENOSPC);
    EXPECT_EQ(description, "Cannot write to \"standard output\": No space left on device.");
}

TEST(EmitterTests, LogNeverFails) {
    bool wrote = false;
    {
        CapturedStreams streams;
        const Descriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
        ::dup2(full.get(), STDERR_FILENO);
        DepartureWatch watch;
        ManagedWhatsAppBackendEmitter emitter(watch);
        emitter.log("text\n");
        emitter.emit(BridgeErrorEvent{"goes on"});
        wrote = streams.take().output.find("goes on") != std::string::npos;
    }
    EXPECT_TRUE(wrote);
}

TEST(EmitterTests, LinesOfSeveralThreadsNeverInterleave) {
    constexpr int writers = 4;
    constexpr int lines_each = 50;
    CapturedStreams streams;
    DepartureWatch watch;
    ManagedWhatsAppBackendEmitter emitter(watch);
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; ++writer) {
        threads.emplace_back([&emitter, writer] {
            // Longer than one write of a stream takes at a time.
            const std::string text(20'000, static_cast<char>('a' + writer));
            for (int i = 0; i < lines_each; ++i) {
                emitter.emit(BridgeErrorEvent{text});
                emitter.log(text + "\n");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const auto text = streams.take();
    for (const auto* stream : {&text.output, &text.error}) {
        std::map<std::string, int> counts;
        std::istringstream lines(*stream);
        for (std::string line; std::getline(lines, line);) ++counts[line];
        ASSERT_EQ(counts.size(), static_cast<std::size_t>(writers));
        for (const auto& [line, count] : counts) EXPECT_EQ(count, lines_each);
    }
}

}  // namespace
}  // namespace brindle

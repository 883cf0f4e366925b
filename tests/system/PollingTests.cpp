#include "system/Polling.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "support/LoweredLimit.h"
#include "support/Pipes.h"
#include "text/Failure.h"

namespace brindle {
namespace {

TEST(PollingTests, CountsWhatIsReady) {
    const auto ends = test::makePipe();
    std::array<pollfd, 2> set{{{.fd = ends.reading.get(), .events = POLLIN, .revents = 0},
                               {.fd = ends.writing.get(), .events = POLLOUT, .revents = 0}}};
    EXPECT_EQ(polled(set, -1), 1);
    EXPECT_EQ(set[0].revents, 0);
    EXPECT_EQ(set[1].revents, POLLOUT);
    EXPECT_EQ(polled({set.data(), 1}, 0), 0);
}

TEST(PollingTests, WaitThatIsRefusedIsASentence) {
    const auto ends = test::makePipe();
    pollfd entry{.fd = ends.writing.get(), .events = POLLOUT, .revents = 0};
    const test::LoweredLimit limit(RLIMIT_NOFILE, 0);
    try {
        polled({&entry, 1}, -1);
        FAIL() << "the wait was not refused";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.what(), std::string("Cannot wait for input any longer: Invalid argument."));
    }
}

}  // namespace
}  // namespace brindle

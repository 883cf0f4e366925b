#include "console/Summary.h"

#include <gtest/gtest.h>

namespace brindle::console {
namespace {

using std::chrono::milliseconds;

constexpr Summary::TimePoint start{};

TEST(Summary, OfNothingSaysSo) {
    EXPECT_EQ(Summary().text(), "0 steps done, 0 failed, 0 inbound events received, 0.00 s:\n");
}

TEST(Summary, ShowsHowLongEachStepTook) {
    Summary summary;
    summary.begin("connect", start);
    summary.done(start + milliseconds(20));
    summary.begin("wait-status workerState linked", start + milliseconds(500));
    summary.countInboundEvent();
    summary.done(start + milliseconds(12850));
    EXPECT_EQ(summary.text(),
              "2 steps done, 0 failed, 1 inbound event received, 12.37 s:\n"
              "    0.02 s  connect\n"
              "   12.35 s  wait-status workerState linked\n");
}

TEST(Summary, MarksTheStepThatFailed) {
    Summary summary;
    summary.begin("connect", start);
    summary.done(start);
    summary.begin("qr", start);
    summary.failed(start + milliseconds(10000));
    EXPECT_EQ(summary.text(),
              "1 step done, 1 failed, 0 inbound events received, 10.00 s:\n"
              "    0.00 s  connect\n"
              "   10.00 s  qr (failed)\n");
}

TEST(Summary, LeavesOutAStepThatHasNotEnded) {
    Summary summary;
    summary.begin("# comment", start);
    summary.begin("connect", start);
    summary.done(start);
    summary.begin("quit", start);
    EXPECT_EQ(summary.text(),
              "1 step done, 0 failed, 0 inbound events received, 0.00 s:\n"
              "    0.00 s  connect\n");
}

TEST(Summary, HasNothingThatATerminalObeys) {
    Summary summary;
    summary.begin("send a '\033[2J\n'", start);
    summary.done(start);
    EXPECT_EQ(summary.text().find('\033'), std::string::npos);
    EXPECT_NE(summary.text().find("send a '?[2J?'"), std::string::npos);
}

}  // namespace
}  // namespace brindle::console

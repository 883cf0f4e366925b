#include "text/WithoutFailing.h"

#include <gtest/gtest.h>

#include <new>
#include <string>

#include "text/Failure.h"

namespace brindle {
namespace {

TEST(WithoutFailingTests, WorkThatSucceedsIsDoneAndNothingIsReported) {
    int done = 0;
    withoutFailing([&] { ++done; });
    withoutFailing([&] { ++done; }, [](const std::exception&) { FAIL() << "there was no failure"; });
    EXPECT_EQ(done, 2);
}

TEST(WithoutFailingTests, FailureIsReportedOnce) {
    std::string reported;
    withoutFailing([] { throw Failure("One sentence."); },
                   [&](const std::exception& error) { reported += descriptionOf(error); });
    EXPECT_EQ(reported, "One sentence.");
}

TEST(WithoutFailingTests, ReportMayFailToo) {
    withoutFailing([] { throw Failure("One sentence."); },
                   [](const std::exception&) { throw std::bad_alloc(); });
}

TEST(WithoutFailingTests, NothingGetsOutWhateverIsThrown) {
    withoutFailing([] { throw std::bad_alloc(); });
    withoutFailing([] { throw 1; });
    withoutFailing([] { throw 1; }, [](const std::exception&) {});
}

}  // namespace
}  // namespace brindle

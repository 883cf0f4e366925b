#include "text/Failure.h"

#include <gtest/gtest.h>

#include <new>

namespace brindle {
namespace {

TEST(FailureTests, EveryFailureIsDescribedInItsOwnWords) {
    EXPECT_EQ(descriptionOf(Failure("One sentence.")), "One sentence.");
}

TEST(FailureTests, LackOfMemoryIsDescribedForPeople) {
    EXPECT_EQ(descriptionOf(std::bad_alloc()), "There is not enough memory.");
}

}  // namespace
}  // namespace brindle

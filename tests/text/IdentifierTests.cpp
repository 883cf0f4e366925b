#include "text/Identifier.h"

#include <gtest/gtest.h>

#include <set>

#include "support/TextForms.h"

namespace brindle {
namespace {

TEST(IdentifierTests, IsCanonicalUpperCaseText) {
    for (int i = 0; i < 1000; ++i) {
        const auto identifier = randomIdentifier();
        ASSERT_TRUE(test::isCanonicalUuid(identifier)) << identifier;
    }
}

TEST(IdentifierTests, IsARandomOne) {
    for (int i = 0; i < 1000; ++i) {
        const auto identifier = randomIdentifier();
        ASSERT_EQ(identifier[14], '4') << identifier;
        ASSERT_NE(std::string_view("89AB").find(identifier[19]), std::string_view::npos) << identifier;
    }
}

TEST(IdentifierTests, NeverRepeats) {
    std::set<std::string> seen;
    for (int i = 0; i < 10'000; ++i) seen.insert(randomIdentifier());
    EXPECT_EQ(seen.size(), 10'000U);
}

}  // namespace
}  // namespace brindle

#include "text/Identifier.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <set>
#include <string>

#include "support/TextForms.h"

namespace brindle {
namespace {

constexpr auto all_bits = std::numeric_limits<std::uint64_t>::max();

/// A source that is not random at all: the same bits each time.
AscendingIdentifiers::RandomSource always(std::uint64_t bits) {
    return [bits] { return bits; };
}

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

TEST(AscendingIdentifiersTests, EachIsGreaterThanTheOneBefore) {
    for (const std::uint64_t bits : {std::uint64_t{0}, std::uint64_t{1}, all_bits}) {
        AscendingIdentifiers identifiers(always(bits));
        auto previous = identifiers.next();
        for (int i = 0; i < 10'000; ++i) {
            auto identifier = identifiers.next();
            ASSERT_GT(identifier, previous);
            previous = std::move(identifier);
        }
    }
    AscendingIdentifiers identifiers;
    auto previous = identifiers.next();
    for (int i = 0; i < 100'000; ++i) {
        auto identifier = identifiers.next();
        ASSERT_GT(identifier, previous);
        previous = std::move(identifier);
    }
}

TEST(AscendingIdentifiersTests, AreCanonicalRandomUuids) {
    AscendingIdentifiers identifiers;
    for (int i = 0; i < 10'000; ++i) {
        const auto identifier = identifiers.next();
        ASSERT_TRUE(test::isCanonicalUuid(identifier)) << identifier;
        ASSERT_EQ(identifier[14], '4') << identifier;
        ASSERT_NE(std::string_view("89AB").find(identifier[19]), std::string_view::npos) << identifier;
    }
}

TEST(AscendingIdentifiersTests, StepIsCarriedOverVariantAndVersion) {
    AscendingIdentifiers identifiers(always(0));
    identifiers.riseAbove("00000000-0000-4000-8000-0000000000FE");
    EXPECT_EQ(identifiers.next(), "00000000-0000-4000-8000-0000000000FF");
    EXPECT_EQ(identifiers.next(), "00000000-0000-4000-8000-000000000100");
    identifiers.riseAbove("00000000-0000-4000-8FFF-FFFFFFFFFFFF");
    EXPECT_EQ(identifiers.next(), "00000000-0000-4000-9000-000000000000");
    identifiers.riseAbove("00000000-0000-4000-BFFF-FFFFFFFFFFFF");
    EXPECT_EQ(identifiers.next(), "00000000-0000-4001-8000-000000000000");
    identifiers.riseAbove("00000000-0000-4FFF-BFFF-FFFFFFFFFFFF");
    EXPECT_EQ(identifiers.next(), "00000000-0001-4000-8000-000000000000");
    identifiers.riseAbove("00000000-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
    EXPECT_EQ(identifiers.next(), "00000001-0000-4000-8000-000000000000");
}

TEST(AscendingIdentifiersTests, StepHasSixtyFourRandomBits) {
    // One more than random, so this step is exactly 2^64: four turns of the low 62 bits.
    AscendingIdentifiers widest(always(all_bits));
    widest.riseAbove("00000000-0000-4000-8000-000000000007");
    EXPECT_EQ(widest.next(), "00000000-0000-4004-8000-000000000007");
    AscendingIdentifiers patterned(always(0x0123456789ABCDEF));
    patterned.riseAbove("00000000-0000-4000-8000-000000000000");
    EXPECT_EQ(patterned.next(), "00000000-0000-4000-8123-456789ABCDF0");
}

TEST(AscendingIdentifiersTests, StartIsRandomAndLow) {
    std::set<std::string> starts;
    for (int i = 0; i < 1000; ++i) {
        const auto start = AscendingIdentifiers().next();
        EXPECT_LT(start, "4");
        starts.insert(start.substr(0, 8));
    }
    // Of 2^30 beginnings a thousand are all but surely different ones.
    EXPECT_GT(starts.size(), 990U);
    EXPECT_EQ(AscendingIdentifiers(always(all_bits)).next(), "3FFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
}

TEST(AscendingIdentifiersTests, RisesAboveAnIdentifier) {
    const std::string waiting = "7B29FC40-CA47-4067-B31D-00DD010662DA";
    for (int i = 0; i < 100; ++i) {
        AscendingIdentifiers identifiers;
        identifiers.riseAbove(waiting);
        EXPECT_GT(identifiers.next(), waiting);
    }
}

TEST(AscendingIdentifiersTests, NeverGoesBackToRiseAboveALowerOne) {
    AscendingIdentifiers identifiers(always(0));
    identifiers.riseAbove("7B29FC40-CA47-4067-B31D-00DD010662DA");
    identifiers.riseAbove("1B29FC40-CA47-4067-B31D-00DD010662DA");
    EXPECT_EQ(identifiers.next(), "7B29FC40-CA47-4067-B31D-00DD010662DB");
}

TEST(AscendingIdentifiersTests, OtherTextsAreNotRisenAbove) {
    for (const auto* other :
         {"", "7", "m1", "7B29FC40-CA47-4067-B31D-00DD010662D", "7B29FC40-CA47-4067-B31D-00DD010662DA0",
          "7b29fc40-ca47-4067-b31d-00dd010662da", "7B29FC40-CA47-1067-B31D-00DD010662DA",
          "7B29FC40-CA47-4067-731D-00DD010662DA", "7B29FC40-CA47-4067-F31D-00DD010662DA",
          "7B29FC40-CA47-4067-B31D-00DD010662DG", "7B29FC40_CA47_4067_B31D_00DD010662DA",
          "{7B29FC40-CA47-4067-B31D-00DD010662}"}) {
        AscendingIdentifiers identifiers(always(0));
        identifiers.riseAbove(other);
        EXPECT_EQ(identifiers.next(), "00000000-0000-4000-8000-000000000000") << other;
    }
}

TEST(AscendingIdentifiersTests, RoomIsForTwoToTheThirtiethWidestSteps) {
    // 2^30 steps of 2^64 positions are 2^32 turns of the low 62 bits.
    EXPECT_TRUE(AscendingIdentifiers::leavesRoomAbove("FFFFFFEF-FFFF-4FFF-BFFF-FFFFFFFFFFFF"));
    EXPECT_FALSE(AscendingIdentifiers::leavesRoomAbove("FFFFFFF0-0000-4000-8000-000000000000"));
    EXPECT_FALSE(AscendingIdentifiers::leavesRoomAbove("FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF"));
    EXPECT_FALSE(AscendingIdentifiers::leavesRoomAbove("m1"));
    EXPECT_TRUE(AscendingIdentifiers::leavesRoomAbove(AscendingIdentifiers(always(all_bits)).next()));
}

TEST(AscendingIdentifiersTests, FreshStartFollowsWhenTheRoomEnds) {
    for (const auto* last :
         {"FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF", "FFFFFFFF-FFFF-4FFE-8000-000000000000"}) {
        AscendingIdentifiers identifiers(always(all_bits));
        identifiers.riseAbove(last);
        EXPECT_EQ(identifiers.next(), "3FFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
        EXPECT_GT(identifiers.next(), "3FFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
    }
}

}  // namespace
}  // namespace brindle

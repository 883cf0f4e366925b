#include "records/DecodingFailure.h"

#include <gtest/gtest.h>

#include <string_view>

namespace brindle {
namespace {

using Kind = DecodingFailure::Kind;

TEST(DecodingFailureTests, SentenceTellsTheProblem) {
    for (const auto kind : {Kind::typeMismatch, Kind::malformedData, Kind::missingKey, Kind::missingValue}) {
        const DecodingFailure failure(kind, "a required value is missing", "", "detail");
        EXPECT_STREQ(failure.what(), "The data cannot be used because a required value is missing.");
        EXPECT_EQ(failure.kind(), kind);
    }
}

TEST(DecodingFailureTests, SentenceNamesThePlace) {
    EXPECT_STREQ(
        DecodingFailure(Kind::missingKey, "a required value is missing", "connect._0.platform", "").what(),
        "The data cannot be used because a required value is missing (at connect._0.platform).");
}

TEST(DecodingFailureTests, DetailIsNotPartOfTheSentence) {
    const DecodingFailure failure(Kind::typeMismatch, "it is null", "scope", "for developers");
    EXPECT_EQ(failure.detail(), "for developers");
    EXPECT_EQ(std::string_view(failure.what()).find("for developers"), std::string_view::npos);
}

}  // namespace
}  // namespace brindle

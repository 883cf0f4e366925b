#include "records/DecodingFailure.h"

#include <gtest/gtest.h>

#include <string_view>

namespace brindle {
namespace {

using Kind = DecodingFailure::Kind;

TEST(DecodingFailureTests, CorruptAndMistypedDataShareOneSentence) {
    for (const auto kind : {Kind::typeMismatch, Kind::malformedData}) {
        const DecodingFailure failure(kind, "", "detail");
        EXPECT_STREQ(failure.what(),
                     "The data cannot be used because it is corrupt or has a value of the wrong type.");
        EXPECT_EQ(failure.kind(), kind);
    }
}

TEST(DecodingFailureTests, MissingDataHasAnotherSentence) {
    for (const auto kind : {Kind::missingKey, Kind::missingValue}) {
        const DecodingFailure failure(kind, "", "detail");
        EXPECT_STREQ(failure.what(), "The data cannot be used because a required value is missing.");
        EXPECT_EQ(failure.kind(), kind);
    }
}

TEST(DecodingFailureTests, SentenceNamesThePlace) {
    EXPECT_STREQ(DecodingFailure(Kind::missingKey, "connect._0.platform", "").what(),
                 "The data cannot be used because a required value is missing (at connect._0.platform).");
}

TEST(DecodingFailureTests, DetailIsNotPartOfTheSentence) {
    const DecodingFailure failure(Kind::typeMismatch, "scope", "for developers");
    EXPECT_EQ(failure.detail(), "for developers");
    EXPECT_EQ(std::string_view(failure.what()).find("for developers"), std::string_view::npos);
}

}  // namespace
}  // namespace brindle

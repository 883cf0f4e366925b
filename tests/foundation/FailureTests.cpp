#include "foundation/Failure.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <new>

namespace brindle {
namespace {

using Kind = DecodingFailure::Kind;

TEST(FailureTests, CorruptAndMistypedDataShareOneSentence) {
    for (const auto kind : {Kind::typeMismatch, Kind::malformedData}) {
        const DecodingFailure failure(kind, "", "detail");
        EXPECT_STREQ(failure.what(),
                     "The data cannot be used because it is corrupt or has a value of the wrong type.");
        EXPECT_EQ(failure.kind(), kind);
    }
}

TEST(FailureTests, MissingDataHasAnotherSentence) {
    for (const auto kind : {Kind::missingKey, Kind::missingValue}) {
        const DecodingFailure failure(kind, "", "detail");
        EXPECT_STREQ(failure.what(), "The data cannot be used because a required value is missing.");
        EXPECT_EQ(failure.kind(), kind);
    }
}

TEST(FailureTests, SentenceNamesThePlace) {
    EXPECT_STREQ(DecodingFailure(Kind::missingKey, "connect._0.platform", "").what(),
                 "The data cannot be used because a required value is missing (at connect._0.platform).");
}

TEST(FailureTests, DetailIsNotPartOfTheSentence) {
    const DecodingFailure failure(Kind::typeMismatch, "scope", "for developers");
    EXPECT_EQ(failure.detail(), "for developers");
    EXPECT_EQ(std::string_view(failure.what()).find("for developers"), std::string_view::npos);
}

TEST(FailureTests, FileSystemFailureNamesPathAndReason) {
    const FileSystemFailure failure("read", "/a/b", ENOSPC);
    EXPECT_STREQ(failure.what(), "Cannot read \"/a/b\": No space left on device.");
    EXPECT_EQ(failure.code(), ENOSPC);
}

TEST(FailureTests, FileSystemFailureTakesAReasonInWords) {
    const FileSystemFailure failure("use", "/a", "It is not ours", EPERM);
    EXPECT_STREQ(failure.what(), "Cannot use \"/a\": It is not ours.");
    EXPECT_EQ(failure.code(), EPERM);
}

TEST(FailureTests, PathOfSeveralLinesIsShownOnOne) {
    EXPECT_STREQ(FileSystemFailure("read", "/a\nb\xFF", ENOENT).what(),
                 "Cannot read \"/a?b\uFFFD\": No such file or directory.");
}

TEST(FailureTests, AbandonedOutputIsDescribedForPeople) {
    EXPECT_STREQ(OutputAbandoned().what(), "The parent has stopped reading and closed its end.");
}

TEST(FailureTests, EveryFailureIsDescribedInItsOwnWords) {
    EXPECT_EQ(descriptionOf(Failure("One sentence.")), "One sentence.");
}

TEST(FailureTests, LackOfMemoryIsDescribedForPeople) {
    EXPECT_EQ(descriptionOf(std::bad_alloc()), "There is not enough memory.");
}

}  // namespace
}  // namespace brindle

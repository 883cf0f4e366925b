#include "system/FileSystemFailure.h"

#include <errno.h>
#include <gtest/gtest.h>

namespace brindle {
namespace {

TEST(FileSystemFailureTests, FileSystemFailureNamesPathAndReason) {
    const FileSystemFailure failure("read", "/a/b", ENOSPC);
    EXPECT_STREQ(failure.what(), "Cannot read \"/a/b\": No space left on device.");
    EXPECT_EQ(failure.code(), ENOSPC);
}

TEST(FileSystemFailureTests, FileSystemFailureTakesAReasonInWords) {
    const FileSystemFailure failure("use", "/a", "It is not ours", EPERM);
    EXPECT_STREQ(failure.what(), "Cannot use \"/a\": It is not ours.");
    EXPECT_EQ(failure.code(), EPERM);
}

TEST(FileSystemFailureTests, PathOfSeveralLinesIsShownOnOne) {
    EXPECT_STREQ(FileSystemFailure("read", "/a\nb\xFF", ENOENT).what(),
                 "Cannot read \"/a?b\uFFFD\": No such file or directory.");
}

}  // namespace
}  // namespace brindle

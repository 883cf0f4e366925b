#include "system/LockHolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "support/TemporaryDirectory.h"

namespace brindle {
namespace {

const dev_t some_device = makedev(0x08, 0x1f);
constexpr ino_t some_inode = 1234;

TEST(LockHolderTests, HolderIsTheProcessInTheLineOfTheObject) {
    EXPECT_EQ(lockHolderIn("1: FLOCK  ADVISORY  WRITE 17 08:1f:1233 0 EOF\n"
                           "2: FLOCK  ADVISORY  WRITE 18 08:1e:1234 0 EOF\n"
                           "3: FLOCK  ADVISORY  WRITE 4711 08:1f:1234 0 EOF\n",
                           some_device, some_inode),
              4711);
}

TEST(LockHolderTests, LastLineMayLackItsEnd) {
    EXPECT_EQ(lockHolderIn("1: FLOCK  ADVISORY  WRITE 4711 08:1f:1234 0 EOF", some_device, some_inode), 4711);
}

TEST(LockHolderTests, LocksOfOtherKindsDoNotCount) {
    EXPECT_EQ(lockHolderIn("1: POSIX  ADVISORY  WRITE 17 08:1f:1234 0 EOF\n"
                           "2: FLOCK  ADVISORY  READ  18 08:1f:1234 0 EOF\n",
                           some_device, some_inode),
              std::nullopt);
}

TEST(LockHolderTests, ProcessThatWaitsIsNotTheHolder) {
    EXPECT_EQ(lockHolderIn("1: -> FLOCK  ADVISORY  WRITE 17 08:1f:1234 0 EOF\n", some_device, some_inode),
              std::nullopt);
}

TEST(LockHolderTests, ProcessOutsideOfTheContainerIsNotTold) {
    EXPECT_EQ(lockHolderIn("1: FLOCK  ADVISORY  WRITE 0 08:1f:1234 0 EOF\n"
                           "2: FLOCK  ADVISORY  WRITE -1 08:1f:1234 0 EOF\n",
                           some_device, some_inode),
              std::nullopt);
}

class UnreadableListTests : public testing::TestWithParam<const char*> {};

TEST_P(UnreadableListTests, TellsNothing) {
    EXPECT_EQ(lockHolderIn(GetParam(), some_device, some_inode), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, UnreadableListTests,
    testing::Values("", "\n\n", "1:", "1: FLOCK", "1: FLOCK ADVISORY WRITE", "1: FLOCK ADVISORY WRITE 17",
                    "1: FLOCK ADVISORY WRITE 17 08:1f",
                    "1: FLOCK ADVISORY WRITE 17 08:1f:", "1: FLOCK ADVISORY WRITE x 08:1f:1234",
                    "1: FLOCK ADVISORY WRITE 17x 08:1f:1234", "1: FLOCK ADVISORY WRITE 17 08:1f:1234x",
                    "1: FLOCK ADVISORY WRITE 99999999999 08:1f:1234"));

TEST(LockHolderTests, OwnLockIsNotAnother) {
    const test::TemporaryDirectory home;
    PosixFileManager files;
    const auto lock = files.lockDirectory(home.path());
    EXPECT_EQ(directoryLockHolder(files, home.path()), std::nullopt);
}

TEST(LockHolderTests, DirectoryThatIsGoneHasNone) {
    const test::TemporaryDirectory home;
    PosixFileManager files;
    EXPECT_EQ(directoryLockHolder(files, home.path() / "gone"), std::nullopt);
}

}  // namespace
}  // namespace brindle

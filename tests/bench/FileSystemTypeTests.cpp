#include "FileSystemType.h"

#include <gtest/gtest.h>

namespace brindle::bench {
namespace {

constexpr const char* mounts =
    "21 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
    "23 21 0:21 / /dev rw - devtmpfs udev rw\n"
    "24 23 0:22 / /dev/shm rw shared:3 master:2 - tmpfs tmpfs rw,size=1k\n";

TEST(FileSystemType, InnermostMountCounts) {
    EXPECT_EQ(fileSystemOf("/dev/shm/brindle-bench-1", mounts), "tmpfs");
    EXPECT_EQ(fileSystemOf("/dev/shm", mounts), "tmpfs");
    EXPECT_EQ(fileSystemOf("/home/ann", mounts), "ext4");
}

TEST(FileSystemType, MountPointIsNotAnyBeginningOfAName) {
    EXPECT_EQ(fileSystemOf("/dev/shmoo", mounts), "devtmpfs");
}

TEST(FileSystemType, LaterMountCoversAnEarlierOne) {
    EXPECT_EQ(fileSystemOf("/home/ann", std::string(mounts) + "30 21 0:30 / / rw - overlay none rw\n"),
              "overlay");
}

TEST(FileSystemType, UnknownWhereNothingIsTold) {
    EXPECT_EQ(fileSystemOf("/home/ann", ""), "unknown");
}

}  // namespace
}  // namespace brindle::bench

#include "worker/webkit/Procfs.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "support/Units.h"
#include "system/Descriptor.h"

namespace brindle::test {
namespace {

constexpr std::size_t much = 256 * mebibyte;

/// Memory that this process has filled.
class Filled {
  public:
    /// `sharing` as of mmap: MAP_PRIVATE or MAP_SHARED.
    explicit Filled(int sharing)
        : start_(::mmap(nullptr, much, PROT_READ | PROT_WRITE, sharing | MAP_ANONYMOUS, -1, 0)) {
        if (start_ != MAP_FAILED) std::memset(start_, 1, much);
    }
    ~Filled() { ::munmap(start_, much); }
    Filled(const Filled&) = delete;
    Filled& operator=(const Filled&) = delete;

    bool isThere() const { return start_ != MAP_FAILED; }

  private:
    void* start_;
};

class OwnBytes : public testing::TestWithParam<int> {};

TEST_P(OwnBytes, AreWhatAProcessHasFilledWhetherItSharesThatOrNot) {
    const auto before = ownBytes(::getpid());
    const auto limit = before + much / 2;
    EXPECT_FALSE(hasMoreOwnBytesThan(limit, ::getpid()));
    const Filled memory(GetParam());
    ASSERT_TRUE(memory.isThere());
    EXPECT_GT(ownBytes(::getpid()), limit);
    EXPECT_TRUE(hasMoreOwnBytesThan(limit, ::getpid()));
}

INSTANTIATE_TEST_SUITE_P(Sharing, OwnBytes, testing::Values(MAP_PRIVATE, MAP_SHARED),
                         [](const auto& each) { return each.param == MAP_SHARED ? "Shared" : "Private"; });

TEST(OwnBytesOf, AFileThatIsMappedAreNone) {
    const auto before = ownBytes(::getpid());
    const TemporaryDirectory directory;
    struct statfs fileSystem {};
    ASSERT_EQ(::statfs(directory.path().c_str(), &fileSystem), 0);
    if (fileSystem.f_type == TMPFS_MAGIC)
        GTEST_SKIP()
            << "Temporary files lie in memory here, which counts as their process's own; let TMPDIR name a "
               "directory on a disk.";
    const auto path = directory.path() / "mapped";
    writeFileAtomically(path, std::string(much, 'x'));
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const void* start = ::mmap(nullptr, much, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file.get(), 0);
    ASSERT_NE(start, MAP_FAILED);
    EXPECT_FALSE(hasMoreOwnBytesThan(before + much / 2, ::getpid()));
    ::munmap(const_cast<void*>(start), much);
}

TEST(OwnBytesOf, AProcessThatIsGoneAreNone) {
    const pid_t gone = ::fork();
    if (gone == 0) ::_exit(0);
    ::waitpid(gone, nullptr, 0);
    EXPECT_EQ(ownBytes(gone), 0U);
    EXPECT_FALSE(hasMoreOwnBytesThan(0, gone));
}

}  // namespace
}  // namespace brindle::test

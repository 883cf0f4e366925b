#include "system/FileManager.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "support/Files.h"
#include "support/LoweredLimit.h"
#include "support/TemporaryDirectory.h"
#include "system/Descriptor.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

std::function<int(int)>& flushHook() {
    static std::function<int(int)> hook;
    return hook;
}

/// Called before a file is locked.
std::function<void()>& lockHook() {
    static std::function<void()> hook;
    return hook;
}

}  // namespace
}  // namespace brindle

/// Stands in front of the C library's, so that tests see what is flushed and can let it fail.
extern "C" int fsync(int descriptor) {
    const auto& hook = brindle::flushHook();
    return hook ? hook(descriptor) : static_cast<int>(::syscall(SYS_fsync, descriptor));
}

// The system has a structure of the same name.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
extern "C" int flock(int descriptor, int operation) noexcept {
    if (const auto& hook = brindle::lockHook()) hook();
    return static_cast<int>(::syscall(SYS_flock, descriptor, operation));
}
#pragma GCC diagnostic pop

namespace brindle {
namespace {

namespace fs = std::filesystem;
using test::namesIn;
using test::TemporaryDirectory;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

bool isDirectoryDescriptor(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode);
}

class FileManagerTests : public testing::Test {
  protected:
    void TearDown() override {
        flushHook() = nullptr;
        lockHook() = nullptr;
    }

    std::string at(const std::string& name) const { return (directory_.path() / name).string(); }
    void put(const std::string& name, const std::string& content) const {
        std::ofstream(at(name)) << content;
    }
    std::vector<std::string> names() const { return namesIn(directory_.path()); }

    /// The failure of `operation`, which must be one of the file system.
    template <class Operation>
    FileSystemFailure failureOf(Operation operation) {
        try {
            operation();
        } catch (const FileSystemFailure& failure) {
            EXPECT_THAT(std::string(failure.what()), testing::Not(HasSubstr("\n")));
            return failure;
        }
        ADD_FAILURE() << "nothing has failed";
        return {"", "", 0};
    }
    FileSystemFailure readFailure(const std::string& path) {
        return failureOf([&] { files_.readFile(path); });
    }
    FileSystemFailure writeFailure(const std::string& path, std::string_view bytes,
                                   Durability durability = Durability::process) {
        return failureOf([&] { files_.writeFileAtomically(path, bytes, durability); });
    }

    TemporaryDirectory directory_;
    PosixFileManager files_;
};

TEST_F(FileManagerTests, CreatesDirectoriesPrivateToTheUser) {
    files_.createDirectory(at("a/b/c"));
    EXPECT_EQ(modeOf(at("a")), 0700U);
    EXPECT_EQ(modeOf(at("a/b")), 0700U);
    EXPECT_EQ(modeOf(at("a/b/c")), 0700U);
}

TEST_F(FileManagerTests, LeavesExistingDirectoryAsItIs) {
    files_.createDirectory(at("a"));
    ASSERT_EQ(::chmod(at("a").c_str(), 0755), 0);
    files_.createDirectory(at("a"));
    EXPECT_EQ(modeOf(at("a")), 0755U);
}

TEST_F(FileManagerTests, CreatesDirectoryNamedWithTrailingSlash) {
    files_.createDirectory(at("a/b/"));
    EXPECT_TRUE(fs::is_directory(at("a/b")));
}

TEST_F(FileManagerTests, AcceptsLinkToDirectoryAsDirectory) {
    files_.createDirectory(at("real"));
    fs::create_directory_symlink(at("real"), at("link"));
    EXPECT_NO_THROW(files_.createDirectory(at("link")));
}

TEST_F(FileManagerTests, DoesNotCreateDirectoryOverFile) {
    put("a", "");
    EXPECT_EQ(failureOf([&] { files_.createDirectory(at("a")); }).code(), EEXIST);
    EXPECT_EQ(failureOf([&] { files_.createDirectory(at("a/b")); }).code(), ENOTDIR);
}

TEST_F(FileManagerTests, DoesNotCreateDirectoryOverDanglingLink) {
    fs::create_symlink(at("nowhere"), at("link"));
    EXPECT_EQ(failureOf([&] { files_.createDirectory(at("link")); }).code(), EEXIST);
    EXPECT_FALSE(fs::exists(at("nowhere")));
}

TEST_F(FileManagerTests, CreationFailureNamesDirectoryAndReason) {
    const auto name = at(std::string(300, 'x'));
    EXPECT_EQ(failureOf([&] { files_.createDirectory(name); }).what(),
              "Cannot create the directory \"" + name + "\": File name too long.");
}

TEST_F(FileManagerTests, MakesADirectoryPrivate) {
    files_.createDirectory(at("loose"));
    ASSERT_EQ(::chmod(at("loose").c_str(), 01777), 0);
    files_.makePrivate(at("loose"));
    EXPECT_EQ(modeOf(at("loose")), 0700U);
}

TEST_F(FileManagerTests, MakesNothingPrivateThroughALink) {
    files_.createDirectory(at("loose"));
    ASSERT_EQ(::chmod(at("loose").c_str(), 0755), 0);
    fs::create_directory_symlink(at("loose"), at("link"));
    EXPECT_EQ(failureOf([&] { files_.makePrivate(at("link")); }).code(), ENOTDIR);
    EXPECT_EQ(modeOf(at("loose")), 0755U);
}

TEST_F(FileManagerTests, DirectoryThatCannotBeUsedIsTold) {
    files_.requireAccess(directory_.path());
    EXPECT_EQ(failureOf([&] { files_.requireAccess(at("missing")); }).code(), ENOENT);
    files_.createDirectory(at("closed"));
    ASSERT_EQ(::chmod(at("closed").c_str(), 0500), 0);
    // Root may do everything there.
    if (::geteuid() == 0) return;
    EXPECT_EQ(failureOf([&] { files_.requireAccess(at("closed")); }).code(), EACCES);
}

TEST_F(FileManagerTests, ListsVisibleEntriesOnly) {
    put("b.json", "");
    put(".hidden.json", "");
    put("new\nline", "");
    files_.createDirectory(at("sub/inner"));
    EXPECT_THAT(files_.visibleEntries(directory_.path()), UnorderedElementsAre("b.json", "new\nline", "sub"));
}

TEST_F(FileManagerTests, ListsEmptyDirectory) {
    EXPECT_THAT(files_.visibleEntries(directory_.path()), IsEmpty());
}

TEST_F(FileManagerTests, ListingFailureNamesDirectoryAndReason) {
    const auto failure = failureOf([&] { files_.visibleEntries(at("missing")); });
    EXPECT_EQ(failure.code(), ENOENT);
    EXPECT_EQ(failure.what(), "Cannot list \"" + at("missing") + "\": No such file or directory.");
}

TEST_F(FileManagerTests, DoesNotListFile) {
    put("a", "");
    EXPECT_EQ(failureOf([&] { files_.visibleEntries(at("a")); }).code(), ENOTDIR);
}

TEST_F(FileManagerTests, ExistenceFollowsLinks) {
    put("file", "");
    fs::create_symlink(at("file"), at("link"));
    fs::create_symlink(at("nowhere"), at("dangling"));
    EXPECT_TRUE(files_.fileExists(at("file")));
    EXPECT_TRUE(files_.fileExists(at("link")));
    EXPECT_TRUE(files_.fileExists(directory_.path()));
    EXPECT_FALSE(files_.fileExists(at("dangling")));
    EXPECT_FALSE(files_.fileExists(at("missing")));
    EXPECT_FALSE(files_.fileExists(at("file/below")));
    EXPECT_FALSE(files_.fileExists(""));
}

TEST_F(FileManagerTests, OnlyRegularFilesWithExecuteBitAreExecutable) {
    put("plain", "");
    put("program", "");
    ASSERT_EQ(::chmod(at("program").c_str(), 0700), 0);
    fs::create_symlink(at("program"), at("link"));
    EXPECT_TRUE(files_.isExecutableFile(at("program")));
    EXPECT_TRUE(files_.isExecutableFile(at("link")));
    EXPECT_FALSE(files_.isExecutableFile(at("plain")));
    EXPECT_FALSE(files_.isExecutableFile(directory_.path()));
    EXPECT_FALSE(files_.isExecutableFile(at("missing")));
}

TEST_F(FileManagerTests, AttributesTellOwnerPermissionsAndKind) {
    files_.createDirectory(at("directory"));
    const auto directory = files_.attributes(at("directory"));
    ASSERT_TRUE(directory.has_value());
    EXPECT_TRUE(directory->isDirectory);
    EXPECT_EQ(directory->owner, ::geteuid());
    EXPECT_EQ(directory->permissions, 0700U);
    put("file", "");
    ASSERT_EQ(::chmod(at("file").c_str(), 0640), 0);
    const auto file = files_.attributes(at("file"));
    ASSERT_TRUE(file.has_value());
    EXPECT_FALSE(file->isDirectory);
    EXPECT_EQ(file->permissions, 0640U);
}

TEST_F(FileManagerTests, AttributesAreThoseOfALinkItself) {
    fs::create_directory_symlink(directory_.path(), at("link"));
    const auto link = files_.attributes(at("link"));
    ASSERT_TRUE(link.has_value());
    EXPECT_FALSE(link->isDirectory);
}

TEST_F(FileManagerTests, WhatDoesNotExistHasNoAttributes) {
    put("file", "");
    EXPECT_EQ(files_.attributes(at("missing")), std::nullopt);
    EXPECT_EQ(files_.attributes(at("file/below")), std::nullopt);
}

TEST_F(FileManagerTests, UnansweredQuestionForAttributesIsAFailure) {
    EXPECT_EQ(failureOf([&] { files_.attributes(at(std::string(300, 'x'))); }).code(), ENAMETOOLONG);
}

TEST_F(FileManagerTests, ReadsWholeFile) {
    for (const std::size_t size : {0U, 1U, 4096U, 70'000U}) {
        put("file", std::string(size, 'x'));
        EXPECT_EQ(files_.readFile(at("file")), std::string(size, 'x'));
    }
}

TEST_F(FileManagerTests, ReadsBytesAsTheyAre) {
    const std::string bytes("\0\xFF\r\n\x1A", 5);
    put("file", bytes);
    EXPECT_EQ(files_.readFile(at("file")), bytes);
}

TEST_F(FileManagerTests, ReadsFileWhoseSizeIsNotKnownBeforehand) {
    EXPECT_EQ(files_.readFile("/proc/self/comm"), test::readFile("/proc/self/comm"));
    EXPECT_THAT(files_.readFile("/proc/self/status"), HasSubstr("VmPeak:"));
}

TEST_F(FileManagerTests, ReadsThroughLinkToRegularFile) {
    put("file", "text");
    fs::create_symlink(at("file"), at("link"));
    EXPECT_EQ(files_.readFile(at("link")), "text");
}

TEST_F(FileManagerTests, MissingFileIsTellableFromUnreadableOne) {
    EXPECT_EQ(readFailure(at("missing")).code(), ENOENT);
    EXPECT_EQ(readFailure(at("missing")).what(),
              "Cannot read \"" + at("missing") + "\": No such file or directory.");
    fs::create_symlink(at("loop"), at("loop"));
    EXPECT_EQ(readFailure(at("loop")).code(), ELOOP);
}

TEST_F(FileManagerTests, RefusesFileThatWouldEatTheMemory) {
    put("huge", "");
    fs::resize_file(at("huge"), std::uintmax_t{1} << 40U);
    EXPECT_EQ(readFailure(at("huge")).what(), "Cannot read \"" + at("huge") + "\": File too large.");
    fs::resize_file(at("huge"), FileManager::longest_file_bytes + 1);
    EXPECT_EQ(readFailure(at("huge")).code(), EFBIG);
}

TEST_F(FileManagerTests, ReadOfFifoFailsAtOnce) {
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    fs::create_symlink(at("fifo"), at("link"));
    EXPECT_EQ(readFailure(at("fifo")).what(), "Cannot read \"" + at("fifo") + "\": Not a regular file.");
    EXPECT_EQ(readFailure(at("link")).code(), EINVAL);
}

TEST_F(FileManagerTests, ReadOfFifoDoesNotTakeWhatIsInIt) {
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    const Descriptor end(::open(at("fifo").c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    ASSERT_EQ(::write(end.get(), "x", 1), 1);
    readFailure(at("fifo"));
    char byte = 0;
    EXPECT_EQ(::read(end.get(), &byte, 1), 1);
}

TEST_F(FileManagerTests, ReadOfSocketFailsAtOnce) {
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const auto path = at("socket");
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    path.copy(address.sun_path, path.size());
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(readFailure(path).code(), EINVAL);
}

TEST_F(FileManagerTests, ReadOfDeviceFailsAtOnce) {
    EXPECT_EQ(readFailure("/dev/zero").code(), EINVAL);
    fs::create_symlink("/dev/zero", at("link"));
    EXPECT_EQ(readFailure(at("link")).what(), "Cannot read \"" + at("link") + "\": Not a regular file.");
}

TEST_F(FileManagerTests, ReadOfDirectoryFails) {
    EXPECT_EQ(readFailure(directory_.path()).code(), EINVAL);
}

TEST_F(FileManagerTests, ReadOfDanglingLinkFails) {
    fs::create_symlink(at("nowhere"), at("dangling"));
    EXPECT_EQ(readFailure(at("dangling")).code(), ENOENT);
}

TEST_F(FileManagerTests, MessageShowsPathWithLineBreakOnOneLine) {
    EXPECT_EQ(readFailure(at("new\nline\x7F")).what(),
              "Cannot read \"" + at("new?line?") + "\": No such file or directory.");
}

TEST_F(FileManagerTests, MessageShowsPathThatIsNotUtf8AsText) {
    EXPECT_EQ(readFailure(at("\xFF")).what(),
              "Cannot read \"" + at("\uFFFD") + "\": No such file or directory.");
}

class FileManagerWriteTests : public FileManagerTests, public testing::WithParamInterface<Durability> {};

TEST_P(FileManagerWriteTests, WritesNewFilePrivateToTheUser) {
    const auto mask = ::umask(0);
    files_.writeFileAtomically(at("file"), "text", GetParam());
    ::umask(mask);
    EXPECT_EQ(files_.readFile(at("file")), "text");
    EXPECT_EQ(modeOf(at("file")), 0600U);
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_P(FileManagerWriteTests, ReplacesExistingFile) {
    put("file", "a much longer old text");
    files_.writeFileAtomically(at("file"), "new", GetParam());
    EXPECT_EQ(files_.readFile(at("file")), "new");
    EXPECT_EQ(modeOf(at("file")), 0600U);
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_P(FileManagerWriteTests, WritesEmptyAndLargeContent) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{3} << 20U}) {
        files_.writeFileAtomically(at("file"), std::string(size, 'x'), GetParam());
        EXPECT_EQ(files_.readFile(at("file")), std::string(size, 'x'));
    }
}

TEST_P(FileManagerWriteTests, ReplacesLinkAndNotItsTarget) {
    put("target", "old");
    fs::create_symlink(at("target"), at("link"));
    files_.writeFileAtomically(at("link"), "new", GetParam());
    EXPECT_EQ(files_.readFile(at("target")), "old");
    EXPECT_FALSE(fs::is_symlink(at("link")));
    EXPECT_EQ(files_.readFile(at("link")), "new");
}

TEST_P(FileManagerWriteTests, TakesNameAsLongAsTheSystemAllows) {
    const std::string name(255, 'x');
    files_.writeFileAtomically(at(name), "text", GetParam());
    EXPECT_THAT(names(), ElementsAre(name));
}

TEST_P(FileManagerWriteTests, LeavesNothingBehindWhenNameIsTooLong) {
    const auto path = at(std::string(256, 'x'));
    EXPECT_EQ(writeFailure(path, "text", GetParam()).what(),
              "Cannot write \"" + path + "\": File name too long.");
    EXPECT_THAT(names(), IsEmpty());
}

TEST_P(FileManagerWriteTests, LeavesNothingBehindWhenADirectoryHasTheName) {
    files_.createDirectory(at("taken/inner"));
    EXPECT_EQ(writeFailure(at("taken"), "text", GetParam()).code(), EISDIR);
    EXPECT_THAT(names(), ElementsAre("taken"));
}

TEST_P(FileManagerWriteTests, FailsWhenTheDirectoryIsMissing) {
    EXPECT_EQ(writeFailure(at("missing/file"), "text", GetParam()).code(), ENOENT);
    put("file", "");
    EXPECT_EQ(writeFailure(at("file/below"), "text", GetParam()).code(), ENOTDIR);
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_P(FileManagerWriteTests, KeepsOldFileWhenOnlyAPartCouldBeWritten) {
    put("file", "old");
    const auto handler = ::signal(SIGXFSZ, SIG_IGN);
    {
        const test::LoweredLimit limit(RLIMIT_FSIZE, 1000);
        EXPECT_EQ(writeFailure(at("file"), std::string(5000, 'x'), GetParam()).code(), EFBIG);
    }
    ::signal(SIGXFSZ, handler);
    EXPECT_EQ(files_.readFile(at("file")), "old");
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_P(FileManagerWriteTests, PiecesAreSeenTogetherOrNotAtAll) {
    put("file", "old");
    const auto give = [this](const PieceTaker& take) {
        for (const std::string_view piece : {"one ", "", "two ", "three"}) {
            take(piece);
            EXPECT_EQ(files_.readFile(at("file")), "old");
        }
    };
    files_.writePiecesAtomically(at("file"), give, GetParam());
    EXPECT_EQ(files_.readFile(at("file")), "one two three");
    EXPECT_EQ(modeOf(at("file")), 0600U);
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_P(FileManagerWriteTests, KeepsOldFileWhenAPieceCannotBeWritten) {
    put("file", "old");
    const auto handler = ::signal(SIGXFSZ, SIG_IGN);
    const auto give = [](const PieceTaker& take) {
        for (int count = 0; count < 5; ++count) take(std::string(999, 'x'));
    };
    {
        const test::LoweredLimit limit(RLIMIT_FSIZE, 2000);
        const auto failure = failureOf([&] { files_.writePiecesAtomically(at("file"), give, GetParam()); });
        EXPECT_EQ(failure.code(), EFBIG);
    }
    ::signal(SIGXFSZ, handler);
    EXPECT_EQ(files_.readFile(at("file")), "old");
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_P(FileManagerWriteTests, KeepsOldFileWhenThereIsAPieceTooFew) {
    put("file", "old");
    const auto give = [](const PieceTaker& take) {
        take("new");
        throw std::bad_alloc();
    };
    EXPECT_THROW(files_.writePiecesAtomically(at("file"), give, GetParam()), std::bad_alloc);
    EXPECT_EQ(files_.readFile(at("file")), "old");
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_P(FileManagerWriteTests, KeepsOldFileForEveryNumberOfDescriptorsLeft) {
    put("file", "old");
    for (rlim_t left = 0; left < 2; ++left) {
        const int next = Descriptor(::dup(STDERR_FILENO)).get();
        bool failed = false;
        {
            const test::LoweredLimit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next) + left);
            try {
                files_.writeFileAtomically(at("file"), "new", GetParam());
            } catch (const FileSystemFailure& failure) {
                EXPECT_EQ(failure.code(), EMFILE);
                failed = true;
            }
        }
        EXPECT_EQ(files_.readFile(at("file")), failed ? "old" : "new");
        EXPECT_THAT(names(), ElementsAre("file"));
        EXPECT_TRUE(failed || left > 0);
    }
}

TEST_P(FileManagerWriteTests, ReadersSeeOldOrNewContentOnly) {
    const std::string first(100'000, 'a');
    const std::string second(50'000, 'b');
    files_.writeFileAtomically(at("file"), first, GetParam());
    std::atomic<bool> finished = false;
    std::thread writer([&] {
        PosixFileManager own;
        for (int i = 0; i < 100; ++i) own.writeFileAtomically(at("file"), i % 2 ? first : second, GetParam());
        finished = true;
    });
    int torn = 0;
    do {
        const auto seen = files_.readFile(at("file"));
        if (seen != first && seen != second) ++torn;
    } while (!finished);
    writer.join();
    EXPECT_EQ(torn, 0);
}

INSTANTIATE_TEST_SUITE_P(Durabilities, FileManagerWriteTests,
                         testing::Values(Durability::process, Durability::disk), [](const auto& each) {
                             return each.param == Durability::process ? "Process" : "Disk";
                         });

TEST_F(FileManagerTests, FlushesMessageBeforeAndItsNameAfterItIsVisible) {
    std::vector<std::string> flushes;
    flushHook() = [&](int descriptor) {
        const bool visible = fs::exists(at("file"));
        flushes.push_back(std::string(isDirectoryDescriptor(descriptor) ? "directory" : "file") +
                          (visible ? " while visible" : " while hidden"));
        return 0;
    };
    files_.writeFileAtomically(at("file"), "text", Durability::disk);
    EXPECT_THAT(flushes, ElementsAre("file while hidden", "directory while visible"));
}

TEST_F(FileManagerTests, DoesNotFlushWhatIsRewrittenAllTheTime) {
    int flushes = 0;
    flushHook() = [&](int) {
        ++flushes;
        return 0;
    };
    files_.writeFileAtomically(at("file"), "text", Durability::process);
    EXPECT_EQ(flushes, 0);
}

TEST_F(FileManagerTests, MessageThatCannotBeFlushedNeverBecomesVisible) {
    flushHook() = [](int) {
        errno = EIO;
        return -1;
    };
    const auto failure = writeFailure(at("file"), "text", Durability::disk);
    EXPECT_EQ(failure.what(), "Cannot write \"" + at("file") + "\": Input/output error.");
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileManagerTests, MessageWhoseNameCannotBeFlushedIsTakenAway) {
    flushHook() = [](int descriptor) {
        errno = EIO;
        return isDirectoryDescriptor(descriptor) ? -1 : 0;
    };
    EXPECT_EQ(writeFailure(at("file"), "text", Durability::disk).code(), EIO);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileManagerTests, FileSystemThatHasNothingToFlushForDirectoriesIsNoFailure) {
    flushHook() = [](int descriptor) {
        errno = EINVAL;
        return isDirectoryDescriptor(descriptor) ? -1 : 0;
    };
    files_.writeFileAtomically(at("file"), "text", Durability::disk);
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(FileManagerTests, MovesFile) {
    put("from", "text");
    files_.moveItem(at("from"), at("to"));
    EXPECT_THAT(names(), ElementsAre("to"));
    EXPECT_EQ(files_.readFile(at("to")), "text");
}

TEST_F(FileManagerTests, MovesWhatIsNoRegularFile) {
    files_.createDirectory(at("directory/inner"));
    fs::create_symlink(at("nowhere"), at("dangling"));
    files_.createDirectory(at("to"));
    files_.moveItem(at("directory"), at("to/directory"));
    files_.moveItem(at("dangling"), at("to/dangling"));
    EXPECT_THAT(namesIn(at("to")), ElementsAre("dangling", "directory"));
}

TEST_F(FileManagerTests, MoveNeverReplaces) {
    put("from", "new");
    put("to", "old");
    fs::create_symlink(at("nowhere"), at("dangling"));
    for (const auto& target : {at("to"), at("dangling")}) {
        const auto failure = failureOf([&] { files_.moveItem(at("from"), target); });
        EXPECT_EQ(failure.code(), EEXIST);
        EXPECT_EQ(failure.what(), "Cannot move \"" + at("from") + "\" to \"" + target + "\": File exists.");
    }
    EXPECT_EQ(files_.readFile(at("to")), "old");
    EXPECT_EQ(files_.readFile(at("from")), "new");
}

TEST_F(FileManagerTests, MoveOfMissingFileFails) {
    EXPECT_EQ(failureOf([&] { files_.moveItem(at("missing"), at("to")); }).code(), ENOENT);
}

TEST_F(FileManagerTests, MoveIntoMissingDirectoryLeavesFileInPlace) {
    put("from", "text");
    EXPECT_EQ(failureOf([&] { files_.moveItem(at("from"), at("missing/to")); }).code(), ENOENT);
    EXPECT_THAT(names(), ElementsAre("from"));
}

TEST_F(FileManagerTests, RemovesFileLinkAndEmptyDirectory) {
    put("file", "");
    fs::create_symlink(directory_.path(), at("link"));
    files_.createDirectory(at("directory"));
    files_.removeItem(at("file"));
    files_.removeItem(at("link"));
    files_.removeItem(at("directory"));
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileManagerTests, RemovalFailureNamesPathAndReason) {
    EXPECT_EQ(failureOf([&] { files_.removeItem(at("missing")); }).what(),
              "Cannot remove \"" + at("missing") + "\": No such file or directory.");
}

TEST_F(FileManagerTests, DoesNotRemoveDirectoryWithContent) {
    files_.createDirectory(at("a/b"));
    failureOf([&] { files_.removeItem(at("a")); });
    EXPECT_TRUE(fs::exists(at("a/b")));
}

TEST_F(FileManagerTests, RemoveIfPresentNeverFails) {
    put("file", "");
    files_.createDirectory(at("a/b"));
    files_.removeIfPresent(at("file"));
    files_.removeIfPresent(at("missing"));
    files_.removeIfPresent(at("a"));
    EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(FileManagerTests, LockedDirectoryIsLockedForEverybodyElse) {
    auto lock = files_.lockDirectory(directory_.path());
    EXPECT_EQ(failureOf([&] { files_.lockDirectory(directory_.path()); }).code(), EWOULDBLOCK);
    lock.reset();
    EXPECT_TRUE(files_.lockDirectory(directory_.path()).isOpen());
}

TEST_F(FileManagerTests, LockIsNotPassedOnToPrograms) {
    const auto lock = files_.lockDirectory(directory_.path());
    EXPECT_EQ(::fcntl(lock.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(FileManagerTests, LockFollowsALink) {
    fs::create_directory_symlink(directory_.path(), at("link"));
    const auto lock = files_.lockDirectory(at("link"));
    EXPECT_EQ(failureOf([&] { files_.lockDirectory(directory_.path()); }).code(), EWOULDBLOCK);
}

TEST_F(FileManagerTests, LockOfADirectoryThatWasReplacedMeanwhileIsNone) {
    files_.createDirectory(at("a"));
    lockHook() = [this] {
        fs::rename(at("a"), at("old"));
        files_.createDirectory(at("a"));
    };
    EXPECT_EQ(failureOf([&] { files_.lockDirectory(at("a")); }).code(), ESTALE);
}

TEST_F(FileManagerTests, LockOfADirectoryThatVanishedMeanwhileIsNone) {
    files_.createDirectory(at("a"));
    lockHook() = [this] { fs::remove(at("a")); };
    EXPECT_EQ(failureOf([&] { files_.lockDirectory(at("a")); }).code(), ESTALE);
}

TEST_F(FileManagerTests, OnlyADirectoryIsLocked) {
    put("file", "");
    EXPECT_EQ(failureOf([&] { files_.lockDirectory(at("file")); }).code(), ENOTDIR);
    EXPECT_EQ(failureOf([&] { files_.lockDirectory(at("missing")); }).code(), ENOENT);
}

TEST_F(FileManagerTests, AttributesTellObjectsApart) {
    put("a", "");
    put("b", "");
    const auto a = files_.attributes(at("a"));
    const auto b = files_.attributes(at("b"));
    EXPECT_EQ(a->device, b->device);
    EXPECT_NE(a->inode, b->inode);
    EXPECT_EQ(a->inode, files_.attributes(at("a"))->inode);
}

TEST_F(FileManagerTests, AttributesTellWhatIsThere) {
    put("file", "text");
    files_.createDirectory(at("directory"));
    fs::create_symlink("file", at("link"));
    EXPECT_TRUE(files_.attributes(at("file"))->isRegularFile);
    EXPECT_FALSE(files_.attributes(at("directory"))->isRegularFile);
    EXPECT_FALSE(files_.attributes(at("link"))->isRegularFile);
}

TEST_F(FileManagerTests, ModificationCanBeSetAndStatusChangeCannot) {
    put("file", "text");
    const auto before = files_.attributes(at("file"));
    fs::last_write_time(at("file"), fs::last_write_time(at("file")) - std::chrono::hours(1));
    const auto after = files_.attributes(at("file"));
    EXPECT_EQ(after->modification, before->modification - std::chrono::hours(1));
    EXPECT_GE(after->statusChange, before->statusChange);
}

TEST_F(FileManagerTests, SpaceThatAFileTakesIsKnown) {
    constexpr std::size_t bytes = 1U << 20U;
    files_.writeFileAtomically(at("file"), std::string(bytes, 'x'), Durability::disk);
    EXPECT_GE(files_.attributes(at("file"))->allocatedBytes, bytes);
}

TEST_F(FileManagerTests, ReadsADirectoryNameByName) {
    put("a", "");
    put(".b", "");
    files_.createDirectory(at("c"));
    const auto reader = files_.readDirectory(directory_.path());
    std::vector<std::string> found;
    while (auto name = reader->next()) found.push_back(*std::move(name));
    EXPECT_THAT(found, UnorderedElementsAre("a", ".b", "c"));
    EXPECT_EQ(failureOf([&] { files_.readDirectory(at("a")); }).code(), ENOTDIR);
}

TEST_F(FileManagerTests, SizeOfTheFileSystemIsKnown) {
    struct statvfs status {};
    ASSERT_EQ(::statvfs(directory_.path().c_str(), &status), 0);
    EXPECT_EQ(files_.fileSystemBytes(directory_.path()), std::uintmax_t{status.f_blocks} * status.f_frsize);
    EXPECT_EQ(failureOf([&] { files_.fileSystemBytes(at("missing")); }).code(), ENOENT);
}

TEST_F(FileManagerTests, UnfinishedFilesAreKnownByTheirNames) {
    EXPECT_TRUE(isTemporaryName(".brindle-a1B2c3"));
    for (const char* name : {".brindle-a1B2c", ".brindle-a1B2c34", "brindle-a1B2c3", ".brindle.a1B2c3", ""}) {
        EXPECT_FALSE(isTemporaryName(name)) << name;
    }
}

TEST_F(FileManagerTests, LeavesNoDescriptorOpen) {
    const auto countOpen = [] { return namesIn("/proc/self/fd").size(); };
    const auto before = countOpen();
    files_.writeFileAtomically(at("file"), "text", Durability::disk);
    files_.readFile(at("file"));
    files_.visibleEntries(directory_.path());
    readFailure(at("missing"));
    writeFailure(at(std::string(256, 'x')), "text", Durability::disk);
    EXPECT_EQ(countOpen(), before);
}

}  // namespace
}  // namespace brindle

#include "system/PosixDirectory.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "system/FileManager.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
using test::namesIn;
using testing::ElementsAre;
using testing::IsEmpty;

class PosixDirectoryTests : public testing::Test {
  protected:
    std::string at(const std::string& name) const { return (home_.path() / name).string(); }
    void put(const std::string& name, const std::string& content) const {
        std::ofstream(at(name)) << content;
    }
    PosixDirectory open() const { return PosixDirectory(home_.path()); }
    /// What the listing tells of a name.
    DirectoryEntry entry(const std::string& name) const {
        for (auto& each : open().list().visibleEntries) {
            if (each.name == name) return each;
        }
        ADD_FAILURE() << name << " is not listed";
        return {};
    }
    std::string read(const DirectoryEntry& entry) {
        std::string content = "what was there before";
        open().readFile(entry, content);
        return content;
    }
    FileSystemFailure readFailure(const DirectoryEntry& entry) {
        try {
            read(entry);
        } catch (const FileSystemFailure& failure) {
            return failure;
        }
        ADD_FAILURE() << "nothing has failed";
        return {"", "", 0};
    }

    test::TemporaryDirectory home_;
};

TEST_F(PosixDirectoryTests, ListingTellsInodesAndWhichEntriesAreRegularFiles) {
    put("a.json", "text");
    fs::create_directory(at("b.json"));
    fs::create_symlink("a.json", at("c.json"));
    ASSERT_EQ(::mkfifo(at("d.json").c_str(), 0600), 0);
    EXPECT_TRUE(entry("a.json").isRegularFile);
    for (const auto* name : {"b.json", "c.json", "d.json"}) EXPECT_FALSE(entry(name).isRegularFile) << name;
    struct stat status {};
    ASSERT_EQ(::lstat(at("a.json").c_str(), &status), 0);
    EXPECT_EQ(entry("a.json").inode, status.st_ino);
}

TEST_F(PosixDirectoryTests, ListsMoreEntriesThanFitIntoOneCall) {
    for (int i = 0; i < 3000; ++i) put(std::to_string(i), "");
    const auto listing = open().list();
    std::set<std::string> names;
    for (const auto& each : listing.visibleEntries) names.insert(each.name);
    EXPECT_EQ(listing.visibleEntries.size(), 3000U);
    EXPECT_EQ(names.size(), 3000U);
    EXPECT_FALSE(listing.isSnapshot);
}

TEST_F(PosixDirectoryTests, ListingThatFitsIntoOneCallIsASnapshot) {
    EXPECT_TRUE(open().list().isSnapshot);
    for (int i = 0; i < 100; ++i) put(std::to_string(i), "");
    EXPECT_TRUE(open().list().isSnapshot);
}

TEST_F(PosixDirectoryTests, EveryListingShowsWhatIsThereThen) {
    auto directory = open();
    EXPECT_THAT(directory.list().visibleEntries, IsEmpty());
    put("a", "");
    EXPECT_EQ(directory.list().visibleEntries.size(), 1U);
    EXPECT_EQ(directory.list().visibleEntries.size(), 1U);
    fs::remove(at("a"));
    EXPECT_THAT(directory.list().visibleEntries, IsEmpty());
}

TEST_F(PosixDirectoryTests, DirectoryThatIsNotThereCannotBeOpened) {
    try {
        const PosixDirectory directory(at("missing"));
        FAIL() << "there is nothing to open";
    } catch (const FileSystemFailure& failure) {
        EXPECT_EQ(failure.code(), ENOENT);
        EXPECT_EQ(failure.what(), "Cannot list \"" + at("missing") + "\": No such file or directory.");
    }
}

TEST_F(PosixDirectoryTests, AttributesTellOneContentFromTheNext) {
    put("a", "text");
    auto directory = open();
    const auto before = directory.attributesOf("a");
    ASSERT_TRUE(before);
    EXPECT_TRUE(before->isRegularFile);
    EXPECT_EQ(before->bytes, 4U);
    put("a", "a longer text");
    EXPECT_NE(directory.attributesOf("a")->bytes, before->bytes);
    EXPECT_EQ(directory.attributesOf("missing"), std::nullopt);
    EXPECT_TRUE(directory.attributes().isDirectory);
}

TEST_F(PosixDirectoryTests, ReadsWholeFilesIntoTheSameMemory) {
    auto directory = open();
    std::string content;
    for (const std::size_t size : {70'000U, 4096U, 1U, 0U}) {
        put("a", std::string(size, 'x'));
        const auto attributes = directory.readFile(entry("a"), content);
        EXPECT_EQ(content, std::string(size, 'x'));
        EXPECT_EQ(attributes.bytes, size);
        EXPECT_EQ(attributes.inode, entry("a").inode);
    }
}

TEST_F(PosixDirectoryTests, ReadsThroughLinkToRegularFile) {
    put("a", "text");
    fs::create_symlink("a", at("link"));
    EXPECT_EQ(read(entry("link")), "text");
}

TEST_F(PosixDirectoryTests, WhatIsNoRegularFileIsNeverOpened) {
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    fs::create_symlink("/dev/zero", at("device"));
    fs::create_directory(at("directory"));
    for (const auto* name : {"fifo", "device", "directory"}) {
        EXPECT_EQ(readFailure(entry(name)).what(), "Cannot read \"" + at(name) + "\": Not a regular file.");
    }
}

TEST_F(PosixDirectoryTests, FileWhosePlaceALinkHasTakenSinceTheListingIsLookedAtFirst) {
    put("a", "text");
    const auto listed = entry("a");
    fs::rename(at("a"), at("b"));
    fs::create_symlink("/dev/zero", at("a"));
    EXPECT_EQ(readFailure(listed).code(), EINVAL);
    fs::remove(at("a"));
    fs::create_symlink("b", at("a"));
    EXPECT_EQ(read(listed), "text");
}

TEST_F(PosixDirectoryTests, FileWhosePlaceAFifoHasTakenSinceTheListingKeepsNobodyWaiting) {
    put("a", "text");
    const auto listed = entry("a");
    fs::remove(at("a"));
    ASSERT_EQ(::mkfifo(at("a").c_str(), 0600), 0);
    EXPECT_EQ(readFailure(listed).code(), EINVAL);
}

TEST_F(PosixDirectoryTests, RefusesFileThatWouldEatTheMemory) {
    put("huge", "");
    fs::resize_file(at("huge"), FileManager::longest_file_bytes + 1);
    EXPECT_EQ(readFailure(entry("huge")).what(), "Cannot read \"" + at("huge") + "\": File too large.");
}

TEST_F(PosixDirectoryTests, WorksOnInADirectoryThatWasMovedAway) {
    fs::create_directory(at("old"));
    put("old/a.json", "text");
    PosixDirectory directory(at("old"));
    fs::rename(at("old"), at("new"));
    std::string content;
    directory.readFile({.name = "a.json", .inode = 0, .isRegularFile = true}, content);
    EXPECT_EQ(content, "text");
    directory.moveItem("a.json", at("b.json"));
    EXPECT_THAT(namesIn(home_.path()), ElementsAre("b.json", "new"));
}

TEST_F(PosixDirectoryTests, MoveReplacesNothing) {
    put("a", "mine");
    put("b", "other");
    try {
        open().moveItem("a", at("b"));
        FAIL() << "the name is taken";
    } catch (const FileSystemFailure& failure) {
        EXPECT_EQ(failure.code(), EEXIST);
        EXPECT_EQ(failure.what(), "Cannot move \"" + at("a") + "\" to \"" + at("b") + "\": File exists.");
    }
    EXPECT_EQ(test::readFile(at("a")), "mine");
    EXPECT_EQ(test::readFile(at("b")), "other");
}

}  // namespace
}  // namespace brindle

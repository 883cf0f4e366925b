#include "system/DirectoryWalk.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/TemporaryDirectory.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

using testing::IsEmpty;
using testing::UnorderedElementsAre;

class DirectoryWalkTests : public testing::Test {
  protected:
    std::string at(const std::string& name) const { return (home_.path() / name).string(); }
    std::string makeDirectory(const std::string& name, const std::vector<std::string>& files) const {
        std::filesystem::create_directories(at(name));
        for (const auto& file : files) std::ofstream(at(name) + "/" + file) << "";
        return at(name);
    }
    /// What is left of a walk, as "0 path".
    static std::vector<std::string> rest(DirectoryWalk& walk) {
        std::vector<std::string> found;
        while (const auto entry = walk.next()) {
            EXPECT_TRUE(entry->path.ends_with("/" + entry->name));
            found.push_back(std::to_string(entry->directory) + " " + entry->path);
        }
        return found;
    }

    test::TemporaryDirectory home_;
    PosixFileManager files_;
};

TEST_F(DirectoryWalkTests, GoesThroughOneDirectoryAfterTheOther) {
    DirectoryWalk walk(files_,
                       {makeDirectory("a", {"1", ".2"}), makeDirectory("b", {}), makeDirectory("c", {"3"})});
    EXPECT_THAT(rest(walk), UnorderedElementsAre("0 " + at("a/1"), "0 " + at("a/.2"), "2 " + at("c/3")));
    EXPECT_EQ(walk.next(), std::nullopt);
}

TEST_F(DirectoryWalkTests, GoesOnBehindADirectoryThatCannotBeRead) {
    DirectoryWalk walk(files_, {at("missing"), makeDirectory("b", {"1"})});
    try {
        walk.next();
        ADD_FAILURE() << "no failure";
    } catch (const FileSystemFailure& failure) {
        EXPECT_EQ(failure.code(), ENOENT);
    }
    EXPECT_THAT(rest(walk), UnorderedElementsAre("1 " + at("b/1")));
}

TEST_F(DirectoryWalkTests, WhatItGoesThroughMayBeRemovedOnTheWay) {
    std::vector<std::string> names;
    for (int count = 0; count < 3000; ++count) names.push_back(std::to_string(count));
    DirectoryWalk walk(files_, {makeDirectory("a", names)});
    while (const auto entry = walk.next()) files_.removeItem(entry->path);
    EXPECT_THAT(files_.visibleEntries(at("a")), IsEmpty());
}

TEST_F(DirectoryWalkTests, NoDirectoriesHaveNoEntries) {
    DirectoryWalk walk(files_, {});
    EXPECT_EQ(walk.next(), std::nullopt);
}

}  // namespace
}  // namespace brindle

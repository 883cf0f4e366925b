#include "console/CommandInput.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "system/Descriptor.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

using testing::HasSubstr;

class ScriptInputTest : public testing::Test {
  protected:
    std::string scriptWith(std::string_view content) {
        const auto file = directory_.path() / "check.console";
        test::writeFileAtomically(file, content);
        return file.string();
    }

    test::TemporaryDirectory directory_;
};

TEST_F(ScriptInputTest, GivesCommandsWithTheirPlaces) {
    const auto path = scriptWith("# a comment\n\nconnect\nquit");
    ScriptInput script(path);
    const auto first = script.next();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->text, "connect");
    EXPECT_EQ(first->place, path + ":3");
    EXPECT_FALSE(script.isAtEnd());
    const auto second = script.next();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->text, "quit");
    EXPECT_EQ(second->place, path + ":4");
    EXPECT_TRUE(script.isAtEnd());
    EXPECT_FALSE(script.next());
}

TEST_F(ScriptInputTest, IsCheckedWholeBeforeItRuns) {
    const auto path = scriptWith("connect\nexpect nothing\n");
    try {
        const ScriptInput script(path);
        FAIL() << "The script was accepted.";
    } catch (const Failure& failure) {
        EXPECT_THAT(failure.what(), HasSubstr(path + ":2: The helper sends no envelope \"nothing\""));
    }
}

TEST_F(ScriptInputTest, RefusesAMissingFile) {
    EXPECT_THROW(ScriptInput("/no/such/script"), Failure);
}

class StreamInputTest : public testing::Test {
  protected:
    void SetUp() override {
        std::array<int, 2> ends{};
        ASSERT_EQ(::pipe(ends.data()), 0);
        read_ = Descriptor(ends[0]);
        write_ = Descriptor(ends[1]);
    }
    void write(std::string_view text) const {
        ASSERT_EQ(::write(write_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    Descriptor read_;
    Descriptor write_;
};

TEST_F(StreamInputTest, GivesLinesAsTheyComeAndALastOneWithoutLineFeed) {
    StreamInput input(read_.get(), "standard input", false);
    EXPECT_FALSE(input.next());
    write("connect\nqu");
    input.receive();
    const auto first = input.next();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->text, "connect");
    EXPECT_EQ(first->place, "standard input:1");
    EXPECT_FALSE(input.next());
    EXPECT_FALSE(input.isAtEnd());
    write_.reset();
    input.receive();
    input.receive();
    const auto last = input.next();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->text, "qu");
    EXPECT_EQ(last->place, "standard input:2");
    EXPECT_FALSE(input.next());
    EXPECT_TRUE(input.isAtEnd());
}

TEST_F(StreamInputTest, HasNoPlacesForAPerson) {
    StreamInput input(read_.get(), "standard input", true);
    write("connect\n");
    input.receive();
    const auto line = input.next();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->place, "");
}

}  // namespace
}  // namespace brindle::console

#include "console/Recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

class RecordingTest : public testing::Test {
  protected:
    std::string file() const { return (directory_.path() / "session.jsonl").string(); }

    /// Why a file of that content cannot be used.
    std::string refusal(std::string_view content) {
        test::writeFileAtomically(file(), content);
        try {
            readRecording(files_, file());
        } catch (const Failure& failure) {
            return failure.what();
        }
        return "(read)";
    }

    const std::string firstLine_ = R"({"milliseconds":0,"direction":"toHelper","line":"x"})"
                                   "\n";
    test::TemporaryDirectory directory_;
    PosixFileManager files_;
};

TEST_F(RecordingTest, IsReadBackAsItWas) {
    {
        Recording recording(file(), "secret");
        recording.add(Direction::toHelper, R"({"connect":{}})");
        recording.add(Direction::fromHelper, "garbage \"\\ \x01");
    }
    const auto lines = readRecording(files_, file());
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0].isToHelper());
    EXPECT_EQ(lines[0].line, R"({"connect":{}})");
    EXPECT_FALSE(lines[1].isToHelper());
    EXPECT_EQ(lines[1].line, "garbage \"\\ \x01");
    EXPECT_GE(lines[1].milliseconds, lines[0].milliseconds);
}

TEST_F(RecordingTest, IsThisUsersAlone) {
    const Recording recording(file(), "secret");
    EXPECT_EQ(fs::status(file()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(RecordingTest, ReplacesNothing) {
    test::writeFileAtomically(file(), "mine");
    try {
        const Recording recording(file(), "secret");
        FAIL() << "The file was replaced.";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.what(),
                  "The recording " + file() +
                      " exists already and is not replaced; name another file, or remove that one.");
    }
    EXPECT_EQ(test::readFile(file()), "mine");
}

TEST_F(RecordingTest, NeverHoldsTheSecret) {
    Recording recording(file(), "secret");
    recording.add(Direction::fromHelper, "a secret in a secret line");
    EXPECT_THAT(test::readFile(file()), Not(HasSubstr("secret")));
    EXPECT_THAT(test::readFile(file()), HasSubstr("a (launch token) in a"));
}

TEST_F(RecordingTest, SaysWhichLineIsNone) {
    EXPECT_THAT(refusal(firstLine_ + "nonsense\n"), HasSubstr("Line 2 of"));
    EXPECT_THAT(refusal(R"({"milliseconds":0,"direction":"sideways","line":"x"})"
                        "\n"),
                HasSubstr("Line 1 of"));
    for (const std::string time : {"-1", "9223372036854775807"}) {
        EXPECT_THAT(
            refusal(firstLine_ + R"({"direction":"toHelper","line":"x","milliseconds":)" + time + "}\n"),
            HasSubstr("is no line of a recording"));
    }
}

TEST_F(RecordingTest, ThatWasCutOffIsNotTakenForAWholeOne) {
    EXPECT_THAT(refusal(firstLine_ + firstLine_.substr(0, 20)), HasSubstr("Line 2 of"));
    EXPECT_THAT(refusal("hello"), HasSubstr("is not complete"));
    EXPECT_THAT(refusal(""), HasSubstr("there is nothing to replay"));
}

}  // namespace
}  // namespace brindle::console

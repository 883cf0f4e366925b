#include "exchange/RecordReader.h"

#include <gtest/gtest.h>

#include <string>

#include "exchange/ExchangeRecords.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "support/WantOfMemory.h"
#include "system/FileManager.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

class RecordReaderTests : public testing::Test {
  protected:
    /// A control record whose platform is that text.
    void put(const std::string& name, const std::string& platform) {
        test::writeFileAtomically(home_.path() / name,
                                  R"({"platform":")" + platform + R"(","updatedAtISO8601":""})");
    }
    RecordReader::Result<ManagedWhatsAppWorkerControlRecord> read(const std::string& name) {
        return reader_.read<ManagedWhatsAppWorkerControlRecord>(
            *directory_, {.name = name, .inode = 0, .isRegularFile = true});
    }

    test::TemporaryDirectory home_;
    PosixFileManager files_;
    std::unique_ptr<Directory> directory_ = files_.openDirectory(home_.path());
    RecordReader reader_;
};

TEST_F(RecordReaderTests, ReadsOneRecordAfterTheOther) {
    put("long.json", std::string(5000, 'x'));
    put("short.json", "y");
    EXPECT_EQ(read("long.json").record.platform, std::string(5000, 'x'));
    EXPECT_EQ(read("short.json").record.platform, "y");
}

TEST_F(RecordReaderTests, TellsTheAttributesOfWhatWasRead) {
    put("a.json", "x");
    const auto found = directory_->attributesOf("a.json");
    const auto attributes = read("a.json").attributes;
    EXPECT_EQ(attributes.inode, found->inode);
    EXPECT_EQ(attributes.statusChange, found->statusChange);
    EXPECT_EQ(attributes.bytes, found->bytes);
}

TEST_F(RecordReaderTests, GoesOnAfterARecordThatCannotBeRead) {
    test::writeFileAtomically(home_.path() / "wrong.json", "{");
    put("right.json", "x");
    EXPECT_THROW(read("wrong.json"), DecodingFailure);
    EXPECT_THROW(read("missing.json"), FileSystemFailure);
    EXPECT_EQ(read("right.json").record.platform, "x");
}

TEST_F(RecordReaderTests, LargeRecordIsParsedWhereItWasRead) {
    constexpr std::size_t large = std::size_t{8} << 20U;
    put("large.json", std::string(large, 'x'));
    // A record that is read by path is copied into the parser's memory first.
    int copied = 0;
    {
        const test::LargePieces pieces(large);
        readRecord<ManagedWhatsAppWorkerControlRecord>(files_, home_.path() / "large.json");
        copied = pieces.count();
    }
    const test::LargePieces pieces(large);
    EXPECT_EQ(read("large.json").record.platform.size(), large);
    EXPECT_LT(pieces.count(), copied);
}

}  // namespace
}  // namespace brindle

#include "console/Attachment.h"

#include <gtest/gtest.h>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

using namespace std::string_view_literals;

class Attachment : public testing::Test {
  protected:
    BridgeAttachment attachmentWith(const std::string& name, std::string_view content) {
        const auto file = directory_.path() / name;
        test::writeFileAtomically(file, content);
        return attachmentFromFile(fileManager_, file.string());
    }

    test::TemporaryDirectory directory_;
    PosixFileManager fileManager_;
};

// The first bytes of each format are what tells its type.
constexpr auto png_content = "\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x01\0\0\0\x01\x08\x06\0\0\0"sv;
constexpr auto wav_content =
    "RIFF\x24\0\0\0WAVEfmt \x10\0\0\0\x01\0\x01\0\x44\xac\0\0\x88X\x01\0\x02\0\x10\0"sv;
constexpr auto mp4_content =
    "\0\0\0\x20"
    "ftypisom\0\0\x02\0isomiso2avc1mp41"sv;

TEST_F(Attachment, OfAnImageKnowsItsKindWhateverTheName) {
    const auto attachment = attachmentWith("picture.txt", png_content);
    EXPECT_EQ(attachment.kind, "image");
    EXPECT_EQ(attachment.mimeType, "image/png");
    EXPECT_EQ(attachment.fileName, "picture.txt");
}

TEST_F(Attachment, OfSoundAndVideoKnowsItsKind) {
    EXPECT_EQ(attachmentWith("a", wav_content).kind, "audio");
    EXPECT_EQ(attachmentWith("v", mp4_content).kind, "video");
}

TEST_F(Attachment, OfAnythingElseIsADocument) {
    const auto attachment = attachmentWith("notes.png", "Plain words.\n");
    EXPECT_EQ(attachment.kind, "document");
    EXPECT_EQ(attachment.mimeType, "text/plain");
}

TEST_F(Attachment, CarriesTheContentAsBase64AndNothingElse) {
    const auto attachment = attachmentWith("a.txt", "hello");
    EXPECT_EQ(attachment.dataBase64, "aGVsbG8=");
    EXPECT_EQ(attachment.id, std::nullopt);
    EXPECT_EQ(attachment.localPath, std::nullopt);
    EXPECT_EQ(attachment.caption, std::nullopt);
}

TEST_F(Attachment, OfAnEmptyFileIsEmpty) {
    const auto attachment = attachmentWith("empty", "");
    EXPECT_EQ(attachment.dataBase64, "");
    EXPECT_EQ(attachment.kind, "document");
}

TEST_F(Attachment, OfAMissingFileOrADirectoryIsRefused) {
    EXPECT_THROW(attachmentFromFile(fileManager_, (directory_.path() / "none").string()), Failure);
    EXPECT_THROW(attachmentFromFile(fileManager_, directory_.path().string()), Failure);
}

TEST(AttachmentKind, FollowsTheFamilyOfTheType) {
    EXPECT_EQ(attachmentKind("image/webp"), "image");
    EXPECT_EQ(attachmentKind("video/mp4"), "video");
    EXPECT_EQ(attachmentKind("audio/ogg"), "audio");
    EXPECT_EQ(attachmentKind("application/pdf"), "document");
    EXPECT_EQ(attachmentKind("imagery/x"), "document");
    EXPECT_EQ(attachmentKind(""), "document");
}

}  // namespace
}  // namespace brindle::console

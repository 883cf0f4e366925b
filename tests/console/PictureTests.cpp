#include "console/Picture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/QRPictures.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string refusalOfPicture(std::string_view bytes) {
    try {
        pictureFromPng(bytes);
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "(accepted)";
}

/// A PNG with another width in its header. The check sum of the header does not fit any more.
std::string withWidth(std::string png, std::uint32_t width) {
    constexpr std::size_t width_offset = 16;
    for (std::size_t i = 0; i < 4; ++i) png[width_offset + i] = static_cast<char>(width >> (24 - 8 * i));
    return png;
}

TEST(Picture, IsDecodedFromPng) {
    const auto picture = pictureFromPng(test::pngOf(test::smallQRCode(), {.dark = 30, .light = 200}));
    EXPECT_EQ(picture.width, 25U * 4 + 2 * 16);
    EXPECT_EQ(picture.height, picture.width);
    EXPECT_EQ(picture.at(0, 0), 200);
    EXPECT_EQ(picture.at(16, 16), 30);
    EXPECT_EQ(picture.at(picture.width - 17, 16), 30);
}

TEST(Picture, LiesOnWhiteWhereItIsTransparent) {
    const auto picture =
        pictureFromPng(test::pngOf(test::smallQRCode(), {.light = 0, .isTransparent = true}));
    EXPECT_EQ(picture.at(0, 0), 255);
    EXPECT_EQ(picture.at(16, 16), 0);
}

TEST(Picture, RefusesWhatIsNoPng) {
    EXPECT_EQ(refusalOfPicture(""), "is not a PNG picture");
    EXPECT_EQ(refusalOfPicture("GIF89a"), "is not a PNG picture");
    EXPECT_EQ(refusalOfPicture("\x89PNG"), "is not a PNG picture");
}

TEST(Picture, RefusesEveryPartOfAPng) {
    const auto png = test::pngOf(test::smallQRCode());
    constexpr std::size_t signature_length = 8;
    // What follows the pixels may be missing.
    const auto pixelsEnd = png.rfind("IEND") - 8;
    for (std::size_t length = signature_length; length < pixelsEnd; ++length) {
        EXPECT_THAT(refusalOfPicture(png.substr(0, length)), StartsWith("is not a whole PNG picture ("))
            << length;
    }
}

TEST(Picture, RefusesDamage) {
    const auto png = test::pngOf(test::smallQRCode());
    EXPECT_THAT(refusalOfPicture(withWidth(png, 1)), StartsWith("is not a whole PNG picture ("));
    EXPECT_THAT(refusalOfPicture(withWidth(png, 0x7FFFFFFF)), StartsWith("is not a whole PNG picture ("));
}

TEST(Picture, RefusesToTakeTheMemoryOfAHugeOne) {
    EXPECT_EQ(refusalOfPicture(test::blankPng(longest_picture_side + 1, 1)),
              "is too large a picture to be a QR code");
    EXPECT_EQ(refusalOfPicture(test::blankPng(1, longest_picture_side + 1)),
              "is too large a picture to be a QR code");
    EXPECT_EQ(refusalOfPicture(test::blankPng(longest_picture_side, 1)), "(accepted)");
}

TEST(Picture, RefusesALongFile) {
    auto png = test::pngOf(test::smallQRCode());
    png.resize(longest_picture_bytes + 1);
    EXPECT_EQ(refusalOfPicture(png), "is too long to be a QR code");
}

}  // namespace
}  // namespace brindle::console

#include "console/QRCode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/QRPictures.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

using test::largeQRCode;
using test::pngOf;
using test::QRPictureStyle;
using test::SampleQRCode;
using test::scannedTerminal;
using test::smallQRCode;
using testing::HasSubstr;
using testing::Not;

std::string contentOf(const SampleQRCode& code, const QRPictureStyle& style = {}) {
    return qrCodeContent(pictureFromPng(pngOf(code, style))).value_or("(none)");
}

std::string shown(const SampleQRCode& code, bool inColor) {
    return QRCode(code.content).text(inColor);
}

TEST(QRCodeContent, IsReadAtEveryScale) {
    for (const std::size_t scale : {2U, 3U, 5U, 16U}) {
        EXPECT_EQ(contentOf(smallQRCode(), {.pixelsPerModule = scale}), smallQRCode().content) << scale;
        EXPECT_EQ(contentOf(largeQRCode(), {.pixelsPerModule = scale}), largeQRCode().content) << scale;
    }
}

TEST(QRCodeContent, IsReadWithAnyMargin) {
    for (const std::size_t margin : {0U, 1U, 7U, 200U}) {
        EXPECT_EQ(contentOf(smallQRCode(), {.marginPixels = margin}), smallQRCode().content) << margin;
        EXPECT_EQ(contentOf(largeQRCode(), {.marginPixels = margin}), largeQRCode().content) << margin;
    }
}

TEST(QRCodeContent, IsReadInPaleColorsAndLightOnDark) {
    EXPECT_EQ(contentOf(largeQRCode(), {.dark = 90, .light = 180}), largeQRCode().content);
    EXPECT_EQ(contentOf(largeQRCode(), {.dark = 240, .light = 10}), largeQRCode().content);
    EXPECT_EQ(contentOf(largeQRCode(), {.light = 0, .isTransparent = true}), largeQRCode().content);
}

TEST(QRCodeContent, IsNoneWhereThereIsNoCode) {
    EXPECT_FALSE(qrCodeContent(pictureFromPng(test::blankPng(300, 300))));
    EXPECT_FALSE(qrCodeContent(pictureFromPng(test::blankPng(1, 1))));
    const SampleQRCode square{.content = "", .rows = std::vector<std::string>(21, std::string(21, '#'))};
    EXPECT_EQ(contentOf(square), "(none)");
}

TEST(QRCode, OfTooMuchIsRefused) {
    EXPECT_THROW(QRCode(std::string(4000, 'x')), Failure);
}

TEST(QRCodeText, IsScannedFromATerminalWithoutColors) {
    EXPECT_EQ(scannedTerminal(shown(smallQRCode(), false)), smallQRCode().content);
    EXPECT_EQ(scannedTerminal(shown(largeQRCode(), false)), largeQRCode().content);
}

TEST(QRCodeText, IsScannedFromATerminalWithColors) {
    EXPECT_EQ(scannedTerminal(shown(smallQRCode(), true)), smallQRCode().content);
    EXPECT_EQ(scannedTerminal(shown(largeQRCode(), true)), largeQRCode().content);
}

TEST(QRCodeText, WithoutColorsHasBlocksOnly) {
    EXPECT_THAT(shown(smallQRCode(), false), Not(HasSubstr("\033")));
    EXPECT_THAT(shown(smallQRCode(), true), HasSubstr("\033["));
}

TEST(QRCodeText, HasTheQuietZoneAndTwoModulesInACharacter) {
    const auto text = shown(smallQRCode(), false);
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const auto end = text.find('\n', begin);
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    const auto repeated = [](std::size_t count) {
        std::string result;
        for (std::size_t i = 0; i < count; ++i) result += "\u2588";
        return result;
    };
    // 25 modules and 4 light ones on either side.
    constexpr std::size_t columns = 33;
    ASSERT_EQ(lines.size(), (columns + 1) / 2);
    EXPECT_EQ(QRCode(smallQRCode().content).textColumns(), columns);
    for (const std::size_t line : {0U, 1U, 15U, 16U}) EXPECT_EQ(lines[line], repeated(columns)) << line;
    EXPECT_THAT(lines[2], testing::StartsWith(repeated(4) + " "));
    EXPECT_THAT(lines[2], testing::EndsWith(" " + repeated(4)));
}

}  // namespace
}  // namespace brindle::console

#include "console/QRCode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/QRPictures.h"

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

std::optional<QRCode> codeIn(const std::string& png) {
    return QRCode::in(pictureFromPng(png));
}

/// The modules that are found in a picture, written as the sample's.
std::vector<std::string> found(const SampleQRCode& code, const QRPictureStyle& style) {
    const auto result = codeIn(pngOf(code, style));
    if (!result) return {"(none)"};
    std::vector<std::string> rows(result->size(), std::string(result->size(), '.'));
    for (std::size_t row = 0; row < result->size(); ++row) {
        for (std::size_t column = 0; column < result->size(); ++column) {
            if (result->isDark(row, column)) rows[row][column] = '#';
        }
    }
    return rows;
}

std::string shown(const SampleQRCode& code, bool inColor, const QRPictureStyle& style = {}) {
    const auto result = codeIn(pngOf(code, style));
    return result ? textOf(*result, inColor) : "(none)";
}

TEST(QRCode, IsFoundAtEveryScale) {
    for (const std::size_t scale : {1U, 2U, 3U, 5U, 16U}) {
        EXPECT_EQ(found(smallQRCode(), {.pixelsPerModule = scale}), smallQRCode().rows) << scale;
        EXPECT_EQ(found(largeQRCode(), {.pixelsPerModule = scale}), largeQRCode().rows) << scale;
    }
}

TEST(QRCode, IsFoundWithAnyMargin) {
    for (const std::size_t margin : {0U, 1U, 7U, 200U}) {
        EXPECT_EQ(found(smallQRCode(), {.marginPixels = margin}), smallQRCode().rows) << margin;
    }
}

TEST(QRCode, IsFoundInPaleColorsAndLightOnDark) {
    EXPECT_EQ(found(largeQRCode(), {.dark = 90, .light = 180}), largeQRCode().rows);
    EXPECT_EQ(found(largeQRCode(), {.dark = 240, .light = 10}), largeQRCode().rows);
    EXPECT_EQ(found(largeQRCode(), {.light = 0, .isTransparent = true}), largeQRCode().rows);
}

TEST(QRCode, IsFoundUnderALogo) {
    auto code = largeQRCode();
    for (std::size_t row = 18; row < 27; ++row) code.rows[row].replace(18, 9, ".########");
    EXPECT_EQ(found(code, {}), code.rows);
}

TEST(QRCode, IsNotFoundWhereThereIsNone) {
    EXPECT_FALSE(codeIn(test::blankPng(300, 300)));
    EXPECT_FALSE(codeIn(test::blankPng(1, 1)));
    EXPECT_EQ(found(smallQRCode(), {.dark = 100, .light = 150}), std::vector<std::string>{"(none)"});
    const SampleQRCode square{.content = "", .rows = std::vector<std::string>(21, std::string(21, '#'))};
    EXPECT_FALSE(codeIn(pngOf(square)));
    auto withoutFinder = smallQRCode();
    for (std::size_t row = 0; row < 8; ++row) withoutFinder.rows[row].replace(1, 6, "......");
    EXPECT_FALSE(codeIn(pngOf(withoutFinder)));
}

TEST(QRCodeText, IsScannedFromATerminalWithoutColors) {
    EXPECT_EQ(scannedTerminal(shown(smallQRCode(), false)), smallQRCode().content);
    EXPECT_EQ(scannedTerminal(shown(largeQRCode(), false)), largeQRCode().content);
}

TEST(QRCodeText, IsScannedFromATerminalWithColors) {
    EXPECT_EQ(scannedTerminal(shown(smallQRCode(), true)), smallQRCode().content);
    EXPECT_EQ(scannedTerminal(shown(largeQRCode(), true)), largeQRCode().content);
}

TEST(QRCodeText, IsDarkOnLightWhateverThePictureWas) {
    const auto text = shown(smallQRCode(), false);
    EXPECT_EQ(shown(smallQRCode(), false, {.dark = 255, .light = 0}), text);
    EXPECT_EQ(shown(smallQRCode(), false, {.pixelsPerModule = 9, .marginPixels = 0}), text);
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
    EXPECT_EQ(textColumns(*codeIn(pngOf(smallQRCode()))), columns);
    for (const std::size_t line : {0U, 1U, 15U, 16U}) EXPECT_EQ(lines[line], repeated(columns)) << line;
    EXPECT_THAT(lines[2], testing::StartsWith(repeated(4) + " "));
    EXPECT_THAT(lines[2], testing::EndsWith(" " + repeated(4)));
}

}  // namespace
}  // namespace brindle::console

/// The console's reader of login codes.
///
/// Whatever lies where the picture of a login code is expected, the console shows what is in it or says why
/// it cannot. The first byte of an input chooses between a PNG file and plain shades of grey, whose width the
/// second byte says.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "console/Picture.h"
#include "console/QRCode.h"
#include "fuzz/Promises.h"
#include "text/Failure.h"

namespace {

using namespace brindle;
using namespace brindle::console;
using fuzz::require;

/// The halves of a character of the code's text; without colour it draws the light ones.
struct Halves {
    bool isUpperLight;
    bool isLowerLight;
};

Halves takeCharacter(std::string_view& line) {
    struct Symbol {
        std::string_view text;
        Halves halves;
    };
    constexpr Symbol symbols[] = {{" ", {false, false}},
                                  {"\u2580", {true, false}},
                                  {"\u2584", {false, true}},
                                  {"\u2588", {true, true}}};
    for (const auto& symbol : symbols) {
        if (!line.starts_with(symbol.text)) continue;
        line.remove_prefix(symbol.text.size());
        return symbol.halves;
    }
    require(line.empty(), "a code is drawn with half blocks");
    return {false, false};
}

/// Outside of the code is its quiet zone.
bool isLight(const QRCode& code, std::size_t row, std::size_t column) {
    const auto end = code.size() + quiet_zone_modules;
    if (row < quiet_zone_modules || column < quiet_zone_modules || row >= end || column >= end) return true;
    return !code.isDark(row - quiet_zone_modules, column - quiet_zone_modules);
}

void requireFaithfulText(const QRCode& code) {
    const auto text = textOf(code, false);
    auto lines = fuzz::separated(text, '\n');
    require(lines.back().empty(), "the last line is a whole one");
    lines.pop_back();
    require(lines.size() == (textColumns(code) + 1) / 2, "a line shows two rows");
    for (std::size_t row = 0; row < lines.size(); ++row) {
        for (std::size_t column = 0; column < textColumns(code); ++column) {
            const auto halves = takeCharacter(lines[row]);
            require(halves.isUpperLight == isLight(code, 2 * row, column) &&
                        halves.isLowerLight == isLight(code, 2 * row + 1, column),
                    "the text shows every module");
        }
    }
}

void look(const Picture& picture) {
    require(picture.pixels.size() == picture.width * picture.height, "a picture has all its pixels");
    const auto code = QRCode::in(picture);
    if (!code) return;
    require(code->size() >= 21 && code->size() <= 177 && code->size() % 4 == 1,
            "a code has one of its sizes");
    requireFaithfulText(*code);
    require(!textOf(*code, true).empty(), "a code has a text in colour");
}

Picture greyPicture(std::string_view shades) {
    if (shades.empty() || shades.front() == 0) return {};
    Picture picture;
    picture.width = static_cast<std::uint8_t>(shades.front());
    picture.height = (shades.size() - 1) / picture.width;
    shades = shades.substr(1, picture.width * picture.height);
    picture.pixels.assign(shades.begin(), shades.end());
    return picture;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const auto content = fuzz::inputText(data + 1, size - 1);
    try {
        look(data[0] % 2 == 0 ? pictureFromPng(content) : greyPicture(content));
    } catch (const Failure& failure) {
        fuzz::requireSentence(failure.what());
    }
    return 0;
}

/// The console's reader of login codes.
///
/// Whatever lies where the picture of a login code is expected, the console shows what is in it or says why
/// it cannot. The first byte of an input chooses between a PNG file and plain shades of grey, whose width the
/// second byte says.
#include <algorithm>
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

/// What the code's text shows, each module as a few pixels.
Picture drawnText(const QRCode& code) {
    constexpr std::size_t pixels_per_module = 4;
    constexpr std::uint8_t white = 255;
    const auto text = code.text(false);
    auto lines = fuzz::separated(text, '\n');
    require(lines.back().empty(), "the last line is a whole one");
    lines.pop_back();
    const auto side = code.textColumns();
    require(lines.size() == (side + 1) / 2, "a line shows two rows");
    Picture picture{
        .width = side * pixels_per_module, .height = 2 * lines.size() * pixels_per_module, .pixels = {}};
    picture.pixels.resize(picture.width * picture.height);
    const auto draw = [&](std::size_t row, std::size_t column) {
        for (std::size_t y = row * pixels_per_module; y < (row + 1) * pixels_per_module; ++y) {
            const auto first = picture.pixels.begin() +
                               static_cast<std::ptrdiff_t>(y * picture.width + column * pixels_per_module);
            std::fill_n(first, pixels_per_module, white);
        }
    };
    for (std::size_t line = 0; line < lines.size(); ++line) {
        for (std::size_t column = 0; column < side; ++column) {
            const auto halves = takeCharacter(lines[line]);
            if (halves.isUpperLight) draw(2 * line, column);
            if (halves.isLowerLight) draw(2 * line + 1, column);
        }
        require(lines[line].empty(), "all lines are as wide");
    }
    return picture;
}

void look(const Picture& picture) {
    require(picture.pixels.size() == picture.width * picture.height, "a picture has all its pixels");
    const auto content = qrCodeContent(picture);
    if (!content) return;
    const QRCode code(*content);
    require(!code.text(true).empty(), "a code has a text in colour");
    // A reader may miss a code, but never take it for another.
    const auto again = qrCodeContent(drawnText(code));
    require(!again || *again == *content, "the code that is shown says what the picture says");
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

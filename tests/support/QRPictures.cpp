#include "support/QRPictures.h"

#include <png.h>
#include <zbar.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <stdexcept>

#include "support/Waiting.h"

namespace brindle::test {
namespace {

struct GreyPixels {
    std::size_t width = 0;
    std::size_t height = 0;
    std::vector<std::uint8_t> pixels;
};

std::string encodedPng(const std::vector<std::uint8_t>& pixels, std::size_t width, std::size_t height,
                       png_uint_32 format) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(height);
    image.format = format;
    png_alloc_size_t length = 0;
    png_image_write_get_memory_size(image, length, 0, pixels.data(), 0, nullptr);
    std::string png(length, '\0');
    if (png_image_write_to_memory(&image, png.data(), &length, 0, pixels.data(), 0, nullptr) == 0) {
        throw TestFailure(std::string("The PNG cannot be written: ") + image.message);
    }
    png.resize(length);
    return png;
}

GreyPixels decodedPng(std::string_view png) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_memory(&image, png.data(), png.size()) == 0) {
        throw TestFailure(std::string("The PNG cannot be read: ") + image.message);
    }
    image.format = PNG_FORMAT_GRAY;
    GreyPixels result{.width = image.width, .height = image.height, .pixels = {}};
    result.pixels.resize(PNG_IMAGE_SIZE(image));
    const png_color white{.red = 255, .green = 255, .blue = 255};
    if (png_image_finish_read(&image, &white, result.pixels.data(), 0, nullptr) == 0) {
        throw TestFailure(std::string("The PNG cannot be read: ") + image.message);
    }
    return result;
}

std::string scanned(const GreyPixels& picture) {
    const std::unique_ptr<zbar::zbar_image_scanner_t, decltype(&zbar::zbar_image_scanner_destroy)> scanner(
        zbar::zbar_image_scanner_create(), &zbar::zbar_image_scanner_destroy);
    const std::unique_ptr<zbar::zbar_image_t, decltype(&zbar::zbar_image_destroy)> image(
        zbar::zbar_image_create(), &zbar::zbar_image_destroy);
    zbar::zbar_image_set_format(image.get(), *reinterpret_cast<const unsigned int*>("Y800"));
    zbar::zbar_image_set_size(image.get(), static_cast<unsigned int>(picture.width),
                              static_cast<unsigned int>(picture.height));
    zbar::zbar_image_set_data(image.get(), picture.pixels.data(), picture.pixels.size(), nullptr);
    zbar::zbar_scan_image(scanner.get(), image.get());
    const auto* symbol = zbar::zbar_image_first_symbol(image.get());
    if (symbol == nullptr) return "";
    return {zbar::zbar_symbol_get_data(symbol), zbar::zbar_symbol_get_data_length(symbol)};
}

/// The screen of a terminal, as far as half blocks and colours need one. A cell is a dot wide and two high.
class Screen {
  public:
    void show(std::string_view text) {
        while (!text.empty()) {
            if (takes(text, "\033[")) {
                const auto end = std::min(text.find('m'), text.size() - 1);
                obey(text.substr(0, end));
                text.remove_prefix(end + 1);
            } else if (takes(text, "\n")) {
                lines_.emplace_back();
            } else if (takes(text, " ")) {
                put(ground(), ground());
            } else if (takes(text, "\u2580")) {
                put(ink(), ground());
            } else if (takes(text, "\u2584")) {
                put(ground(), ink());
            } else if (takes(text, "\u2588")) {
                put(ink(), ink());
            } else {
                throw TestFailure("Not expected on the screen: " + std::string(text.substr(0, 20)));
            }
        }
    }

    /// As a camera sees it: every dot some pixels large.
    GreyPixels photograph() const {
        constexpr std::size_t dot_pixels = 5;
        GreyPixels result;
        for (const auto& line : lines_) result.width = std::max(result.width, line.size() * dot_pixels);
        result.height = lines_.size() * 2 * dot_pixels;
        result.pixels.assign(result.width * result.height, dark_shade);
        for (std::size_t y = 0; y < result.height; ++y) {
            const auto& line = lines_[y / dot_pixels / 2];
            for (std::size_t x = 0; x < line.size() * dot_pixels; ++x) {
                result.pixels[y * result.width + x] = line[x / dot_pixels].at(y / dot_pixels % 2);
            }
        }
        return result;
    }

  private:
    static constexpr std::uint8_t dark_shade = 20;
    static constexpr std::uint8_t light_shade = 220;

    static bool takes(std::string_view& text, std::string_view beginning) {
        if (!text.starts_with(beginning)) return false;
        text.remove_prefix(beginning.size());
        return true;
    }

    std::uint8_t ink() const { return isInverse_ ? background_ : foreground_; }
    std::uint8_t ground() const { return isInverse_ ? foreground_ : background_; }
    void put(std::uint8_t upper, std::uint8_t lower) {
        if (lines_.empty()) lines_.emplace_back();
        lines_.back().push_back({upper, lower});
    }

    /// Select Graphic Rendition with its parameters.
    void obey(std::string_view parameters) {
        std::vector<int> numbers(1, 0);
        for (const char character : parameters) {
            if (character == ';')
                numbers.push_back(0);
            else
                numbers.back() = numbers.back() * 10 + (character - '0');
        }
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            if (numbers[i] == 0)
                *this = Screen(std::move(lines_));
            else if (numbers[i] == 7)
                isInverse_ = true;
            else if (i + 2 < numbers.size()) {
                (numbers[i] == 38 ? foreground_ : background_) = shade(numbers[i + 2]);
                i += 2;
            }
        }
    }

    /// The two ends of the fixed colours; any other is in between.
    static std::uint8_t shade(int color) {
        constexpr int black = 16;
        constexpr int white = 231;
        if (color == white) return 255;
        return color == black ? 0 : 128;
    }

  public:
    Screen() = default;

  private:
    using Line = std::vector<std::array<std::uint8_t, 2>>;

    explicit Screen(std::vector<Line> lines) : lines_(std::move(lines)) {}

    std::vector<Line> lines_;
    std::uint8_t foreground_ = light_shade;
    std::uint8_t background_ = dark_shade;
    bool isInverse_ = false;
};

}  // namespace

const SampleQRCode& smallQRCode() {
    static const SampleQRCode code{
        .content = "brindle-sample:small",
        .rows = {"#######...###...#.#######", "#.....#..#..#..##.#.....#", "#.###.#.##.##.###.#.###.#",
                 "#.###.#.##...##...#.###.#", "#.###.#.##.#.#..#.#.###.#", "#.....#.#.#.#.###.#.....#",
                 "#######.#.#.#.#.#.#######", "........##...............", "#.#####..########.#####..",
                 "#......#...#.#..#..#.##..", "..##.##...#.#.##..###..##", "....##..###.#....##......",
                 "#..#..###..#....#######.#", "##.##....##.##.....#..##.", "#.#...#.#.#..#####.#.####",
                 "#...#....#..##.######....", "#.##.####...#.#########.#", "........#......##...#....",
                 "#######....##...#.#.##.##", "#.....#.####..#.#...#...#", "#.###.#.#.##...##########",
                 "#.###.#.###.####.##.#.###", "#.###.#.#....##.##...#..#", "#.....#..#..##.##.##....#",
                 "#######.#.#.#.#...##.####"}};
    return code;
}

const SampleQRCode& largeQRCode() {
    static const SampleQRCode code{
        .content =
            "brindle-sample:large,The quick brown fox jumps over the lazy dog. The quick brown fox jumps over the lazy dog",
        .rows = {
            "#######.#..#...#.#.#.......##.##.#..#.#######", "#.....#.##..##.#.#...#.#...##.###..#..#.....#",
            "#.###.#..##.###.#..##.##..##...##..#..#.###.#", "#.###.#.###....#.##.#####.#...##...##.#.###.#",
            "#.###.#..#.##.#...########.#....#####.#.###.#", "#.....#..######.#..##...##.#####......#.....#",
            "#######.#.#.#.#.#.#.#.#.#.#.#.#.#.#.#.#######", "........#.#####.#..##...###.##.....#.........",
            "#.##.###..#.##.#...######..##..#.#.##.#..#.##", "##...#.#..###.#####.##..#...#####..###.#..###",
            "##....#.##..####.#..#...#..#.##...##...#.####", "#...#...#####.#..##.###.##.###..#.....##.#.##",
            "##.#..#.#..#.###.##.####..##..##.#.#..#..#...", "####...##.#.....####...##.##...##.....#...##.",
            "#.##.##.#.###.....#.###..##.#.#.#..####.###..", ".##.#..#.....##..###.#..#..##...##.#.#...####",
            "##..###...###.#..#.###.##.##.#####..#.##.###.", ".#..##.#.##..#....#.#.#.#..#.#.#.###....##.##",
            "..#...#..##.#####.####.##.#....##.###.##...#.", "#..#.#.....#.#..#.####.#..#.##...##.###.#...#",
            "..#######..##.#.#...#####..#####..#.#####.#..", "..#.#...##.###.#....#...#..##.##...##...#.#.#",
            "#.###.#.#..#.#.##.#.#.#.####.##...###.#.#####", "#..##...##..#####.###...#.#....##.#.#...##.#.",
            "#.#.######.#######..#####......#...######....", ".#.#...#.#......##.#.######.#..#.#.##.##.#...",
            "#.##..#..#..#########.#.#...####.......#..#..", "..####.###..#....#..##.##..#.#..##.##.#..###.",
            "..##.#####..####.#...#.#..###.###..###..####.", "#.###..##..##......#....#....#...##.##.###.##",
            ".#.#.###..#.....#...#######.#..#.##.##.###.#.", "###.#...#..###.##...#.##.####.#..#..#..###..#",
            "##.##.##..#.###...##.###.####....##..#....##.", ".##.#..###..#.###..##.#.##..###....#...#.##.#",
            "....#.#.##..##....#..##.#..####.#.##.##.#..##", ".####..#.#..#.#...###..#..##....#.##.##.##.#.",
            "#..##.####.###...##.#####.#...##....######...", "........####.#.#.#..#...##.##....#..#...###..",
            "#######.#.......###.#.#.##.#..####..#.#.##.#.", "#.....#.#.##.####..##...##..#.#.#.###...#####",
            "#.###.#..#.#..####..#####.##.#####.########..", "#.###.#.##...#.##..#.#.##..###...##.###..####",
            "#.###.#.#....####.####.#..##....#.###..#.#.#.", "#.....#..#.#.##..#.#...####....#..##.##.#...#",
            "#######.#.#.#.#..##..###.#..###.....####.##.."}};
    return code;
}

std::string pngOf(const SampleQRCode& code, const QRPictureStyle& style) {
    const auto side = code.rows.size() * style.pixelsPerModule + 2 * style.marginPixels;
    constexpr std::size_t channels = 2;
    std::vector<std::uint8_t> pixels;
    pixels.reserve(side * side * channels);
    const auto isDark = [&](std::size_t x, std::size_t y) {
        if (x < style.marginPixels || y < style.marginPixels) return false;
        const auto row = (y - style.marginPixels) / style.pixelsPerModule;
        const auto column = (x - style.marginPixels) / style.pixelsPerModule;
        return row < code.rows.size() && column < code.rows.size() && code.rows[row][column] == '#';
    };
    for (std::size_t y = 0; y < side; ++y) {
        for (std::size_t x = 0; x < side; ++x) {
            const bool dark = isDark(x, y);
            pixels.push_back(dark ? style.dark : style.light);
            pixels.push_back(dark || !style.isTransparent ? 255 : 0);
        }
    }
    return encodedPng(pixels, side, side, PNG_FORMAT_GA);
}

std::string blankPng(std::size_t width, std::size_t height) {
    return encodedPng(std::vector<std::uint8_t>(width * height, 255), width, height, PNG_FORMAT_GRAY);
}

std::string scannedPng(std::string_view png) {
    return scanned(decodedPng(png));
}

std::string scannedTerminal(std::string_view text) {
    Screen screen;
    screen.show(text);
    return scanned(screen.photograph());
}

}  // namespace brindle::test

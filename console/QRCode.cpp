#include "console/QRCode.h"

#include <chafa.h>

#include <algorithm>
#include <cstdint>
#include <memory>

namespace brindle::console {
namespace {

constexpr std::size_t smallest_size = 21;
constexpr std::size_t largest_size = 177;
constexpr std::size_t size_step = 4;
/// A finder pattern with the light modules that set it off.
constexpr std::size_t finder_size = 8;
constexpr std::size_t timing_line = 6;
/// Less contrast than that between the darkest and the lightest pixel is no code.
constexpr int least_contrast = 64;
/// How many modules of the fixed patterns may be wrong, for pictures with rounded or smeared modules.
constexpr double tolerated_errors = 0.05;

/// The part of a picture that a code may fill, as seen with a threshold.
struct Area {
    const Picture& picture;
    int threshold = 0;
    bool isInverted = false;
    std::size_t left = 0;
    std::size_t top = 0;
    std::size_t width = 0;
    std::size_t height = 0;

    bool isDark(std::size_t x, std::size_t y) const { return (picture.at(x, y) < threshold) != isInverted; }
    /// Whether the middle of a module is dark, when the area holds `size` modules a side.
    bool isModuleDark(std::size_t size, std::size_t row, std::size_t column) const {
        return isDark(left + (2 * column + 1) * width / (2 * size),
                      top + (2 * row + 1) * height / (2 * size));
    }
};

/// The smallest area with every dark pixel in it; without width when there is none.
Area darkArea(const Picture& picture, int threshold, bool isInverted) {
    Area area{.picture = picture, .threshold = threshold, .isInverted = isInverted};
    std::size_t right = 0;
    std::size_t bottom = 0;
    area.left = picture.width;
    area.top = picture.height;
    for (std::size_t y = 0; y < picture.height; ++y) {
        for (std::size_t x = 0; x < picture.width; ++x) {
            if (!area.isDark(x, y)) continue;
            area.left = std::min(area.left, x);
            area.top = std::min(area.top, y);
            right = std::max(right, x + 1);
            bottom = std::max(bottom, y + 1);
        }
    }
    if (right > area.left) area.width = right - area.left;
    if (bottom > area.top) area.height = bottom - area.top;
    return area;
}

/// Whether a module of the upper left finder pattern is dark; the others mirror it.
bool isFinderDark(std::size_t row, std::size_t column) {
    const auto fromMiddle = [](std::size_t place) { return place < 3 ? 3 - place : place - 3; };
    const auto distance = std::max(fromMiddle(row), fromMiddle(column));
    return distance != 2 && distance != 4;
}

/// The part of the fixed patterns' modules that is not as it would be if the area held a code of that size.
double errorRate(const Area& area, std::size_t size) {
    std::size_t checked = 0;
    std::size_t wrong = 0;
    const auto check = [&](std::size_t row, std::size_t column, bool isDark) {
        ++checked;
        if (area.isModuleDark(size, row, column) != isDark) ++wrong;
    };
    for (std::size_t row = 0; row < finder_size; ++row) {
        for (std::size_t column = 0; column < finder_size; ++column) {
            const bool isDark = isFinderDark(row, column);
            check(row, column, isDark);
            check(row, size - 1 - column, isDark);
            check(size - 1 - row, column, isDark);
        }
    }
    for (std::size_t i = finder_size; i < size - finder_size; ++i) {
        check(timing_line, i, i % 2 == 0);
        check(i, timing_line, i % 2 == 0);
    }
    return static_cast<double>(wrong) / static_cast<double>(checked);
}

/// The size of the code that fills the area; 0 when none does.
std::size_t codeSize(const Area& area) {
    std::size_t best = 0;
    double lowestRate = tolerated_errors;
    const auto shorterSide = std::min(area.width, area.height);
    for (auto size = smallest_size; size <= std::min(largest_size, shorterSide); size += size_step) {
        const double rate = errorRate(area, size);
        if (rate > lowestRate || (best != 0 && rate == lowestRate)) continue;
        best = size;
        lowestRate = rate;
    }
    return best;
}

bool isNearlySquare(const Area& area) {
    const auto [shorter, longer] = std::minmax(area.width, area.height);
    return longer - shorter <= longer / smallest_size;
}

std::optional<QRCode> codeIn(const Area& area) {
    if (!isNearlySquare(area)) return std::nullopt;
    const auto size = codeSize(area);
    if (size == 0) return std::nullopt;
    std::vector<bool> modules(size * size);
    for (std::size_t row = 0; row < size; ++row) {
        for (std::size_t column = 0; column < size; ++column) {
            modules[row * size + column] = area.isModuleDark(size, row, column);
        }
    }
    return QRCode(size, std::move(modules));
}

template <auto release>
struct Releaser {
    template <class Object>
    void operator()(Object* object) const {
        release(object);
    }
};

using SymbolMap = std::unique_ptr<ChafaSymbolMap, Releaser<chafa_symbol_map_unref>>;
using CanvasConfig = std::unique_ptr<ChafaCanvasConfig, Releaser<chafa_canvas_config_unref>>;
using Canvas = std::unique_ptr<ChafaCanvas, Releaser<chafa_canvas_unref>>;
using TerminalInfo = std::unique_ptr<ChafaTermInfo, Releaser<chafa_term_info_unref>>;

/// A character of the canvas has this many pixels a side; exactly as many are given to it.
constexpr std::size_t cell_pixels = 8;
constexpr std::size_t color_channels = 3;

/// What a text takes on the screen, in characters.
struct Extent {
    std::size_t columns = 0;
    std::size_t rows = 0;
};

Extent extentOf(const QRCode& code) {
    const auto columns = textColumns(code);
    return {.columns = columns, .rows = (columns + 1) / 2};
}

/// Black on white, with quiet zone. An odd number of rows leaves half a line, which is light.
std::vector<std::uint8_t> rgbPixels(const QRCode& code, Extent extent) {
    constexpr std::size_t module_height = cell_pixels / 2;
    const auto lineBytes = extent.columns * cell_pixels * color_channels;
    std::vector<std::uint8_t> pixels(lineBytes * extent.rows * cell_pixels, 255);
    for (std::size_t y = 0; y < code.size() * module_height; ++y) {
        auto* line = &pixels[(y + quiet_zone_modules * module_height) * lineBytes];
        for (std::size_t column = 0; column < code.size(); ++column) {
            if (!code.isDark(y / module_height, column)) continue;
            const auto begin = (column + quiet_zone_modules) * cell_pixels * color_channels;
            std::fill_n(line + begin, cell_pixels * color_channels, std::uint8_t{0});
        }
    }
    return pixels;
}

CanvasConfig canvasConfig(Extent extent, bool inColor) {
    const SymbolMap symbols(::chafa_symbol_map_new());
    for (const gunichar symbol : {U' ', U'\u2580', U'\u2584', U'\u2588'}) {
        ::chafa_symbol_map_add_by_range(symbols.get(), symbol, symbol);
    }
    CanvasConfig config(::chafa_canvas_config_new());
    ::chafa_canvas_config_set_geometry(config.get(), static_cast<gint>(extent.columns),
                                       static_cast<gint>(extent.rows));
    ::chafa_canvas_config_set_symbol_map(config.get(), symbols.get());
    // The colours above the first 16: those are the user's to choose and may be anything.
    ::chafa_canvas_config_set_canvas_mode(config.get(),
                                          inColor ? CHAFA_CANVAS_MODE_INDEXED_240 : CHAFA_CANVAS_MODE_FGBG);
    ::chafa_canvas_config_set_fg_color(config.get(), 0xFFFFFF);
    ::chafa_canvas_config_set_bg_color(config.get(), 0x000000);
    ::chafa_canvas_config_set_dither_mode(config.get(), CHAFA_DITHER_MODE_NONE);
    ::chafa_canvas_config_set_preprocessing_enabled(config.get(), FALSE);
    return config;
}

/// What the text may use: the sequences that all terminals with colours know, or none.
TerminalInfo terminalInfo(bool inColor) {
    if (!inColor) return TerminalInfo(::chafa_term_info_new());
    return TerminalInfo(::chafa_term_db_get_fallback_info(::chafa_term_db_get_default()));
}

}  // namespace

std::optional<QRCode> QRCode::in(const Picture& picture) {
    if (picture.pixels.empty()) return std::nullopt;
    const auto [darkest, lightest] = std::minmax_element(picture.pixels.begin(), picture.pixels.end());
    if (*lightest - *darkest < least_contrast) return std::nullopt;
    const int threshold = (*darkest + *lightest + 1) / 2;
    for (const bool isInverted : {false, true}) {
        if (auto code = codeIn(darkArea(picture, threshold, isInverted))) return code;
    }
    return std::nullopt;
}

std::size_t textColumns(const QRCode& code) {
    return code.size() + 2 * quiet_zone_modules;
}

std::string textOf(const QRCode& code, bool inColor) {
    // A picture of some thousand dots is not worth a thread.
    ::chafa_set_n_threads(1);
    const auto extent = extentOf(code);
    const auto config = canvasConfig(extent, inColor);
    const Canvas canvas(::chafa_canvas_new(config.get()));
    const auto pixels = rgbPixels(code, extent);
    const auto width = extent.columns * cell_pixels;
    ::chafa_canvas_draw_all_pixels(canvas.get(), CHAFA_PIXEL_RGB8, pixels.data(), static_cast<gint>(width),
                                   static_cast<gint>(extent.rows * cell_pixels),
                                   static_cast<gint>(width * color_channels));
    const auto info = terminalInfo(inColor);
    GString* printed = ::chafa_canvas_print(canvas.get(), info.get());
    std::string text(printed->str, printed->len);
    ::g_string_free(printed, TRUE);
    if (!text.ends_with('\n')) text += '\n';
    return text;
}

}  // namespace brindle::console

#include "console/QRCode.h"

#include <qrencode.h>
#include <zbar.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "text/Failure.h"

namespace brindle::console {
namespace {

/// Light modules that belong around a code, on every side.
constexpr std::size_t quiet_zone_modules = 4;
/// A picture may end where its code ends; what reads it wants some ground around it.
constexpr std::size_t margin_pixels = 16;
/// Modules of one or two pixels are too small to be read.
constexpr std::size_t enlargement = 3;
constexpr std::size_t longest_side_to_enlarge = 300;
constexpr std::uint8_t white = 255;

// The colours above the first 16: those are the user's to choose and may be anything.
constexpr std::string_view black_on_white = "\033[38;5;16m\033[48;5;231m";
constexpr std::string_view usual_colors = "\033[0m";

Picture enlarged(const Picture& picture, std::size_t factor) {
    const std::size_t width = picture.width * factor + 2 * margin_pixels;
    const std::size_t height = picture.height * factor + 2 * margin_pixels;
    Picture result{
        .width = width, .height = height, .pixels = std::vector<std::uint8_t>(width * height, white)};
    for (std::size_t y = 0; y < picture.height * factor; ++y) {
        for (std::size_t x = 0; x < picture.width * factor; ++x) {
            result.pixels[(y + margin_pixels) * width + x + margin_pixels] =
                picture.at(x / factor, y / factor);
        }
    }
    return result;
}

std::optional<std::string> scannedContent(const Picture& picture) {
    zbar::ImageScanner scanner;
    scanner.set_config(zbar::ZBAR_NONE, zbar::ZBAR_CFG_ENABLE, 0);
    scanner.set_config(zbar::ZBAR_QRCODE, zbar::ZBAR_CFG_ENABLE, 1);
    scanner.set_config(zbar::ZBAR_QRCODE, zbar::ZBAR_CFG_BINARY, 1);
    scanner.set_config(zbar::ZBAR_NONE, zbar::ZBAR_CFG_TEST_INVERTED, 1);
    zbar::Image image(static_cast<unsigned>(picture.width), static_cast<unsigned>(picture.height), "Y800",
                      picture.pixels.data(), picture.pixels.size());
    if (scanner.scan(image) <= 0) return std::nullopt;
    return image.symbol_begin()->get_data();
}

}  // namespace

std::optional<std::string> qrCodeContent(const Picture& picture) {
    if (picture.pixels.empty()) return std::nullopt;
    if (auto content = scannedContent(enlarged(picture, 1))) return content;
    if (std::max(picture.width, picture.height) > longest_side_to_enlarge) return std::nullopt;
    return scannedContent(enlarged(picture, enlargement));
}

struct QRCode::Implementation {
    explicit Implementation(std::string_view content)
        : code(::QRcode_encodeData(static_cast<int>(content.size()),
                                   reinterpret_cast<const unsigned char*>(content.data()), 0, QR_ECLEVEL_L)) {
        if (code == nullptr) throw Failure("There is no QR code for so long a text.");
    }
    ~Implementation() { ::QRcode_free(code); }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

    std::size_t size() const { return static_cast<std::size_t>(code->width); }

    ::QRcode* code;
};

QRCode::QRCode(std::string_view content) : implementation_(std::make_unique<Implementation>(content)) {}
QRCode::~QRCode() = default;
QRCode::QRCode(QRCode&&) noexcept = default;
QRCode& QRCode::operator=(QRCode&&) noexcept = default;

/// Rows and columns are counted with the quiet zone; what lies beyond is light.
bool QRCode::isDark(std::size_t row, std::size_t column) const {
    const auto size = implementation_->size();
    if (row < quiet_zone_modules || column < quiet_zone_modules) return false;
    row -= quiet_zone_modules;
    column -= quiet_zone_modules;
    // The lowest bit of each module says whether it is dark.
    return row < size && column < size && (implementation_->code->data[row * size + column] & 1U) != 0;
}

std::size_t QRCode::textColumns() const {
    return implementation_->size() + 2 * quiet_zone_modules;
}

std::string QRCode::text(bool inColor) const {
    // By what is drawn above and below: ink is what the terminal draws with.
    constexpr std::array<std::string_view, 4> blocks{" ", "\u2584", "\u2580", "\u2588"};
    const auto side = textColumns();
    std::string text;
    for (std::size_t row = 0; row < side; row += 2) {
        if (inColor) text += black_on_white;
        for (std::size_t column = 0; column < side; ++column) {
            const bool upper = isDark(row, column) == inColor;
            const bool lower = isDark(row + 1, column) == inColor;
            text += blocks[(upper ? 2U : 0U) + (lower ? 1U : 0U)];
        }
        if (inColor) text += usual_colors;
        text += '\n';
    }
    return text;
}

}  // namespace brindle::console

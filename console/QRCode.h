#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "console/Picture.h"

namespace brindle::console {

/// The modules of a QR code (ISO/IEC 18004) without its quiet zone.
class QRCode {
  public:
    /// `darkModules` row by row. Precondition: `size` * `size` of them.
    QRCode(std::size_t size, std::vector<bool> darkModules)
        : size_(size), darkModules_(std::move(darkModules)) {}

    /// Finds the code that fills a picture, whatever its scale and margin, light on dark as well. Nothing
    /// when there is none. Its content is not looked at: a code under a logo is found, too.
    static std::optional<QRCode> in(const Picture& picture);

    /// Modules of a side.
    std::size_t size() const { return size_; }
    bool isDark(std::size_t row, std::size_t column) const { return darkModules_[row * size_ + column]; }

  private:
    std::size_t size_;
    std::vector<bool> darkModules_;
};

/// Light modules that belong around a code, on every side.
inline constexpr std::size_t quiet_zone_modules = 4;

/// Terminal columns that the text of a code takes.
std::size_t textColumns(const QRCode& code);

/// The code as lines of half blocks, two modules above each other in a character, quiet zone included. In
/// colour it is black on white everywhere; without, light modules are the ones that are drawn, so that it is
/// right on a dark ground.
std::string textOf(const QRCode& code, bool inColor);

}  // namespace brindle::console

#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "console/Picture.h"

namespace brindle::console {

/// What the QR code in a picture says, whatever its scale, light on dark as well (ZBar); nothing when there
/// is none that can be read.
std::optional<std::string> qrCodeContent(const Picture& picture);

/// A QR code (ISO/IEC 18004), as small as its content allows (libqrencode).
class QRCode {
  public:
    /// Throws Failure when that is too much for a code.
    explicit QRCode(std::string_view content);
    ~QRCode();
    QRCode(QRCode&&) noexcept;
    QRCode& operator=(QRCode&&) noexcept;

    /// Terminal columns that the text takes.
    std::size_t textColumns() const;
    /// The code as lines of half blocks, two modules above each other in a character, quiet zone included. In
    /// colour it is black on white everywhere; without, light modules are the ones that are drawn, so that it
    /// is right on a dark ground.
    std::string text(bool inColor) const;

  private:
    struct Implementation;

    bool isDark(std::size_t row, std::size_t column) const;

    std::unique_ptr<Implementation> implementation_;
};

}  // namespace brindle::console

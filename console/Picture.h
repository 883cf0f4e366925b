#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace brindle::console {

/// A picture in shades of grey, row by row from the top; 0 is black, 255 is white.
struct Picture {
    std::size_t width = 0;
    std::size_t height = 0;
    std::vector<std::uint8_t> pixels;

    std::uint8_t at(std::size_t x, std::size_t y) const { return pixels[y * width + x]; }
};

/// A file of a login picture has a few kilobytes; longer ones are not looked at.
inline constexpr std::size_t longest_picture_bytes = std::size_t{4} << 20U;
/// Pictures with a longer side are refused before any memory is taken for them.
inline constexpr std::size_t longest_picture_side = 4096;

/// Decodes a PNG (ISO/IEC 15948) on a white ground. Throws Failure with a reason that continues a sentence
/// ("is not a PNG picture").
Picture pictureFromPng(std::string_view bytes);

}  // namespace brindle::console

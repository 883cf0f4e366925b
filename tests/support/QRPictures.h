#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace brindle::test {

/// A QR code whose content is known; '#' is a dark module.
struct SampleQRCode {
    std::string content;
    std::vector<std::string> rows;
};

/// A code of the smallest size that has an alignment pattern (version 2).
const SampleQRCode& smallQRCode();
/// One with version information in it (version 7).
const SampleQRCode& largeQRCode();

/// How a code looks as a picture.
struct QRPictureStyle {
    std::size_t pixelsPerModule = 4;
    std::size_t marginPixels = 16;
    std::uint8_t dark = 0;
    std::uint8_t light = 255;
    /// Light modules and the margin are not painted at all.
    bool isTransparent = false;
};

/// The code as a PNG.
std::string pngOf(const SampleQRCode& code, const QRPictureStyle& style = {});
/// A PNG without anything on it.
std::string blankPng(std::size_t width, std::size_t height);

/// What a phone reads from a PNG: the content of the QR code; empty when it sees none.
std::string scannedPng(std::string_view png);
/// What a phone reads from a terminal with light text on a dark ground that shows `text`, which consists of
/// spaces, half and full blocks and colours (ECMA-48; the fixed ones of 256).
std::string scannedTerminal(std::string_view text);

}  // namespace brindle::test

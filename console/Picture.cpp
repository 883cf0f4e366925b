#include "console/Picture.h"

#include <png.h>

#include <string>

#include "text/Failure.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

constexpr std::string_view png_signature = "\x89PNG\r\n\x1A\n";

/// The decoder's own state, freed whatever happens.
class PngImage {
  public:
    PngImage() { image_.version = PNG_IMAGE_VERSION; }
    ~PngImage() { ::png_image_free(&image_); }
    PngImage(const PngImage&) = delete;
    PngImage& operator=(const PngImage&) = delete;

    void begin(std::string_view bytes) {
        if (::png_image_begin_read_from_memory(&image_, bytes.data(), bytes.size()) == 0) fail();
        image_.format = PNG_FORMAT_GRAY;
    }
    std::size_t width() const { return image_.width; }
    std::size_t height() const { return image_.height; }
    std::vector<std::uint8_t> finish() {
        std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(image_));
        const png_color white{.red = 255, .green = 255, .blue = 255};
        if (::png_image_finish_read(&image_, &white, pixels.data(), 0, nullptr) == 0) fail();
        return pixels;
    }

  private:
    [[noreturn]] void fail() const {
        throw Failure("is not a whole PNG picture (" + singleLine(image_.message) + ")");
    }

    png_image image_{};
};

}  // namespace

Picture pictureFromPng(std::string_view bytes) {
    if (!bytes.starts_with(png_signature)) throw Failure("is not a PNG picture");
    if (bytes.size() > longest_picture_bytes) throw Failure("is too long to be a QR code");
    PngImage image;
    image.begin(bytes);
    if (image.width() > longest_picture_side || image.height() > longest_picture_side) {
        throw Failure("is too large a picture to be a QR code");
    }
    return {.width = image.width(), .height = image.height(), .pixels = image.finish()};
}

}  // namespace brindle::console

#include "scripts/PageScriptTest.h"
#include "support/Json.h"
#include "text/Base64.h"

namespace brindle::test {
namespace {

using testing::StartsWith;

constexpr std::string_view png_signature = "\x89PNG\r\n\x1A\n";
constexpr std::size_t png_width_offset = 16;

class QrCodeScript : public PageScriptTest {
  protected:
    static std::optional<std::string> run() { return page().evaluate(std::string(page_script::qr_code)); }
};

TEST_F(QrCodeScript, PageWithoutCanvasGivesNothing) {
    show("<img alt=\"A picture\">");
    EXPECT_EQ(run(), std::nullopt);
}

TEST_F(QrCodeScript, CanvasIsGivenAsPngDataUrl) {
    show("<canvas width=\"264\" height=\"264\"></canvas>");
    inPage(
        "const context = document.querySelector('canvas').getContext('2d');"
        "context.fillStyle = 'black'; context.fillRect(10, 10, 50, 50);");
    const std::string url = run().value();
    EXPECT_THAT(url, StartsWith(png_prefix));
    EXPECT_EQ(url, valueOf("document.querySelector('canvas').toDataURL('image/png')"));
}

TEST_F(QrCodeScript, DataUrlHoldsAPngFileOfTheCanvasSize) {
    show("<canvas width=\"200\" height=\"100\"></canvas>");
    const std::optional<std::string> file = base64Decoded(run().value().substr(png_prefix.size()));
    ASSERT_TRUE(file.has_value());
    EXPECT_THAT(*file, StartsWith(png_signature));
    EXPECT_EQ(static_cast<unsigned char>(file->at(png_width_offset + 3)), 200);
}

TEST_F(QrCodeScript, FirstOfSeveralCanvasesIsTaken) {
    show(
        "<section><canvas width=\"10\" height=\"10\"></canvas></section><canvas width=\"20\" height=\"20\"></canvas>");
    EXPECT_EQ(run(), valueOf("document.querySelectorAll('canvas')[0].toDataURL('image/png')"));
    EXPECT_NE(run(), valueOf("document.querySelectorAll('canvas')[1].toDataURL('image/png')"));
}

TEST_F(QrCodeScript, PngIsAskedFor) {
    show("<canvas></canvas>");
    inPage("HTMLCanvasElement.prototype.toDataURL = (...values) => JSON.stringify(values);");
    EXPECT_EQ(run(), R"(["image/png"])");
}

TEST_F(QrCodeScript, CanvasWithoutAreaGivesNoPng) {
    show("<canvas width=\"0\" height=\"0\"></canvas>");
    EXPECT_EQ(run(), "data:,");
}

TEST_F(QrCodeScript, WhateverTheCanvasGivesIsPassedOn) {
    show("<canvas></canvas>");
    inPage("document.querySelector('canvas').toDataURL = () => 'data:image/jpeg;base64,AAAA';");
    EXPECT_EQ(run(), "data:image/jpeg;base64,AAAA");
    inPage("document.querySelector('canvas').toDataURL = () => '';");
    EXPECT_EQ(run(), "");
    inPage("document.querySelector('canvas').toDataURL = () => 42;");
    EXPECT_EQ(run(), std::nullopt);
}

TEST_F(QrCodeScript, CanvasThatMayNotBeReadFails) {
    show("<canvas></canvas>");
    inPage(
        "document.querySelector('canvas').toDataURL = () => { throw new DOMException('No', 'SecurityError'); };");
    EXPECT_THROW(run(), std::runtime_error);
}

TEST_F(QrCodeScript, PictureFollowsTheCanvas) {
    show("<canvas width=\"20\" height=\"20\"></canvas>");
    const std::optional<std::string> before = run();
    inPage("document.querySelector('canvas').getContext('2d').fillRect(0, 0, 20, 20);");
    EXPECT_NE(run(), before);
    inPage("document.querySelector('canvas').remove();");
    EXPECT_EQ(run(), std::nullopt);
}

TEST_F(QrCodeScript, PageWhoseBodyHasNotArrivedGivesNothing) {
    show("<canvas></canvas>", "<script>window.early = [" + std::string(page_script::qr_code) + "];</script>");
    EXPECT_EQ(valueOf("window.early"), Json::parse("[null]"));
    EXPECT_NE(run(), std::nullopt);
}

TEST_F(QrCodeScript, LeavesNothingBehind) {
    show("<canvas></canvas>");
    inPage("window.before = Object.getOwnPropertyNames(window).concat('before');");
    run();
    EXPECT_EQ(valueOf("Object.getOwnPropertyNames(window).filter((name) => !before.includes(name))"),
              Json::array());
}

}  // namespace
}  // namespace brindle::test

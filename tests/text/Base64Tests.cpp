#include "text/Base64.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace brindle {
namespace {

/// The test vectors of RFC 4648, section 10, and bytes of every value.
const std::vector<std::pair<std::string, std::string>>& vectors() {
    static const std::vector<std::pair<std::string, std::string>> list{
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        {std::string("\0", 1), "AA=="},
        {"\xFF\xFF\xFF", "////"},
        {"\xFB\xEF\xBE", "++++"},
        {"\x14\xFB\x9C\x03\xD9\x7E", "FPucA9l+"},
    };
    return list;
}

TEST(Base64Tests, EncodesTestVectors) {
    for (const auto& [bytes, text] : vectors()) EXPECT_EQ(base64Encoded(bytes), text);
}

TEST(Base64Tests, DecodesTestVectors) {
    for (const auto& [bytes, text] : vectors()) EXPECT_EQ(base64Decoded(text), bytes) << text;
}

TEST(Base64Tests, EveryByteComesBackAtEveryPlace) {
    std::string bytes;
    for (int value = 0; value < 256; ++value) bytes += static_cast<char>(value);
    for (std::size_t start = 0; start < 6; ++start) {
        const auto part = bytes.substr(start);
        EXPECT_EQ(base64Decoded(base64Encoded(part)), part);
    }
}

TEST(Base64Tests, RejectsTextOfWrongLength) {
    for (const std::string_view text : {"Z", "Zg", "Zg=", "Zm9vY", "Zm9vYg", "Zm9vYg="}) {
        EXPECT_EQ(base64Decoded(text), std::nullopt) << text;
    }
}

TEST(Base64Tests, RejectsPaddingOutOfPlace) {
    for (const std::string_view text : {"====", "Z===", "=Zg=", "Zg==Zg==", "Z=g=", "Zm9v===="}) {
        EXPECT_EQ(base64Decoded(text), std::nullopt) << text;
    }
}

TEST(Base64Tests, RejectsForeignCharacters) {
    for (const std::string_view text :
         {"Zm9 ", " m9v", "Zm\n9", "Zm9v\r\n\r\n", "Zm-_", "Zm9\xE9", "Zm.v", "Zm9v "}) {
        EXPECT_EQ(base64Decoded(text), std::nullopt) << text;
    }
    EXPECT_EQ(base64Decoded(std::string_view("Zm9\0", 4)), std::nullopt);
}

}  // namespace
}  // namespace brindle

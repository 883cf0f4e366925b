#pragma once

#include <string>
#include <string_view>

/// Select Graphic Rendition (ECMA-48, section 8.3.117).
namespace brindle::console {

inline constexpr std::string_view reset_color = "\033[0m";
inline constexpr std::string_view bold_color = "\033[1m";
inline constexpr std::string_view dim_color = "\033[2m";
inline constexpr std::string_view red_color = "\033[31m";
inline constexpr std::string_view green_color = "\033[32m";
inline constexpr std::string_view yellow_color = "\033[33m";
inline constexpr std::string_view cyan_color = "\033[36m";

/// `text` as it is, or in the colour.
inline std::string colored(std::string_view text, std::string_view color, bool inColor) {
    if (!inColor) return std::string(text);
    return std::string(color).append(text).append(reset_color);
}

}  // namespace brindle::console

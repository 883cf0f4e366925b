#pragma once

#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace brindle::console {

/// Cuts a stream of bytes that arrives in pieces into lines.
class LineBuffer {
  public:
    static constexpr std::size_t any_length = std::numeric_limits<std::size_t>::max();

    /// A line of more bytes than that is given out in pieces, as if it were several.
    explicit LineBuffer(std::size_t longestLineBytes = any_length) : longestLineBytes_(longestLineBytes) {}

    void append(std::string_view bytes) { buffer_.append(bytes); }
    /// The next complete line without its line feed.
    std::optional<std::string> next();
    /// What came after the last line feed; nothing when that is empty.
    std::optional<std::string> takeRest();

  private:
    std::size_t longestLineBytes_;
    std::string buffer_;
    std::size_t begin_ = 0;
    /// Up to where no line feed was found, so that a long line is searched once.
    std::size_t scanned_ = 0;
};

}  // namespace brindle::console

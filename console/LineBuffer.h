#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace brindle::console {

/// Cuts a stream of bytes that arrives in pieces into lines.
class LineBuffer {
  public:
    void append(std::string_view bytes) { buffer_.append(bytes); }
    /// The next complete line without its line feed.
    std::optional<std::string> next();
    /// What came after the last line feed; nothing when that is empty.
    std::optional<std::string> takeRest();

  private:
    std::string buffer_;
    std::size_t begin_ = 0;
    /// Up to where no line feed was found, so that a long line is searched once.
    std::size_t scanned_ = 0;
};

}  // namespace brindle::console

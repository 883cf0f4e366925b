#pragma once

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

namespace brindle {

/// Reads lines of any length from a descriptor. Only a line feed ends a line; a last line without one counts.
class LineReader {
  public:
    /// A buffer no larger than this is kept between lines.
    static constexpr std::size_t kept_buffer_bytes = std::size_t{1} << 20U;

    /// Once `interrupt` is readable, the input ends behind the last whole line that has arrived by then; -1
    /// for none.
    LineReader(int descriptor, int interrupt);

    /// The next line without its line feed and a carriage return before it, valid until the next call;
    /// nothing at the end of input. Input that cannot be read or waited for has ended.
    std::optional<std::string_view> next();
    /// A part of that line, for whoever takes it apart where it stands.
    std::span<char> writable(std::string_view part);

  private:
    struct Free {
        void operator()(char* memory) const { std::free(memory); }
    };

    std::string_view takeLine(std::size_t length, std::size_t terminator);
    void giveBackLargeBuffer();
    void makeRoom();
    void resize(std::size_t capacity);
    void noticeInterrupt();
    bool readMore();

    int descriptor_;
    int interrupt_;
    std::unique_ptr<char, Free> buffer_;
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t scanned_ = 0;
    std::size_t end_ = 0;
    bool atEnd_ = false;
    bool isInterrupted_ = false;
    /// How many more bytes may be read.
    std::size_t allowance_ = std::numeric_limits<std::size_t>::max();
};

}  // namespace brindle

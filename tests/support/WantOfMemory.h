#pragma once

#include <cstddef>

namespace brindle::test {

/// While it lives, the Nth piece of memory that this thread asks for is refused, once or from then on. Other
/// threads get all they want.
class WantOfMemory {
  public:
    enum class Persistence { once, fromThenOn };

    /// Counted from 1.
    explicit WantOfMemory(int allocation, Persistence persistence = Persistence::once);
    ~WantOfMemory();
    WantOfMemory(const WantOfMemory&) = delete;
    WantOfMemory& operator=(const WantOfMemory&) = delete;

    /// Ends the want; whether anything was refused.
    bool end();
};

/// While it lives, counts the large pieces of memory that this thread asks for: what is large and copied asks
/// for one more. One at a time.
class LargePieces {
  public:
    explicit LargePieces(std::size_t fromBytes);
    ~LargePieces();
    LargePieces(const LargePieces&) = delete;
    LargePieces& operator=(const LargePieces&) = delete;

    int count() const;
};

}  // namespace brindle::test

#pragma once

#include <chrono>
#include <cstddef>
#include <deque>

#include "system/Clock.h"

namespace brindle {

/// How much may be written for a page in a minute, whichever minute that is: a page that makes messages up
/// must not fill the disk.
class RecordBudget {
  public:
    static constexpr std::chrono::seconds period{60};
    static constexpr std::size_t budget_bytes = std::size_t{32} << 20U;

    /// `clock` outlives it.
    explicit RecordBudget(const Clock& clock) : clock_(clock) {}

    /// Takes what a file of so many bytes needs out of the budget; false, and nothing is taken, while so much
    /// is not left of it.
    bool take(std::size_t file_bytes);
    /// Whether a file of so many bytes fits into any minute.
    static bool canEverTake(std::size_t file_bytes);

  private:
    /// What was taken within one second.
    struct Taken {
        std::chrono::seconds sinceBoot;
        std::size_t bytes = 0;
    };

    const Clock& clock_;
    /// Of the last minute.
    std::deque<Taken> taken_;
};

}  // namespace brindle

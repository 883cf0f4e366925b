#include "worker/RecordBudget.h"

#include <numeric>

namespace brindle {
namespace {

/// Files take whole blocks, the smallest message as well.
constexpr std::size_t block_bytes = 4096;

std::size_t neededBytes(std::size_t file_bytes) {
    return (file_bytes + block_bytes - 1) / block_bytes * block_bytes;
}

}  // namespace

bool RecordBudget::canEverTake(std::size_t file_bytes) {
    return neededBytes(file_bytes) <= budget_bytes;
}

bool RecordBudget::take(std::size_t file_bytes) {
    const auto now = std::chrono::floor<std::chrono::seconds>(clock_.sinceBoot());
    while (!taken_.empty() && now - taken_.front().sinceBoot > period) taken_.pop_front();
    const auto used = std::accumulate(taken_.begin(), taken_.end(), std::size_t{0},
                                      [](std::size_t sum, const Taken& each) { return sum + each.bytes; });
    const auto needed = neededBytes(file_bytes);
    if (needed > budget_bytes - used) return false;
    if (taken_.empty() || taken_.back().sinceBoot != now) taken_.push_back({.sinceBoot = now});
    taken_.back().bytes += needed;
    return true;
}

}  // namespace brindle

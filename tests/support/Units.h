#pragma once

#include <cstddef>

namespace brindle::test {

/// Bytes of a kibibyte.
constexpr std::size_t kibibyte = std::size_t{1} << 10U;
/// Bytes of a mebibyte.
constexpr std::size_t mebibyte = std::size_t{1} << 20U;

}  // namespace brindle::test

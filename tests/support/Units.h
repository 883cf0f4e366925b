#pragma once

#include <cstddef>

namespace brindle::test {

/// Bytes of a mebibyte.
constexpr std::size_t mebibyte = std::size_t{1} << 20U;

}  // namespace brindle::test

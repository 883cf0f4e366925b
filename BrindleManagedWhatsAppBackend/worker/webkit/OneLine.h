#pragma once

#include <cstddef>
#include <string>

namespace brindle {

/// `text` fit for one line of a log or a status: valid UTF-8, control characters shown as "?", and not longer
/// than `most_bytes`. Pages write parts of it, and may write anything.
std::string oneLine(const std::string& text, std::size_t most_bytes);

}  // namespace brindle

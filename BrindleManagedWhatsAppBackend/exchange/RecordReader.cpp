#include "exchange/RecordReader.h"

#include <cstddef>

namespace brindle {
namespace {

/// Room for nearly every message; what is larger comes seldom.
constexpr std::size_t kept_content_bytes = std::size_t{64} << 10U;

}  // namespace

JsonValue RecordReader::document() {
    if (!parser_) parser_.emplace();
    return parser_->parseInPlace(content_);
}

void RecordReader::returnLargeMemory() noexcept {
    if (content_.capacity() <= kept_content_bytes) return;
    std::string().swap(content_);
    parser_.reset();
}

}  // namespace brindle

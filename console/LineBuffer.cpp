#include "console/LineBuffer.h"

#include <algorithm>
#include <utility>

namespace brindle::console {

std::optional<std::string> LineBuffer::next() {
    const auto end = buffer_.find('\n', scanned_);
    if (std::min(end, buffer_.size()) - begin_ > longestLineBytes_) {
        auto piece = buffer_.substr(begin_, longestLineBytes_);
        begin_ = scanned_ = begin_ + longestLineBytes_;
        return piece;
    }
    if (end == std::string::npos) {
        buffer_.erase(0, begin_);
        begin_ = 0;
        scanned_ = buffer_.size();
        return std::nullopt;
    }
    auto line = buffer_.substr(begin_, end - begin_);
    begin_ = scanned_ = end + 1;
    return line;
}

std::optional<std::string> LineBuffer::takeRest() {
    std::string rest = std::exchange(buffer_, {}).substr(begin_);
    begin_ = scanned_ = 0;
    if (rest.empty()) return std::nullopt;
    return rest;
}

}  // namespace brindle::console

#include "console/Columns.h"

#include <algorithm>

namespace brindle::console {

std::string leftAligned(std::string_view text, std::size_t columns) {
    std::string cell(text);
    cell.resize(std::max(columns, cell.size() + 1), ' ');
    return cell;
}

std::string rightAligned(std::string_view text, std::size_t columns) {
    return std::string(columns - std::min(columns, text.size()), ' ').append(text);
}

}  // namespace brindle::console

#include "console/Columns.h"

#include <wchar.h>

#include <algorithm>

namespace brindle::console {

std::size_t columnsOf(std::string_view text) {
    std::size_t columns = 0;
    mbstate_t state{};
    while (!text.empty()) {
        wchar_t character = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): only a null state would be shared.
        const auto length = ::mbrtowc(&character, text.data(), text.size(), &state);
        // No text in this locale, where each byte takes a column.
        if (length == 0 || length > text.size()) return columns + text.size();
        columns += static_cast<std::size_t>(std::max(::wcwidth(character), 0));
        text.remove_prefix(length);
    }
    return columns;
}

std::string leftAligned(std::string_view text, std::size_t columns) {
    const auto used = columnsOf(text);
    return std::string(text).append(std::max(columns, used + 1) - used, ' ');
}

std::string rightAligned(std::string_view text, std::size_t columns) {
    return std::string(columns - std::min(columns, text.size()), ' ').append(text);
}

}  // namespace brindle::console

#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "support/Json.h"

namespace brindle::test {

/// Where a message of a storm comes from.
enum class Series : char {
    inbound = 'm',   ///< Written into "inbound" by the harness, as a worker does.
    outbound = 's',  ///< Sent by the parent.
    echo = 'e',      ///< The native worker's answer to one that was sent.
    page = 'g',      ///< Shown by the page of the built-in worker.
    garbage = 'x',   ///< No record at all.
};

/// A message of known content: its number in its series tells all of it.
struct Message {
    Series series = Series::inbound;
    std::int64_t number = 0;

    // NOLINTNEXTLINE(modernize-use-nullptr): it means the comparison with zero that the compiler writes.
    auto operator<=>(const Message&) const = default;

    /// Short for most, some larger than a pipe.
    std::string text() const;
    std::string name() const;
    /// The identifier of an inbound message of the harness; as text in the order of the numbers.
    std::string identifier() const;

    /// The message whose text this is, to the last byte; nothing when it is none.
    static std::optional<Message> withText(std::string_view text);
    /// The message in a record of an inbound or outbound file or in an event.
    static std::optional<Message> in(const Json& record);
};

}  // namespace brindle::test

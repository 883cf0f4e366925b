#include "exchange/RecordIdentifiers.h"

#include <cstddef>
#include <string_view>

#include "exchange/RecordFiles.h"
#include "text/Failure.h"

namespace brindle {
namespace {

constexpr std::size_t identifier_characters = 36;

}  // namespace

std::string RecordIdentifiers::next() {
    if (!isAboveWaiting_) riseAboveWaiting();
    return identifiers_.next();
}

void RecordIdentifiers::riseAboveWaiting() {
    try {
        for (const auto& name : fileManager_.visibleEntries(directory_)) {
            if (!isRecordFileName(name)) continue;
            // A worker may put more behind the identifier; the order is the identifier's.
            const auto identifier = std::string_view(name).substr(0, identifier_characters);
            // One at the very end would leave no room for an order. It comes last and spoils nobody else's.
            if (AscendingIdentifiers::leavesRoomAbove(identifier)) identifiers_.riseAbove(identifier);
        }
        isAboveWaiting_ = true;
    } catch (const Failure&) {
        // Tried again with the next one. What keeps a directory from being listed usually keeps the record
        // from being written too, and then the writer says so.
    }
}

}  // namespace brindle

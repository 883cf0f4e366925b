#pragma once

#include <exception>

namespace brindle {

/// Does something that is worth doing only when it succeeds, like saying what went wrong: nothing gets out.
template <class Work>
void withoutFailing(const Work& work) noexcept {
    try {
        work();
    } catch (...) {
        // Even the words for a failure take memory; where there is none, nobody hears of it.
    }
}

/// Does work that must not fail outward and hands what went wrong to `report`, which may fail too: its
/// message is best put together in there.
template <class Work, class Report>
void withoutFailing(const Work& work, const Report& report) noexcept {
    try {
        work();
    } catch (const std::exception& error) {
        withoutFailing([&] { report(error); });
    } catch (...) {
        // The system throws nothing else.
    }
}

}  // namespace brindle

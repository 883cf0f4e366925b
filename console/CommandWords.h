#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace brindle::console {

/// The words of a command line. White space separates; '...' and "..." keep it. A backslash takes the next
/// character as it is, in "..." and outside of quotes, except for \n and \t. Throws Failure when a quote is
/// left open or a backslash ends the line.
std::vector<std::string> splitWords(std::string_view line);

/// A line whose end is still being typed.
struct UnfinishedWords {
    /// The words before the last one.
    std::vector<std::string> words;
    /// What there is of the last one, without its quotes; empty behind white space.
    std::string last;
    /// Where it begins in the line, its quote included.
    std::size_t lastBegin = 0;
};

/// The words of the beginning of a line. Never fails: an open quote is a word that goes on.
UnfinishedWords splitUnfinished(std::string_view line);

/// `word` as splitWords() reads it back: in quotes where it needs them.
std::string quotedWord(std::string_view word);

}  // namespace brindle::console

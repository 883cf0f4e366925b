#include "console/CommandGrammar.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace brindle::console {
namespace {

constexpr std::string_view repetition_mark = "...";

/// Reads a usage with the words of a line at its side. Positions are numbers of words that are used up; what
/// a part of the usage would take behind the last word is expected next.
class Matcher {
  public:
    using Positions = std::set<std::size_t>;

    Matcher(std::string_view usage, std::span<const std::string> words) : rest_(usage), words_(words) {}

    std::set<std::string> expected() {
        // The name of the command.
        const auto begin = word({0});
        alternatives(begin);
        return std::move(expected_);
    }

  private:
    void skipBlanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(' '), rest_.size())); }

    bool skip(std::string_view mark) {
        skipBlanks();
        if (!rest_.starts_with(mark)) return false;
        rest_.remove_prefix(mark.size());
        return true;
    }

    /// Sequences with "|" between them. Words with "|" and no blanks between them are alternatives of one
    /// word: their "|" is taken by word().
    Positions alternatives(const Positions& begin) {
        Positions ends = sequence(begin);
        while (skip("|")) ends.merge(sequence(begin));
        return ends;
    }

    Positions sequence(Positions positions) {
        for (skipBlanks(); !rest_.empty() && rest_.front() != ']' && rest_.front() != '|'; skipBlanks()) {
            positions = rest_.front() == '[' ? options(positions) : word(positions);
        }
        return positions;
    }

    /// Options that stand side by side come in any order and each may come again: a line that is offered too
    /// much is better than one that is offered too little.
    Positions options(Positions positions) {
        const auto begin = rest_;
        // No more rounds than there are words can use any up.
        for (std::size_t round = 0; round <= words_.size(); ++round) {
            rest_ = begin;
            while (skip("[")) {
                positions.merge(alternatives(positions));
                skip("]");
                skip(repetition_mark);
            }
        }
        return positions;
    }

    Positions word(const Positions& positions) {
        std::size_t end = 0;
        // A bracket inside of a word belongs to it: CASE[.STATE].
        while (end < rest_.size() && rest_[end] != ' ' && rest_[end] != ']') {
            end = rest_[end] == '[' ? rest_.find(']', end) + 1 : end + 1;
        }
        auto choices = rest_.substr(0, end);
        rest_.remove_prefix(end);
        Positions ends;
        while (!choices.empty()) {
            const auto choice = choices.substr(0, choices.find('|'));
            choices.remove_prefix(std::min(choice.size() + 1, choices.size()));
            match(choice, positions, ends);
        }
        return ends;
    }

    void match(std::string_view choice, const Positions& positions, Positions& ends) {
        for (const auto position : positions) {
            if (position == words_.size()) {
                expected_.emplace(choice);
            } else if (words_[position] == choice || isPlaceholder(choice)) {
                ends.insert(position + 1);
            }
        }
    }

    std::string_view rest_;
    std::span<const std::string> words_;
    std::set<std::string> expected_;
};

}  // namespace

std::set<std::string> expectedNext(std::string_view usage, std::span<const std::string> words) {
    return Matcher(usage, words).expected();
}

bool isPlaceholder(std::string_view usageWord) {
    return !usageWord.empty() && usageWord.front() >= 'A' && usageWord.front() <= 'Z';
}

}  // namespace brindle::console

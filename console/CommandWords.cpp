#include "console/CommandWords.h"

#include <algorithm>
#include <utility>

#include "text/Failure.h"

namespace brindle::console {
namespace {

constexpr std::string_view word_separators = " \t\r\n\v\f";

class WordSplitter {
  public:
    explicit WordSplitter(std::string_view line) : line_(line), rest_(line) {}

    std::vector<std::string> split() {
        while (!rest_.empty()) takeNext();
        if (quote_ != 0) throw Failure(std::string("The quote ") + quote_ + " is not closed.");
        endWord();
        return std::move(words_);
    }

    UnfinishedWords splitUnfinished() {
        // A backslash at the very end has nothing yet to take as it is.
        while (!rest_.empty() && rest_ != "\\") takeNext();
        return {.words = std::move(words_),
                .last = std::move(word_),
                .lastBegin = hasWord_ ? wordBegin_ : line_.size()};
    }

  private:
    void takeNext() {
        if (!hasWord_) wordBegin_ = line_.size() - rest_.size();
        const char next = rest_.front();
        rest_.remove_prefix(1);
        if (next == '\\' && quote_ != '\'') {
            append(escapedCharacter());
        } else if (quote_ != 0) {
            if (next == quote_) {
                quote_ = 0;
            } else {
                append(next);
            }
        } else if (next == '"' || next == '\'') {
            quote_ = next;
            hasWord_ = true;
        } else if (word_separators.find(next) != std::string_view::npos) {
            endWord();
        } else {
            append(next);
        }
    }

    char escapedCharacter() {
        if (rest_.empty()) throw Failure("Nothing follows the backslash at the end of the line.");
        const char escaped = rest_.front();
        rest_.remove_prefix(1);
        if (escaped == 'n') return '\n';
        if (escaped == 't') return '\t';
        return escaped;
    }

    void append(char character) {
        hasWord_ = true;
        word_ += character;
    }

    void endWord() {
        if (hasWord_) words_.push_back(std::exchange(word_, {}));
        hasWord_ = false;
    }

    std::string_view line_;
    std::string_view rest_;
    std::vector<std::string> words_;
    std::string word_;
    /// A word can be empty: "".
    bool hasWord_ = false;
    std::size_t wordBegin_ = 0;
    /// The quote that is open; 0 when none is.
    char quote_ = 0;
};

}  // namespace

std::vector<std::string> splitWords(std::string_view line) {
    return WordSplitter(line).split();
}

UnfinishedWords splitUnfinished(std::string_view line) {
    return WordSplitter(line).splitUnfinished();
}

std::string quotedWord(std::string_view word) {
    constexpr std::string_view harmless =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_./:@+,=~%";
    const bool isPlain = std::all_of(word.begin(), word.end(), [&](char each) {
        return harmless.find(each) != std::string_view::npos || static_cast<unsigned char>(each) >= 0x80;
    });
    if (isPlain && !word.empty()) return std::string(word);
    std::string quoted = "\"";
    for (const char each : word) {
        if (each == '"' || each == '\\') quoted += '\\';
        quoted += each;
    }
    return quoted + "\"";
}

}  // namespace brindle::console

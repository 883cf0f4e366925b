#include "console/Replay.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string_view>
#include <utility>

#include "console/TerminalText.h"

namespace brindle::console {
namespace {

/// Beyond this many pairs of lines the comparison would take too long and too much memory.
constexpr std::size_t most_compared_pairs = std::size_t{1} << 24U;

/// As a time and an identifier look: 0 stands for a digit, F for a hexadecimal one, all else for itself.
constexpr std::string_view time_pattern = "0000-00-00T00:00:00Z";
constexpr std::string_view identifier_pattern = "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF";

bool beginsLike(std::string_view text, std::string_view pattern) {
    const auto fits = [](char character, char place) {
        const bool isDigit = character >= '0' && character <= '9';
        if (place == '0') return isDigit;
        if (place == 'F') return isDigit || (character >= 'A' && character <= 'F');
        return character == place;
    };
    return text.size() >= pattern.size() &&
           std::equal(pattern.begin(), pattern.end(), text.begin(),
                      [&](char place, char character) { return fits(character, place); });
}

/// Replaces what is new at each run, the same by the same.
class Placeholders {
  public:
    std::string putInto(std::string_view line) {
        std::string result;
        while (!line.empty()) {
            std::size_t length = 1;
            if (beginsLike(line, time_pattern)) {
                length = time_pattern.size();
                result += "<time>";
            } else if (beginsLike(line, identifier_pattern)) {
                length = identifier_pattern.size();
                result += numbered(std::string(line.substr(0, length)));
            } else {
                result += line.front();
            }
            line.remove_prefix(length);
        }
        return result;
    }

    std::vector<std::string> putInto(const std::vector<std::string>& lines) {
        std::vector<std::string> result;
        result.reserve(lines.size());
        for (const auto& line : lines) result.push_back(putInto(line));
        return result;
    }

  private:
    std::string numbered(const std::string& identifier) {
        const auto [entry, isNew] = numbers_.try_emplace(identifier, numbers_.size() + 1);
        return "<identifier " + std::to_string(entry->second) + ">";
    }

    std::map<std::string, std::size_t> numbers_;
};

/// For each pair of ends of two lists, how many lines they have in common in the same order.
class CommonLines {
  public:
    CommonLines(const std::vector<std::string>& before, const std::vector<std::string>& now)
        : columns_(now.size() + 1), counts_((before.size() + 1) * columns_) {
        for (std::size_t i = before.size(); i-- > 0;) {
            for (std::size_t j = now.size(); j-- > 0;) {
                counts_[i * columns_ + j] =
                    before[i] == now[j] ? at(i + 1, j + 1) + 1 : std::max(at(i + 1, j), at(i, j + 1));
            }
        }
    }

    std::uint32_t at(std::size_t i, std::size_t j) const { return counts_[i * columns_ + j]; }

  private:
    std::size_t columns_;
    std::vector<std::uint32_t> counts_;
};

std::string marked(char mark, const std::string& line) {
    return std::string(1, mark) + " " + terminalSafeJson(line) + "\n";
}

}  // namespace

std::string lineDifferences(const std::vector<std::string>& before, const std::vector<std::string>& now) {
    if (before == now) return {};
    if ((before.size() + 1) * (now.size() + 1) > most_compared_pairs) {
        return "(too long to compare line by line, but not the same)\n";
    }
    const CommonLines common(before, now);
    std::string text;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < before.size() || j < now.size()) {
        if (i < before.size() && j < now.size() && before[i] == now[j]) {
            ++i;
            ++j;
        } else if (j == now.size() || (i < before.size() && common.at(i + 1, j) >= common.at(i, j + 1))) {
            text += marked('-', before[i++]);
        } else {
            text += marked('+', now[j++]);
        }
    }
    return text;
}

Replay::Replay(std::vector<RecordedLine> recording, const std::vector<std::string>& already)
    : recording_(std::move(recording)) {
    // A recording that began later has nothing of the greeting.
    if (!recording_.empty() && !recording_.front().isToHelper()) received_ = already;
}

void Replay::received(std::string_view line) {
    received_.emplace_back(line);
    lastSign_ = std::chrono::steady_clock::now();
}

bool Replay::isComplete() const {
    return next_ == recording_.size() && expectedSoFar_ <= received_.size() &&
           std::chrono::steady_clock::now() - lastSign_ >= quiet_time;
}

std::optional<std::string> Replay::nextRequest() {
    while (next_ < recording_.size() && !recording_[next_].isToHelper()) {
        ++expectedSoFar_;
        ++next_;
    }
    if (next_ == recording_.size() || received_.size() < expectedSoFar_) return std::nullopt;
    lastSign_ = std::chrono::steady_clock::now();
    return recording_[next_++].line;
}

std::chrono::milliseconds Replay::recordedLength() const {
    return std::chrono::milliseconds(recording_.empty() ? 0 : recording_.back().milliseconds);
}

std::vector<std::string> Replay::recordedReplies() const {
    std::vector<std::string> replies;
    for (const auto& each : recording_) {
        if (!each.isToHelper()) replies.push_back(each.line);
    }
    return replies;
}

std::size_t Replay::requestCount() const {
    return recording_.size() - recordedReplies().size();
}

std::string Replay::differences() const {
    return lineDifferences(Placeholders().putInto(recordedReplies()), Placeholders().putInto(received_));
}

}  // namespace brindle::console

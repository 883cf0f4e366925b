#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "console/Recording.h"

namespace brindle::console {

/// How long nothing may come before nothing more is expected.
inline constexpr std::chrono::milliseconds quiet_time{500};

/// Sends the requests of a recording again, each once as much has come back as had come back then, and
/// compares what comes.
class Replay {
  public:
    /// `already` has come before there was anything to send: the greeting, when the recording begins with it.
    Replay(std::vector<RecordedLine> recording, const std::vector<std::string>& already);

    void received(std::string_view line);
    /// The next request, when it is its turn.
    std::optional<std::string> nextRequest();
    /// Whether everything was sent, as much has come as had come then, and nothing more seems to come.
    bool isComplete() const;
    /// How long the recorded session took.
    std::chrono::milliseconds recordedLength() const;
    /// What differs, a line each: "-" for what had come then and "+" for what has come now; empty when
    /// nothing does. Times and identifiers that are new each time do not count.
    std::string differences() const;
    std::size_t requestCount() const;
    std::size_t replyCount() const { return received_.size(); }

  private:
    std::vector<std::string> recordedReplies() const;

    std::vector<RecordedLine> recording_;
    std::vector<std::string> received_;
    std::size_t next_ = 0;
    /// How many replies were recorded before the next request.
    std::size_t expectedSoFar_ = 0;
    std::chrono::steady_clock::time_point lastSign_ = std::chrono::steady_clock::now();
};

/// What differs between two lists of lines, with the marks of Replay::differences().
std::string lineDifferences(const std::vector<std::string>& before, const std::vector<std::string>& now);

}  // namespace brindle::console

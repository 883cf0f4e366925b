#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "console/ReadableEnvelope.h"
#include "records/Record.h"
#include "system/Descriptor.h"
#include "system/FileManager.h"

namespace brindle::console {

/// A line of the protocol in a recording, which holds one of these as JSON on each of its lines.
struct RecordedLine {
    std::int64_t milliseconds = 0;
    std::string direction;
    std::string line;

    static constexpr auto fields() {
        return std::tuple{
            field("milliseconds", &RecordedLine::milliseconds, "Since the recording has begun."),
            field("direction", &RecordedLine::direction, "\"toHelper\" or \"fromHelper\"."),
            field("line", &RecordedLine::line, "The line of the protocol as it is."),
        };
    }

    bool isToHelper() const { return direction == to_helper; }
    /// Whether Recording can have written it.
    bool isGenuine() const;

    static constexpr std::string_view to_helper = "toHelper";
    static constexpr std::string_view from_helper = "fromHelper";
};

/// Writes what a session exchanges to a file of this user's alone (0600), line by line.
class Recording {
  public:
    /// Makes the file; one that exists is not replaced. `secret` never gets into it. Throws
    /// FileSystemFailure.
    Recording(const std::string& path, std::string secret);

    /// Throws FileSystemFailure.
    void add(Direction direction, std::string_view line);

  private:
    std::string path_;
    std::string secret_;
    Descriptor file_;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

/// The lines of a recording, one at least. Throws FileSystemFailure, or Failure when a line is none.
std::vector<RecordedLine> readRecording(FileManager& fileManager, const std::string& path);

}  // namespace brindle::console

#include "console/Recording.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <optional>
#include <utility>

#include "console/LineBuffer.h"
#include "records/DecodingFailure.h"
#include "system/FileSystemFailure.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

constexpr mode_t private_mode = 0600;
constexpr std::string_view secret_replacement = "(launch token)";
/// No session lasts that long; what says so was written by somebody else.
constexpr std::chrono::hours longest_recording{24 * 366};

std::string without(std::string_view line, const std::string& secret) {
    std::string text(line);
    if (secret.empty()) return text;
    for (auto at = text.find(secret); at != std::string::npos; at = text.find(secret, at)) {
        text.replace(at, secret.size(), secret_replacement);
    }
    return text;
}

std::optional<RecordedLine> decodedLine(const std::string& line) {
    try {
        auto recorded = decodedRecord<RecordedLine>(line);
        if (recorded.isGenuine()) return recorded;
    } catch (const DecodingFailure&) {
        // Something else than a recording.
    }
    return std::nullopt;
}

}  // namespace

bool RecordedLine::isGenuine() const {
    const std::chrono::milliseconds longest = longest_recording;
    return (isToHelper() || direction == from_helper) && milliseconds >= 0 && milliseconds <= longest.count();
}

Recording::Recording(const std::string& path, std::string secret)
    : path_(path),
      secret_(std::move(secret)),
      file_(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, private_mode)) {
    const int error = errno;
    if (file_.isOpen()) return;
    if (error == EEXIST) {
        throw Failure("The recording " + path +
                      " exists already and is not replaced; name another file, or remove that one.");
    }
    throw FileSystemFailure("create the recording", path, error);
}

void Recording::add(Direction direction, std::string_view line) {
    const auto elapsed = std::chrono::steady_clock::now() - begin_;
    const RecordedLine recorded{
        .milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(),
        .direction = std::string(direction == Direction::toHelper ? RecordedLine::to_helper
                                                                  : RecordedLine::from_helper),
        .line = without(line, secret_)};
    const auto text = encodedRecord(recorded, JsonStyle::compact) + "\n";
    for (std::string_view rest(text); !rest.empty();) {
        const auto count = ::write(file_.get(), rest.data(), rest.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) throw FileSystemFailure("write the recording", path_, errno);
        rest.remove_prefix(static_cast<std::size_t>(count));
    }
}

std::vector<RecordedLine> readRecording(FileManager& fileManager, const std::string& path) {
    LineBuffer lines;
    lines.append(fileManager.readFile(path));
    std::vector<RecordedLine> recording;
    while (const auto line = lines.next()) {
        auto recorded = decodedLine(*line);
        if (!recorded) {
            throw Failure("Line " + std::to_string(recording.size() + 1) + " of " + path +
                          " is no line of a recording; was it made with record?");
        }
        recording.push_back(std::move(*recorded));
    }
    // What is missing would look like a difference.
    if (lines.takeRest()) {
        throw Failure(
            "Line " + std::to_string(recording.size() + 1) + " of " + path +
            " is not complete: the recording was cut off, or is none; remove that line, or record anew.");
    }
    if (recording.empty()) throw Failure(path + " is empty: there is nothing to replay.");
    return recording;
}

}  // namespace brindle::console

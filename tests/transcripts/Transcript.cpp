/// Runs a conversation in the real console against the real helper and compares it with what is written down:
/// transcript [--update] FILE
///
/// A transcript is a script of the console. What it exchanged stands below each command, and what it left
/// behind at the end, in comments that begin with "#|"; --update writes these anew. "#@ options ..." gives
/// the console more options, "#@ file PATH CONTENT" lays out a file before it starts. Paths are relative to a
/// directory of the run's own, whose "data" is the data directory.
///
/// When the helper's answer comes before or after the console has said which command is next is chance.
/// So what was received stands below the last of the commands that wait for it: a transcript begins with one
/// that waits for the greeting, and waits for every answer before it goes on.
#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "support/TextForms.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

constexpr std::string_view record_mark = "#|";
constexpr std::string_view options_mark = "#@ options ";
constexpr std::string_view file_mark = "#@ file ";
constexpr std::string_view files_mark = "#@ files";
/// The worker logs when it likes; that is no part of the conversation.
constexpr std::string_view worker_log_mark = "helper| [ManagedWhatsAppWorker]";
constexpr std::string_view command_mark = "> ";
/// Stands in options for the sample native worker.
constexpr std::string_view sample_worker_placeholder = "<sample worker>";

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

std::string replacedAll(std::string text, std::string_view from, std::string_view to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

bool isCommand(const std::string& line) {
    const auto first = line.find_first_not_of(" \t");
    return first != std::string::npos && line[first] != '#';
}

bool isWaitingCommand(const std::string& line) {
    return line.starts_with("expect ") || line.starts_with("wait-status ");
}

/// What the author of a transcript wrote: everything but what was recorded.
Lines authoredLines(const fs::path& file) {
    Lines lines = linesOf(readFile(file));
    std::erase_if(lines, [](const std::string& line) { return line.starts_with(record_mark); });
    return lines;
}

/// What a run showed and left behind.
struct Run {
    /// The lines shown before the first command and after each.
    std::vector<Lines> sections{{}};
    /// The lines on standard error, then the files in the data directory.
    Lines afterwards;
};

/// The time of day that each envelope is shown with is nobody's concern.
std::string withoutTimeOfDay(const std::string& line) {
    static const std::regex time(R"(^\d{2}:\d{2}:\d{2}(\.\d{3})? )");
    return std::regex_replace(line, time, "");
}

BackendOptions consoleOptions(const Lines& authored, const fs::path& file, const fs::path& directory) {
    BackendOptions options;
    options.executable = consoleExecutable();
    options.workingDirectory = directory;
    options.environment["LC_ALL"] = "C.UTF-8";
    options.arguments = {"--data-dir", "data", "--script", fs::absolute(file)};
    for (const auto& line : authored) {
        if (!line.starts_with(options_mark)) continue;
        const auto text = replacedAll(line.substr(options_mark.size()), sample_worker_placeholder,
                                      nativeWorkerExecutable());
        std::istringstream words(text);
        for (std::string word; words >> word;) options.arguments.push_back(word);
    }
    return options;
}

void layOutFiles(const Lines& authored, const fs::path& directory) {
    for (const auto& line : authored) {
        if (!line.starts_with(file_mark)) continue;
        const auto rest = line.substr(file_mark.size());
        const auto end = rest.find(' ');
        const auto path = directory / rest.substr(0, end);
        fs::create_directories(path.parent_path());
        writeFileAtomically(path, end == std::string::npos ? "" : rest.substr(end + 1));
    }
}

/// The message records in the data directory; of those on their way to the worker the content, too.
void addFiles(const fs::path& data, Lines& lines) {
    for (const std::string folder : {"inbound", "outbound", "processed", "rejected"}) {
        if (!fs::exists(data / folder)) continue;
        for (const auto& name : namesIn(data / folder)) {
            lines.push_back("in " + folder + ": " + name);
            if (folder != "outbound") continue;
            for (const auto& line : linesOf(readFile(data / folder / name))) lines.push_back("  " + line);
        }
    }
}

Run run(const Lines& authored, const fs::path& file, const fs::path& directory) {
    layOutFiles(authored, directory);
    BackendProcess console(consoleOptions(authored, file, directory));
    const auto status = console.waitForExit();
    if (status != exitedWith(0)) throw TestFailure(console.rawOutput() + console.standardError());
    Run result;
    for (const auto& line : linesOf(console.rawOutput())) {
        if (line.starts_with(command_mark)) {
            result.sections.emplace_back();
        } else {
            result.sections.back().push_back(withoutTimeOfDay(line));
        }
    }
    result.afterwards = console.standardErrorLines();
    std::erase_if(result.afterwards,
                  [](const std::string& line) { return line.starts_with(worker_log_mark); });
    if (std::find(authored.begin(), authored.end(), files_mark) != authored.end()) {
        addFiles(directory / "data", result.afterwards);
    }
    return result;
}

/// Replaces what differs from run to run.
class Placeholders {
  public:
    Placeholders(const Lines& authored, const fs::path& directory) : directory_(directory.string()) {
        for (const auto& line : authored) authored_.append(line).append("\n");
    }

    std::string putInto(std::string line) {
        static const std::regex time(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z)");
        static const std::regex identifier("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}");
        /// With which the sample worker lets its names ascend.
        static const std::regex number(R"(\b\d{20}\b)");
        line = replacedAll(std::move(line), directory_, "<directory>");
        line = replacedAll(std::move(line), nativeWorkerExecutable(), sample_worker_placeholder);
        line = replaced(line, time, [](const std::string&) { return std::string("<time>"); });
        line = replaced(line, number, [](const std::string&) { return std::string("<number>"); });
        return replaced(line, identifier, [this](const std::string& text) { return numbered(text); });
    }

  private:
    template <class Replacement>
    std::string replaced(const std::string& line, const std::regex& pattern,
                         const Replacement& replacement) const {
        std::string result;
        auto rest = line.cbegin();
        for (std::sregex_iterator found(line.begin(), line.end(), pattern), end; found != end; ++found) {
            const auto text = found->str();
            const bool isGiven = authored_.find(text) != std::string::npos;
            result.append(rest, (*found)[0].first).append(isGiven ? text : replacement(text));
            rest = (*found)[0].second;
        }
        return result.append(rest, line.cend());
    }

    /// The same identifier gets the same number each time.
    std::string numbered(const std::string& identifier) {
        const auto known = std::find(identifiers_.begin(), identifiers_.end(), identifier);
        const auto number = known - identifiers_.begin() + 1;
        if (known == identifiers_.end()) identifiers_.push_back(identifier);
        return "<identifier " + std::to_string(number) + ">";
    }

    std::string directory_;
    std::string authored_;
    Lines identifiers_;
};

/// The authored lines with what was recorded in its places.
std::string merged(const Lines& authored, const Run& run, const fs::path& directory) {
    Lines commands;
    std::copy_if(authored.begin(), authored.end(), std::back_inserter(commands), isCommand);
    if (commands.size() + 1 != run.sections.size()) {
        throw TestFailure("The console ran " + std::to_string(run.sections.size() - 1) + " of " +
                          std::to_string(commands.size()) + " commands.");
    }
    Placeholders placeholders(authored, directory);
    std::string text;
    std::string recorded;
    const auto record = [&](const Lines& lines) {
        for (const auto& line : lines) {
            recorded.append(record_mark).append(" ").append(placeholders.putInto(line)).append("\n");
        }
    };
    record(run.sections.front());
    std::size_t command = 0;
    for (const auto& line : authored) {
        text.append(line).append("\n");
        if (!isCommand(line)) continue;
        record(run.sections[++command]);
        if (command < commands.size() && isWaitingCommand(commands[command])) continue;
        text.append(std::exchange(recorded, {}));
    }
    record(run.afterwards);
    return text + recorded;
}

/// What the transcript in `file` is when it is run now.
std::string recordedNow(const fs::path& file) {
    const TemporaryDirectory directory;
    const auto authored = authoredLines(file);
    return merged(authored, run(authored, file, directory.path()), directory.path());
}

void reportFirstDifference(const std::string& expected, const std::string& actual) {
    const auto expectedLines = linesOf(expected);
    const auto actualLines = linesOf(actual);
    const auto place =
        std::mismatch(expectedLines.begin(), expectedLines.end(), actualLines.begin(), actualLines.end());
    const auto shown = [](auto at, const Lines& lines) { return at == lines.end() ? "(the end)" : *at; };
    std::cerr << "Line " << place.first - expectedLines.begin() + 1 << " differs:\n- "
              << shown(place.first, expectedLines) << "\n+ " << shown(place.second, actualLines)
              << "\nIf the new line is right, run scripts/update-transcripts. All of it:\n\n"
              << actual;
}

int check(const fs::path& file) {
    const auto expected = readFile(file);
    const auto actual = recordedNow(file);
    if (actual == expected) return EXIT_SUCCESS;
    reportFirstDifference(expected, actual);
    return EXIT_FAILURE;
}

int update(const fs::path& file) {
    writeFileAtomically(file, recordedNow(file));
    return EXIT_SUCCESS;
}

}  // namespace
}  // namespace brindle::test

int main(int argumentCount, char** arguments) {
    const std::vector<std::string> words(arguments + 1, arguments + argumentCount);
    try {
        if (words.size() == 1) return brindle::test::check(words[0]);
        if (words.size() == 2 && words[0] == "--update") return brindle::test::update(words[1]);
    } catch (const std::exception& failure) {
        std::cerr << words.back() << ": " << failure.what() << "\n";
        return EXIT_FAILURE;
    }
    std::cerr << "Usage: transcript [--update] FILE\n";
    return EXIT_FAILURE;
}

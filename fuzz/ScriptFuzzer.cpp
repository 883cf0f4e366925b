/// The console's script language.
///
/// Whatever a script of the console holds, it is either understood or refused with one line that names the
/// place, and its lines are the same whether they come from a file or, in pieces, through a pipe.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "console/Command.h"
#include "console/CommandInput.h"
#include "console/CommandWords.h"
#include "console/LineBuffer.h"
#include "fuzz/MemoryStream.h"
#include "fuzz/Promises.h"
#include "fuzz/ScratchDirectory.h"
#include "text/Failure.h"

namespace {

using namespace brindle;
using namespace brindle::console;
using fuzz::require;

/// As the script is cut into lines.
std::vector<std::string> linesOf(std::string_view script) {
    std::vector<std::string> lines;
    for (const auto line : fuzz::separated(script, '\n')) lines.emplace_back(line);
    if (lines.back().empty()) lines.pop_back();
    return lines;
}

void requireSameLinesInPieces(std::string_view script, std::size_t pieceBytes) {
    LineBuffer buffer;
    std::vector<std::string> lines;
    while (!script.empty()) {
        buffer.append(script.substr(0, pieceBytes));
        script.remove_prefix(std::min(script.size(), pieceBytes));
        while (auto line = buffer.next()) lines.push_back(std::move(*line));
    }
    if (auto rest = buffer.takeRest()) lines.push_back(std::move(*rest));
    require(!buffer.next() && !buffer.takeRest(), "nothing follows the rest");
    std::string whole;
    for (const auto& line : lines) whole.append(line).append("\n");
    require(lines == linesOf(whole), "lines do not depend on the pieces that they come in");
}

std::vector<std::string> linesThroughPipe(std::string_view script) {
    const fuzz::MemoryStream stream(script);
    StreamInput input(stream.descriptor(), "stream", false);
    std::vector<std::string> lines;
    while (!input.isAtEnd()) {
        input.receive();
        while (auto line = input.next()) lines.push_back(std::move(line->text));
    }
    return lines;
}

std::string quoted(const std::string& word) {
    std::string text = "\"";
    for (const char character : word) {
        if (character == '"' || character == '\\') text += '\\';
        text += character;
    }
    return text + "\"";
}

void requireLastingWords(std::string_view line) {
    const auto words = splitWords(line);
    std::string again;
    for (const auto& word : words) again.append(quoted(word)).append(" ");
    require(splitWords(again) == words, "words in quotes stay as they are");
}

void requireSensible(const Command& command) {
    if (const auto* expect = std::get_if<ExpectCommand>(&command)) {
        require(!expect->expectation.description().empty(), "what is expected can be said");
        require(expect->patience.count() >= 0, "nobody waits less than no time");
    }
    if (const auto* listen = std::get_if<ListenCommand>(&command)) {
        // Written once: what of a script is no text is repaired on its way to the helper.
        const auto line =
            encodedLine(BridgeStartListeningRequest{.platform = "whatsapp", .scope = listen->scope});
        fuzz::requireLasting(decodedRecord<BridgeEnvelope>(std::string_view(line)));
    }
}

/// Whether it is a command, a comment or nothing.
bool isUnderstood(std::string_view line) {
    try {
        if (const auto command = parseCommand(line)) requireSensible(*command);
        return true;
    } catch (const Failure& failure) {
        fuzz::requireSentence(failure.what());
        return false;
    }
}

bool isUnderstoodAsWords(std::string_view line) {
    try {
        requireLastingWords(line);
        return true;
    } catch (const Failure& failure) {
        fuzz::requireSentence(failure.what());
        return false;
    }
}

/// Whether the console takes the script; if so, its commands.
std::optional<std::size_t> commandsOfFile(std::string_view script) {
    const fuzz::ScratchDirectory directory;
    const auto path = (directory.path() / "script").string();
    std::ofstream(path, std::ios::binary) << script;
    try {
        ScriptInput input(path);
        std::size_t count = 0;
        while (input.next()) ++count;
        require(input.isAtEnd(), "after its last line a script is at its end");
        return count;
    } catch (const Failure& failure) {
        require(std::string_view(failure.what()).starts_with(path + ":"),
                "what is wrong with a script has a place");
        return std::nullopt;
    }
}

bool isCommand(std::string_view line) {
    return !trimmed(line).empty() && !trimmed(line).starts_with('#');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const auto script = fuzz::inputText(data + 1, size - 1);
    requireSameLinesInPieces(script, data[0] + std::size_t{1});
    const auto lines = linesOf(script);
    require(linesThroughPipe(script) == lines, "a pipe brings the lines of the script");
    bool areAllUnderstood = true;
    std::size_t commands = 0;
    for (const auto& line : lines) {
        isUnderstoodAsWords(line);
        areAllUnderstood = isUnderstood(line) && areAllUnderstood;
        if (isCommand(line)) ++commands;
    }
    const auto taken = commandsOfFile(script);
    require(taken.has_value() == areAllUnderstood, "a script is taken when every line is understood");
    require(!taken || *taken == commands, "every command of a script is carried out");
    return 0;
}

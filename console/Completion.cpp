#include "console/Completion.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "console/Command.h"
#include "console/CommandGrammar.h"
#include "console/CommandWords.h"
#include "console/Inbox.h"
#include "console/TerminalText.h"
#include "exchange/ExchangeRecords.h"
#include "exchange/ExchangeWords.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"

namespace brindle::console {
namespace {

using Words = std::vector<std::string>;

Words commandNames() {
    Words names;
    for (const auto& each : commandDescriptions()) {
        names.emplace_back(each.name);
        if (!each.alias.empty()) names.emplace_back(each.alias);
    }
    return names;
}

Words envelopeNames() {
    Words names;
    for (const auto name : BridgeEnvelope::events) names.emplace_back(name);
    const std::string stateChanged(BridgeEnvelope::caseName<BridgeStateChangedEvent>());
    for (const auto state : BridgeConnectionState::case_names) {
        names.push_back(stateChanged + "." + std::string(state));
    }
    return names;
}

Words statusFieldNames() {
    Words names;
    for (const auto name : record::fieldNames<ManagedWhatsAppRuntimeStatusRecord>()) names.emplace_back(name);
    return names;
}

Words statusValues(std::string_view field) {
    if (field == "workerState") return {worker_state::every_word.begin(), worker_state::every_word.end()};
    if (field == "connectionState") {
        return {std::string(connection_word::connected), std::string(connection_word::disconnected)};
    }
    return {};
}

/// The files whose paths begin like this; directories end in a slash.
Words files(std::string_view beginning, FileManager& fileManager) {
    const auto slash = beginning.rfind('/');
    const std::string directory(slash == std::string_view::npos ? "" : beginning.substr(0, slash + 1));
    Words paths;
    try {
        for (const auto& name : fileManager.visibleEntries(directory.empty() ? "." : directory)) {
            auto path = directory + name;
            const auto attributes = fileManager.attributes(path);
            if (attributes && attributes->isDirectory) path += '/';
            paths.push_back(std::move(path));
        }
    } catch (const FileSystemFailure&) {
        // What cannot be listed has nothing to offer.
    }
    return paths;
}

class Offer {
  public:
    Offer(const UnfinishedWords& line, const CompletionSources& sources) : line_(line), sources_(sources) {}

    Words words() const {
        if (line_.words.empty()) return commandNames();
        Words offered;
        for (const auto& word : expectedWords()) {
            auto more = isPlaceholder(word) ? wordsFor(word) : Words{word};
            offered.insert(offered.end(), more.begin(), more.end());
        }
        return offered;
    }

  private:
    std::set<std::string> expectedWords() const {
        const auto& name = line_.words.front();
        for (const auto& each : commandDescriptions()) {
            if (each.name == name) return expectedNext(each.usage, line_.words);
        }
        return {};
    }

    Words wordsFor(std::string_view placeholder) const {
        if (placeholder.starts_with("CASE")) return envelopeNames();
        if (placeholder == "FIELD") return statusFieldNames();
        if (placeholder == "VALUE") return statusValues(line_.words.back());
        if (placeholder == "FILE") return files(line_.last, sources_.fileManager);
        if (placeholder == "NAME") return recordNames();
        if (placeholder == "TITLE") return {sources_.seen.titles().begin(), sources_.seen.titles().end()};
        if (placeholder == "CONVERSATION") return conversations();
        // What a message answers has an identifier, too, but none that the console has seen.
        if (placeholder == "ID" && line_.words.front() == "listen") return conversations();
        return {};
    }

    Words conversations() const {
        const auto& conversations = sources_.seen.conversations();
        return {conversations.begin(), conversations.end()};
    }

    Words recordNames() const {
        Words names;
        for (const auto& folder : sources_.recordFolders) {
            for (const auto& path : files(folder + "/", sources_.fileManager)) {
                names.push_back(shownFileName(lastPathComponent(path)));
            }
        }
        return names;
    }

    const UnfinishedWords& line_;
    const CompletionSources& sources_;
};

}  // namespace

void SeenNames::add(std::set<std::string>& names, const std::string& name) {
    // What a terminal would obey cannot be typed there either.
    if (name.empty() || names.size() >= kept_names || terminalSafe(name) != name) return;
    names.insert(name);
}

std::string Completion::commonBeginning() const {
    if (candidates.empty()) return {};
    std::string common = candidates.front();
    for (const auto& each : candidates) {
        const auto [end, other] = std::mismatch(common.begin(), common.end(), each.begin(), each.end());
        common.erase(end, common.end());
    }
    return common;
}

Completion completedCommand(std::string_view line, const CompletionSources& sources) {
    const auto unfinished = splitUnfinished(line);
    Completion completion{.begin = unfinished.lastBegin, .candidates = {}};
    for (const auto& word : Offer(unfinished, sources).words()) {
        if (word.starts_with(unfinished.last)) completion.candidates.push_back(quotedWord(word));
    }
    std::sort(completion.candidates.begin(), completion.candidates.end());
    const auto last = std::unique(completion.candidates.begin(), completion.candidates.end());
    completion.candidates.erase(last, completion.candidates.end());
    return completion;
}

}  // namespace brindle::console

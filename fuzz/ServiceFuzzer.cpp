/// The whole backend between a parent's lines and a data directory.
///
/// Whatever a parent says and whatever lies in the data directory, the backend greets, answers in whole
/// envelopes, keeps every message as a record that can be read, delivers or refuses what waits, loses none of
/// it, and ends when its input ends. Parts of an input: the parent's lines, then the files that wait in
/// "inbound".
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "backend/ManagedWhatsAppBackendService.h"
#include "bridge/BridgeChannel.h"
#include "exchange/EnvironmentKeys.h"
#include "exchange/ExchangeRecords.h"
#include "fuzz/MemoryStream.h"
#include "fuzz/Promises.h"
#include "fuzz/ScratchDirectory.h"

namespace {

using namespace brindle;
using fuzz::require;

constexpr std::string_view platform = "whatsapp";

/// What the lines of a parent must lead to.
struct Consequences {
    std::size_t errors = 0;
    std::size_t messages = 0;
};

Consequences consequencesOf(std::string_view lines) {
    Consequences consequences;
    for (const auto line : fuzz::separated(lines, '\n')) {
        if (trimmed(line).empty()) continue;
        try {
            const auto envelope = decodedRecord<BridgeEnvelope>(trimmed(line));
            const auto* request = std::get_if<BridgeSendMessageRequest>(&envelope);
            if (request != nullptr && canonicallyEquivalent(request->platform, platform))
                ++consequences.messages;
        } catch (const DecodingFailure&) {
            ++consequences.errors;
        }
    }
    return consequences;
}

void fill(const std::filesystem::path& inbound, const std::vector<std::string_view>& parts) {
    std::filesystem::create_directories(inbound);
    for (std::size_t i = 1; i < parts.size(); ++i) {
        std::ofstream(inbound / (std::to_string(i) + ".json"), std::ios::binary) << parts[i];
    }
}

std::vector<BridgeEnvelope> envelopesIn(std::string_view output) {
    auto lines = fuzz::separated(output, '\n');
    require(lines.back().empty(), "the last line of the output is a whole one");
    lines.pop_back();
    std::vector<BridgeEnvelope> envelopes;
    envelopes.reserve(lines.size());
    for (const auto line : lines) envelopes.push_back(decodedRecord<BridgeEnvelope>(line));
    return envelopes;
}

template <class Case>
std::size_t count(const std::vector<BridgeEnvelope>& envelopes) {
    return static_cast<std::size_t>(std::count_if(envelopes.begin(), envelopes.end(), [](const auto& each) {
        return std::holds_alternative<Case>(each);
    }));
}

void requireAnswers(const std::vector<BridgeEnvelope>& envelopes, const Consequences& consequences) {
    require(envelopes.size() >= 2 && std::holds_alternative<BridgeHello>(envelopes[0]) &&
                std::holds_alternative<BridgeStateChangedEvent>(envelopes[1]),
            "the backend greets");
    require(count<BridgeErrorEvent>(envelopes) == consequences.errors,
            "a line that is no envelope has one error");
    for (const auto& envelope : envelopes) {
        const auto* error = std::get_if<BridgeErrorEvent>(&envelope);
        if (error != nullptr) fuzz::requireSentence(error->message);
    }
}

/// A data directory after the backend has ended.
class Remains {
  public:
    explicit Remains(const std::filesystem::path& directory) : directory_(directory) {}

    std::size_t filesIn(const char* name) {
        return files_.visibleEntries((directory_ / name).string()).size();
    }

    void requireOutbound(std::size_t messages) {
        const auto outbound = directory_ / "outbound";
        const auto names = files_.visibleEntries(outbound.string());
        require(names.size() == messages, "every message to send has its record");
        for (const auto& name : names) {
            const auto record = readRecord<ManagedWhatsAppOutboundRecord>(files_, (outbound / name).string());
            require(name == record.messageId + ".json", "a record is named after its message");
        }
    }
    void requireStatus() {
        const auto runtime = directory_ / "runtime";
        readRecord<ManagedWhatsAppRuntimeStatusRecord>(files_, (runtime / "runtime-status.json").string());
        readRecord<ManagedWhatsAppWorkerControlRecord>(files_, (runtime / "worker-control.json").string());
    }
    void requireNothingUnfinished() const {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory_)) {
            require(!isTemporaryName(entry.path().filename().string()), "no unfinished file is left");
        }
    }

  private:
    const std::filesystem::path& directory_;
    PosixFileManager files_;
};

void requireDiagnosticsOf(std::string_view diagnostics, std::size_t rejected) {
    auto lines = fuzz::separated(diagnostics, '\n');
    require(lines.back().empty(), "the last diagnostic is a whole one");
    lines.pop_back();
    require(lines.size() == rejected, "every refused file has a diagnostic, and nothing else has");
    for (const auto line : lines) {
        require(line.find("rejected inbound event at") != std::string_view::npos,
                "the diagnostic says what was refused");
        fuzz::requireSentence(line);
    }
}

void serve(const std::filesystem::path& directory, const BridgeStreams& streams) {
    PosixFileManager files;
    const SystemClock clock;
    BridgeChannel channel(streams);
    ManagedWhatsAppBackendService service(std::string(platform),
                                          {{std::string(environment_key::data_directory), directory.string()},
                                           {std::string(environment_key::disable_worker), "1"}},
                                          files, clock, channel, ::getppid());
    service.run();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::ScratchDirectory home;
    const auto parts = fuzz::separated(fuzz::inputText(data, size), fuzz::part_separator);
    fill(home.path() / "inbound", parts);
    const fuzz::MemoryStream input(parts.front());
    const fuzz::MemoryStream output;
    const fuzz::MemoryStream error;
    serve(home.path(),
          {.input = input.descriptor(), .output = output.descriptor(), .error = error.descriptor()});

    const auto envelopes = envelopesIn(output.content());
    const auto consequences = consequencesOf(parts.front());
    requireAnswers(envelopes, consequences);
    Remains remains(home.path());
    remains.requireOutbound(consequences.messages);
    remains.requireStatus();
    remains.requireNothingUnfinished();
    const auto processed = remains.filesIn("processed");
    const auto rejected = remains.filesIn("rejected");
    require(remains.filesIn("inbound") + processed + rejected == parts.size() - 1, "no waiting file is lost");
    require(processed <= count<BridgeInboundEvent>(envelopes), "what lies in processed has been delivered");
    requireDiagnosticsOf(error.content(), rejected);
    return 0;
}

/// The files of process identifier, control and launch token.
///
/// They decide what may run and what is watched. The first byte of an input chooses between
/// the content of "worker.pid", that of "worker-control.json", and a launch token with the content of its
/// file.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "entry/LaunchAuthentication.h"
#include "exchange/EnvironmentKeys.h"
#include "exchange/ExchangeWords.h"
#include "exchange/WorkerProcessFile.h"
#include "fuzz/MemoryFiles.h"
#include "fuzz/Promises.h"
#include "support/ScriptedHost.h"
#include "worker/WorkerControl.h"

namespace {

using namespace brindle;
using fuzz::require;

constexpr auto control_file = "/data/runtime/worker-control.json";
constexpr auto token_file = "/token";
constexpr std::string_view platform = "whatsapp";

/// A whole number in decimal digits with at most one sign, by other means than those of the system.
std::optional<pid_t> plainNumber(std::string_view text) {
    const bool isNegative = text.starts_with('-');
    if (isNegative || text.starts_with('+')) text.remove_prefix(1);
    if (text.empty()) return std::nullopt;
    std::int64_t number = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9') return std::nullopt;
        number = std::min<std::int64_t>(number * 10 + (digit - '0'), std::int64_t{1} << 40U);
    }
    if (isNegative) number = -number;
    using Limits = std::numeric_limits<pid_t>;
    if (number < Limits::min() || number > Limits::max()) return std::nullopt;
    return static_cast<pid_t>(number);
}

void readProcessIdentifier(std::string_view content) {
    require(parsedProcessIdentifier(content) == plainNumber(trimmed(content)),
            "a process identifier is a whole number with nothing but white space around it");
}

WorkerState watchingState() {
    WorkerState state;
    state.hasReceivedControlSnapshot = true;
    state.currentScopeKind = scope_kind::conversation;
    state.currentWatchedTitle = "Ann";
    state.currentConversationID = "c1";
    state.lastSeenMessageFingerprint = "f1";
    return state;
}

std::optional<ManagedWhatsAppWorkerControlRecord> controlRecord(std::string_view content) {
    try {
        return decodedRecord<ManagedWhatsAppWorkerControlRecord>(content);
    } catch (const DecodingFailure&) {
        return std::nullopt;
    }
}

void requireObedience(const WorkerState& state,
                      const std::optional<ManagedWhatsAppWorkerControlRecord>& record) {
    if (record && record->platform != platform) {
        require(state.currentWatchedTitle == "Ann" && state.lastSeenMessageFingerprint == "f1",
                "a record for another platform changes nothing");
        return;
    }
    require(state.hasReceivedControlSnapshot == record.has_value(), "only a record counts as received");
    const bool isChat = record && record->activeScope && scope_kind::isChat(record->activeScope->kind);
    if (!isChat) {
        require(!state.currentWatchedTitle && !state.currentConversationID, "only a chat is watched");
        return;
    }
    const auto& scope = *record->activeScope;
    require(state.currentScopeKind == scope.kind, "what is watched is of the kind that was asked for");
    require(state.currentWatchedTitle.has_value() == scope.title.has_value(),
            "a title is watched when one was given");
    if (scope.title)
        require(*state.currentWatchedTitle == trimmed(*scope.title),
                "the title that was asked for is watched");
    const bool isSameChat = state.currentWatchedTitle == "Ann" && state.currentConversationID == "c1";
    require(state.lastSeenMessageFingerprint.has_value() == isSameChat,
            "what was seen in one chat is not taken for another's");
}

void readControl(std::string_view content) {
    fuzz::MemoryFiles files;
    files.contents[control_file] = content;
    test::TestClock clock;
    test::ScriptedHost host(clock);
    test::DeafDelegate delegate;
    const auto page = host.openPage(delegate);
    const WorkerLog log(host);
    auto state = watchingState();
    WorkerControl(*page, std::string(platform), files, control_file, state, log).refreshControl();
    const auto record = controlRecord(content);
    requireObedience(state, record);
    require(host.log.size() == (record ? 0U : 1U), "a control file that cannot be used is logged once");
    for (const auto& line : host.log) fuzz::requireSentence(line);
}

bool isAuthenticated(std::string_view token, std::string_view content) {
    fuzz::MemoryFiles files;
    files.contents[token_file] = content;
    return isLaunchAuthenticated({{std::string(environment_key::launch_token), std::string(token)},
                                  {std::string(environment_key::launch_token_file), token_file}},
                                 files);
}

void readToken(std::string_view input) {
    constexpr std::size_t shortest_token_bytes = 32;
    const auto parts = fuzz::separated(input, fuzz::part_separator);
    // As in an environment, which ends a value there.
    const auto token = parts.front().substr(0, parts.front().find('\0'));
    const auto content = input.substr(std::min(input.size(), parts.front().size() + 1));
    const bool isAccepted = isAuthenticated(token, content);
    require(!isAccepted || canonicallyEquivalent(trimmed(token), trimmed(content)),
            "only a token that equals its file is accepted");
    require(!isAccepted || trimmed(token).size() >= shortest_token_bytes, "no short token is accepted");
    const std::string longer = std::string(trimmed(content)).append("x");
    require(!isAccepted || !isAuthenticated(token, longer),
            "a file that holds more than the token is refused");
    require(isAccepted == isAuthenticated(std::string(" ").append(token), std::string(content).append("\n")),
            "white space around a token does not matter");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const auto content = fuzz::inputText(data + 1, size - 1);
    switch (data[0] % 3) {
        case 0:
            readProcessIdentifier(content);
            break;
        case 1:
            readControl(content);
            break;
        default:
            readToken(content);
    }
    return 0;
}

#include "console/HelperVersion.h"

#include <poll.h>

#include <chrono>
#include <optional>
#include <string_view>
#include <vector>

#include "bridge/BridgeMessages.h"
#include "console/HelperProcess.h"
#include "console/LaunchTicket.h"
#include "exchange/PlatformArgument.h"
#include "records/DecodingFailure.h"
#include "system/Polling.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

constexpr std::chrono::milliseconds greeting_patience{10000};

/// What a greeting announces; nothing for every other line.
std::optional<std::string> announcedVersion(std::string_view line) {
    try {
        const auto envelope = decodedRecord<BridgeEnvelope>(line);
        const auto* hello = std::get_if<BridgeHello>(&envelope);
        if (hello != nullptr) return hello->bridgeVersion;
    } catch (const DecodingFailure&) {
        // A greeting can still come.
    }
    return std::nullopt;
}

ChildProcess::Options launch(const Options& options, const Environment& inherited,
                             const LaunchTicket& ticket) {
    Options quiet = options;
    quiet.worker = WorkerChoice::none;
    quiet.dataDirectory = ticket.dataDirectory();
    auto environment = helperEnvironment(quiet, inherited, ticket.dataDirectory());
    ticket.addTo(environment);
    return {.executable = options.helper,
            .arguments = {std::string(platform_argument), options.platform},
            .environment = std::move(environment),
            .standardInput = ChildProcess::StandardInput::pipe,
            .processGroup = ChildProcess::ProcessGroup::own};
}

}  // namespace

std::string helperVersion(const Options& options, const Environment& inherited,
                          const TerminationSignals& signals) {
    const LaunchTicket ticket;
    std::optional<std::string> version;
    std::string said;
    HelperProcess helper(
        launch(options, inherited, ticket),
        [&](std::string_view line) {
            if (!version) version = announcedVersion(line);
        },
        [&](std::string_view line) { said = " (" + std::string(line) + ")"; });
    const auto deadline = std::chrono::steady_clock::now() + greeting_patience;
    while (!version && !helper.hasEnded()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        std::vector<pollfd> entries{{.fd = signals.descriptor(), .events = POLLIN, .revents = 0}};
        helper.addPollEntries(entries);
        if (left.count() <= 0 || polled(entries, static_cast<int>(left.count())) < 0) break;
        if (entries.front().revents != 0) break;
        helper.pump();
    }
    // What was asked for is known, and the helper has no data to lose.
    helper.kill();
    if (helper.hasEnded()) helper.finish();
    if (version) return *version;
    throw Failure("The helper " + options.helper + " does not say which protocol it speaks" + said + ".");
}

}  // namespace brindle::console

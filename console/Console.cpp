#include "console/Console.h"

#include <poll.h>
#include <signal.h>
#include <sysexits.h>

#include <utility>
#include <vector>

#include "console/Attachment.h"
#include "console/HelperEnding.h"
#include "console/RuntimeStatus.h"
#include "console/Tools.h"
#include "exchange/PlatformArgument.h"
#include "records/DecodingFailure.h"
#include "system/Polling.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

constexpr int failure_status = 1;

/// A request that the helper passes over without a word looks as if it had been carried out.
std::string platformRemark(std::string_view line, const std::string& served) {
    try {
        const auto envelope = decodedRecord<BridgeEnvelope>(line);
        const auto platform = std::visit(
            [&](const auto& each) {
                if constexpr (requires { each.platform; }) return each.platform;
                return served;
            },
            static_cast<const BridgeEnvelope::Cases&>(envelope));
        if (platform == served) return {};
        return "The helper serves the platform \"" + singleLine(served) +
               "\" and passes over what is for \"" + singleLine(platform) + "\".";
    } catch (const DecodingFailure&) {
        return {};
    }
}

}  // namespace

Console::Console(const Options& options, Environment inherited, CommandInput& input, Display& display,
                 TerminationSignals& signals)
    : platform_(options.platform),
      helperPath_(options.helper),
      input_(input),
      display_(display),
      signals_(signals),
      environment_(helperEnvironment(options, std::move(inherited), ticket_.dataDirectory())),
      directory_(environment_, fileManager_, platform_),
      helper_(
          launch(options), [this](std::string_view line) { received(line); },
          [this](std::string_view line) { display_.helperDiagnostic(line); }) {
    if (options.summary) summary_.emplace();
    if (options.record) recording_.emplace(*options.record, ticket_.token());
    input_.completeWith([this](std::string_view line) {
        return completedCommand(
            line, {.seen = seen_,
                   .fileManager = fileManager_,
                   .recordFolders = {directory_.rejected, directory_.inbound, directory_.processed}});
    });
}

ChildProcess::Options Console::launch(const Options& options) {
    ticket_.addTo(environment_);
    return {.executable = options.helper,
            .arguments = {std::string(platform_argument), platform_},
            .environment = environment_,
            .standardInput = ChildProcess::StandardInput::pipe,
            .processGroup = ChildProcess::ProcessGroup::own};
}

int Console::run() {
    if (!input_.isInteractive()) awaitGreeting();
    while (!isDone_) {
        runReadyCommands();
        if (isDone_) break;
        waitForEvents();
        checkWait();
        checkHelper();
        checkOutput();
    }
    // What a command has taken, such as the terminal, is given back.
    wait_.reset();
    if (!helperHasEnded_) endHelper();
    showSummary();
    return status_;
}

void Console::begin(InputLine line) {
    current_ = std::move(line);
    if (summary_) summary_->begin(current_.text, std::chrono::steady_clock::now());
}

/// The current command is carried out, with all its waiting.
void Console::finish(bool hasFailed) {
    if (!summary_) return;
    const auto now = std::chrono::steady_clock::now();
    hasFailed ? summary_->failed(now) : summary_->done(now);
}

/// Bare protocol lines have no place for it.
void Console::showSummary() {
    if (summary_ && !display_.isJson()) display_.answer(summary_->text());
}

void Console::runReadyCommands() {
    while (!wait_ && !isDone_) {
        if (isAskedToEnd()) {
            isDone_ = true;
            return;
        }
        const auto line = input_.next();
        if (line) {
            execute(*line);
        } else {
            isDone_ = isDone_ || input_.isAtEnd();
            return;
        }
    }
}

void Console::execute(const InputLine& line) {
    begin({.text = std::string(trimmed(line.text)), .place = line.place});
    try {
        const auto command = parseCommand(line.text);
        if (!command) return;
        if (!input_.isInteractive()) display_.command(line.text);
        std::visit([this](const auto& each) { perform(each); }, *command);
    } catch (const Failure& failure) {
        return fail(failure.what());
    }
    if (!wait_) return finish(false);
    checkWait();
    const bool isSilent = display_.isJson() || display_.isHeld();
    if (wait_ && input_.isInteractive() && !isSilent) display_.answer(wait_->announcement() + "\n");
}

void Console::perform(const ConnectCommand&) {
    submit(BridgeConnectRequest{.platform = platform_});
}

void Console::perform(const DisconnectCommand&) {
    submit(BridgeDisconnectRequest{.platform = platform_});
}

void Console::perform(const ListenCommand& command) {
    see(command.scope);
    submit(BridgeStartListeningRequest{.platform = platform_, .scope = command.scope});
}

void Console::see(const BridgeScope& scope) {
    if (const auto* conversation = std::get_if<BridgeConversationScope>(&scope)) {
        seen_.addConversation(conversation->id);
        seen_.addTitle(conversation->title);
    } else if (const auto* channel = std::get_if<BridgeChannelScope>(&scope)) {
        seen_.addConversation(channel->id);
        seen_.addTitle(channel->title);
    } else if (const auto* thread = std::get_if<BridgeThreadScope>(&scope)) {
        seen_.addConversation(thread->id);
        seen_.addTitle(thread->title.value_or(""));
    }
}

void Console::perform(const StopCommand&) {
    submit(BridgeStopListeningRequest{.platform = platform_});
}

void Console::perform(const SendCommand& command) {
    BridgeOutboundMessage message{.conversationId = command.conversation,
                                  .text = command.text,
                                  .replyToMessageId = command.replyTo,
                                  .attachments = std::nullopt};
    if (!command.files.empty()) message.attachments.emplace();
    for (const auto& file : command.files) {
        message.attachments->push_back(attachmentFromFile(fileManager_, file));
    }
    submit(BridgeSendMessageRequest{.platform = platform_, .message = std::move(message)});
    remarkOnSending();
}

void Console::remarkOnSending() {
    const auto status = hasGreeted_ ? readStatus() : std::nullopt;
    const auto remark = status ? sendingRemark(*status) : "";
    if (!remark.empty()) display_.note(remark);
}

void Console::perform(const StatusCommand&) {
    const auto status =
        readRecord<ManagedWhatsAppRuntimeStatusRecord>(fileManager_, directory_.runtimeStatusFile);
    if (display_.isJson()) return display_.jsonLine(encodedRecord(status, JsonStyle::compact));
    display_.answer(statusTable(statusFields(status)));
}

void Console::perform(const RawCommand& command) {
    submitLine(command.line);
    const auto remark = platformRemark(command.line, platform_);
    if (!remark.empty()) display_.note(remark);
}

void Console::perform(const RawModeCommand& command) {
    display_.showRaw(command.isOn);
}

void Console::perform(const DoctorCommand&) {
    const SystemClock clock;
    const FindingReport report(examined({.environment = environment_,
                                         .helper = helperPath_,
                                         .platform = platform_,
                                         .fileManager = fileManager_,
                                         .clock = clock}));
    if (!showReport(display_, report)) throw Failure("The examination has found problems.");
}

void Console::perform(const RecordCommand& command) {
    if (!command.file) return recording_.reset();
    // One that cannot be made leaves the one before as it is.
    recording_ = Recording(*command.file, ticket_.token());
}

void Console::perform(const InboxCommand& command) {
    performInbox(display_, fileManager_, directory_, command);
}

void Console::perform(const HelpCommand&) {
    display_.answer(commandHelp());
}

void Console::perform(const QuitCommand&) {
    isDone_ = true;
}

void Console::submit(const BridgeEnvelope& envelope) {
    std::string line = encodedLine(envelope);
    line.pop_back();
    submitLine(line);
}

void Console::submitLine(std::string_view line) {
    hasRequested_ = true;
    record(Direction::toHelper, line);
    display_.envelope(Direction::toHelper, line);
    helper_.send(line);
}

/// A recording that cannot be written any more must not end the session.
void Console::record(Direction direction, std::string_view line) {
    if (!recording_) return;
    try {
        recording_->add(direction, line);
    } catch (const Failure& failure) {
        recording_.reset();
        display_.problem(std::string(failure.what()) + " The recording ends here.");
    }
}

void Console::received(std::string_view line) {
    record(Direction::fromHelper, line);
    if (!hasRequested_) greeting_.emplace_back(line);
    if (replay_) replay_->received(line);
    display_.envelope(Direction::fromHelper, line);
    auto envelope = ReceivedEnvelope::from(line);
    hasGreeted_ = hasGreeted_ || envelope.name == "hello";
    seen_.addConversation(envelope.conversation);
    seen_.addTitle(envelope.conversationTitle);
    if (summary_ && envelope.name == "inboundEvent") summary_->countInboundEvent();
    envelopes_.add(std::move(envelope));
}

std::optional<ManagedWhatsAppRuntimeStatusRecord> Console::readStatus() {
    return readableStatus(fileManager_, directory_.runtimeStatusFile);
}

void Console::waitForEvents() {
    std::vector<pollfd> entries;
    entries.push_back({.fd = signals_.descriptor(), .events = POLLIN, .revents = 0});
    const bool takesCommands = !wait_ && !helper_.isCongested();
    entries.push_back({.fd = takesCommands ? input_.descriptor() : -1, .events = POLLIN, .revents = 0});
    helper_.addPollEntries(entries);
    polled(entries, wait_ ? wait_->pollTimeout() : -1);
    helper_.pump();
    if (entries[1].revents != 0) {
        wasInterrupted_ = false;
        input_.receive();
    }
    isDone_ = isDone_ || isAskedToEnd();
}

/// The signal stays where it is: it also keeps output from waiting for a reader any longer.
bool Console::isAskedToEnd() {
    takeInterrupt();
    pollfd signal{.fd = signals_.descriptor(), .events = POLLIN, .revents = 0};
    return polled({&signal, 1}, 0) > 0;
}

/// Ctrl-C of somebody at a terminal is meant for what is at hand, unless it comes twice.
void Console::takeInterrupt() {
    pollfd signal{.fd = signals_.descriptor(), .events = POLLIN, .revents = 0};
    if (!input_.isInteractive() || polled({&signal, 1}, 0) <= 0) return;
    const int number = signals_.take();
    if (number == SIGINT && !wasInterrupted_) return interrupt();
    // Back to where everybody looks for it.
    if (number != 0) ::raise(number);
}

void Console::interrupt() {
    wasInterrupted_ = true;
    if (const auto wait = std::exchange(wait_, std::nullopt)) {
        fail("Interrupted while the console waited for " + wait->subject() + ".");
    } else if (!input_.discardLine()) {
        display_.note("Press Ctrl-C again to end the helper and the console.");
    }
}

void Console::checkHelper() {
    if (!helper_.hasEnded()) return;
    const auto end = helper_.finish();
    helperHasEnded_ = true;
    // Its last words may have been what was waited for.
    checkWait();
    std::string sentence = "The helper " + end.description();
    if (end == ProcessEnd::exit(EX_USAGE)) sentence += ": it refused the launch";
    if (wait_) {
        sentence += " while the console waited for " + wait_->subject();
        finish(true);
    }
    display_.problem((wait_ && !current_.place.empty() ? current_.place + ": " : "") + sentence + ".");
    status_ = failure_status;
    isDone_ = true;
}

void Console::checkOutput() {
    if (!display_.hasLostOutput() || isDone_) return;
    display_.problem("Standard output cannot be written any more.");
    status_ = failure_status;
    isDone_ = true;
}

/// The current command has failed.
void Console::fail(const std::string& sentence) {
    finish(true);
    display_.problem((current_.place.empty() ? "" : current_.place + ": ") + sentence);
    if (input_.isInteractive()) return;
    status_ = failure_status;
    isDone_ = true;
}

void Console::endHelper() {
    if (!console::endHelper(helper_, display_)) status_ = failure_status;
    const auto end = helper_.finish();
    if (status_ != 0 || end == ProcessEnd::exit(0)) return;
    display_.problem("The helper " + end.description() + ".");
    status_ = failure_status;
}

}  // namespace brindle::console

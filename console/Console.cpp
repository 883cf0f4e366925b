#include "console/Console.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sysexits.h>

#include <algorithm>
#include <cstdio>
#include <type_traits>
#include <utility>
#include <vector>

#include "console/Attachment.h"
#include "console/Picture.h"
#include "console/QRCode.h"
#include "exchange/ExchangeWords.h"
#include "exchange/PlatformArgument.h"
#include "records/Json.h"
#include "system/FileSystemFailure.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

constexpr int failure_status = 1;

std::string seconds(std::chrono::milliseconds duration) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g s", static_cast<double>(duration.count()) / 1000);
    return text;
}

/// The states in which a worker needs no login.
bool isLinkedState(std::string_view workerState) {
    return workerState == worker_state::linked || workerState == worker_state::watching_chat;
}

std::string jsonLine(std::string_view name, std::string_view value) {
    JsonWriter writer(JsonStyle::compact);
    writer.beginObject();
    writer.name(name);
    writer.string(value);
    writer.endObject();
    return writer.finish() + "\n";
}

std::string valueText(bool value) {
    return value ? "true" : "false";
}
std::string valueText(const std::string& value) {
    return value;
}

std::optional<std::string> statusValue(const ManagedWhatsAppRuntimeStatusRecord& status,
                                       std::string_view name) {
    for (const auto& [field, value] : statusFields(status)) {
        if (field == name) return value;
    }
    return std::nullopt;
}

std::string statusTable(const ManagedWhatsAppRuntimeStatusRecord& status) {
    constexpr std::size_t name_columns = 32;
    std::string table;
    for (const auto& [name, value] : statusFields(status)) {
        table.append("  ").append(name).append(name_columns - name.size(), ' ');
        table.append(value ? singleLine(*value) : "-").append("\n");
    }
    return table;
}

}  // namespace

std::vector<std::pair<std::string, std::optional<std::string>>> statusFields(
    const ManagedWhatsAppRuntimeStatusRecord& status) {
    std::vector<std::pair<std::string, std::optional<std::string>>> result;
    forEachField<ManagedWhatsAppRuntimeStatusRecord>([&](const auto& field) {
        const auto& value = status.*(field.member);
        std::optional<std::string> text;
        if constexpr (record::IsOptional<std::remove_cvref_t<decltype(value)>>::value) {
            if (value) text = valueText(*value);
        } else {
            text = valueText(value);
        }
        result.emplace_back(field.name, std::move(text));
    });
    return result;
}

Console::Console(const Options& options, Environment environment, CommandInput& input, Display& display,
                 TerminationSignals& signals)
    : platform_(options.platform),
      input_(input),
      display_(display),
      signals_(signals),
      directory_(environment, fileManager_, platform_),
      helper_(
          launch(options, std::move(environment)), [this](std::string_view line) { received(line); },
          [this](std::string_view line) { display_.helperDiagnostic(line); }) {
    if (options.summary) summary_.emplace();
}

ChildProcess::Options Console::launch(const Options& options, Environment environment) {
    ticket_.addTo(environment);
    return {.executable = options.helper,
            .arguments = {std::string(platform_argument), platform_},
            .environment = std::move(environment),
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

/// Before the greeting, the runtime status may still be that of an earlier helper.
void Console::awaitGreeting() {
    begin({.text = "hello", .place = ""});
    wait_ = Wait{.isFulfilled = [this] { return hasGreeted_; },
                 .subject = "the helper's hello",
                 .observation = [] { return "did not come within " + seconds(greeting_patience); },
                 .deadline = std::chrono::steady_clock::now() + greeting_patience,
                 .needsPolling = false};
}

void Console::runReadyCommands() {
    while (!wait_ && !isDone_) {
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
}

void Console::perform(const ConnectCommand&) {
    submit(BridgeConnectRequest{.platform = platform_});
}

void Console::perform(const DisconnectCommand&) {
    submit(BridgeDisconnectRequest{.platform = platform_});
}

void Console::perform(const ListenCommand& command) {
    submit(BridgeStartListeningRequest{.platform = platform_, .scope = command.scope});
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
}

void Console::perform(const StatusCommand&) {
    const auto status =
        readRecord<ManagedWhatsAppRuntimeStatusRecord>(fileManager_, directory_.runtimeStatusFile);
    if (display_.isJson()) return display_.answer(encodedRecord(status, JsonStyle::compact) + "\n");
    display_.answer(statusTable(status));
}

void Console::perform(const QRCommand& command) {
    wait_ = Wait{.isFulfilled =
                     [this, command, shown = std::string()]() mutable {
                         return showNextQRCode(shown, command.untilLinked);
                     },
                 .subject = command.untilLinked ? "a login by the QR code in " + directory_.workerQRCodeFile
                                                : "a QR code in " + directory_.workerQRCodeFile,
                 .observation =
                     [this, patience = command.patience] {
                         const auto status = readStatus();
                         return "did not come within " + seconds(patience) +
                                (status ? "; the worker's state is \"" + status->workerState + "\"" : "");
                     },
                 .deadline = std::chrono::steady_clock::now() + command.patience,
                 .needsPolling = true};
}

/// Shows the code that is there, unless it is the one last shown. True when no more is to come.
bool Console::showNextQRCode(std::string& shown, bool untilLinked) {
    const auto status = readStatus();
    if (status && isLinkedState(status->workerState)) {
        display_.answer(display_.isJson() ? jsonLine("workerState", status->workerState)
                                          : "The worker is linked; there is no QR code to scan.\n");
        return true;
    }
    std::string png;
    if (!readIfPresent(directory_.workerQRCodeFile, png) || png == shown) return false;
    // Two codes that touch would keep a phone guessing.
    if (!shown.empty() && !display_.isJson()) display_.answer("A new code takes its place:\n");
    showQRCode(png);
    shown = std::move(png);
    return !untilLinked;
}

/// False when there is no such file (any more).
bool Console::readIfPresent(const std::string& file, std::string& content) {
    try {
        content = fileManager_.readFile(file);
        return true;
    } catch (const FileSystemFailure& failure) {
        if (failure.code() != ENOENT) throw;
        return false;
    }
}

void Console::showQRCode(const std::string& png) {
    const auto& file = directory_.workerQRCodeFile;
    const auto code = [&] {
        try {
            return QRCode::in(pictureFromPng(png));
        } catch (const Failure& failure) {
            throw Failure(file + " " + failure.what() + ".");
        }
    }();
    if (!code)
        throw Failure(file + " is a picture without a QR code that fills it; look at it with a viewer.");
    if (display_.isJson()) return display_.answer(jsonLine("workerQRCodeFile", file));
    const auto columns = Display::terminalColumns();
    if (columns && *columns < textColumns(*code)) {
        throw Failure("The QR code takes " + std::to_string(textColumns(*code)) +
                      " columns, the terminal has " + std::to_string(*columns) + "; make it wider.");
    }
    display_.answer(textOf(*code, display_.colorsOutput()));
}

void Console::perform(const RawCommand& command) {
    submitLine(command.line);
}

void Console::perform(const HelpCommand&) {
    display_.answer(commandHelp());
}

void Console::perform(const QuitCommand&) {
    isDone_ = true;
}

void Console::perform(const ExpectCommand& command) {
    wait_ = Wait{
        .isFulfilled = [this, expected = command.expectation] { return envelopes_.consume(expected); },
        .subject = command.expectation.description(),
        .observation = [patience = command.patience] { return "did not come within " + seconds(patience); },
        .deadline = std::chrono::steady_clock::now() + command.patience,
        .needsPolling = false};
}

void Console::perform(const WaitStatusCommand& command) {
    const auto current = [this, field = command.field]() -> std::optional<std::string> {
        const auto status = readStatus();
        return status ? statusValue(*status, field) : std::nullopt;
    };
    wait_ = Wait{.isFulfilled = [current, value = command.value] { return current() == value; },
                 .subject = command.field + " \"" + command.value + "\"",
                 .observation =
                     [current, patience = command.patience] {
                         const auto value = current();
                         return "did not come within " + seconds(patience) + "; it is " +
                                (value ? "\"" + *value + "\"" : "absent");
                     },
                 .deadline = std::chrono::steady_clock::now() + command.patience,
                 .needsPolling = true};
}

void Console::submit(const BridgeEnvelope& envelope) {
    std::string line = encodedLine(envelope);
    line.pop_back();
    submitLine(line);
}

void Console::submitLine(std::string_view line) {
    display_.envelope(Direction::toHelper, line);
    helper_.send(line);
}

void Console::received(std::string_view line) {
    display_.envelope(Direction::fromHelper, line);
    auto envelope = ReceivedEnvelope::from(line);
    hasGreeted_ = hasGreeted_ || envelope.name == "hello";
    if (summary_ && envelope.name == "inboundEvent") summary_->countInboundEvent();
    envelopes_.add(std::move(envelope));
}

/// Nothing while there is no status that can be read.
std::optional<ManagedWhatsAppRuntimeStatusRecord> Console::readStatus() {
    try {
        return readRecord<ManagedWhatsAppRuntimeStatusRecord>(fileManager_, directory_.runtimeStatusFile);
    } catch (const Failure&) {
        return std::nullopt;
    }
}

void Console::waitForEvents() {
    std::vector<pollfd> entries;
    entries.push_back({.fd = signals_.descriptor(), .events = POLLIN, .revents = 0});
    const bool takesCommands = !wait_ && !helper_.isCongested();
    entries.push_back({.fd = takesCommands ? input_.descriptor() : -1, .events = POLLIN, .revents = 0});
    helper_.addPollEntries(entries);
    if (::poll(entries.data(), entries.size(), pollTimeout()) < 0) return;
    helper_.pump();
    if (entries[1].revents != 0) input_.receive();
    if (signals_.take() != 0) isDone_ = true;
}

int Console::pollTimeout() const {
    if (!wait_) return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(wait_->deadline - std::chrono::steady_clock::now());
    const auto longest = wait_->needsPolling ? status_interval : std::max(left, status_interval);
    return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), longest).count());
}

void Console::checkWait() {
    if (!wait_ || isDone_) return;
    try {
        if (wait_->isFulfilled()) {
            wait_.reset();
            return finish(false);
        }
    } catch (const Failure& failure) {
        wait_.reset();
        return fail(failure.what());
    }
    if (std::chrono::steady_clock::now() < wait_->deadline) return;
    const auto wait = *std::exchange(wait_, std::nullopt);
    fail("Expected " + wait.subject + ", which " + wait.observation() + ".");
}

void Console::checkHelper() {
    if (!helper_.hasEnded()) return;
    const auto end = helper_.finish();
    helperHasEnded_ = true;
    // Its last words may have been what was waited for.
    checkWait();
    std::string sentence = "The helper " + end.description();
    if (!end.bySignal && end.number == EX_USAGE) sentence += ": it refused the launch";
    if (wait_) {
        sentence += " while the console waited for " + wait_->subject;
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
    helper_.closeInputWhenWritten();
    if (!helperEndsWithin(end_of_input_grace)) {
        reportForcedEnd("terminated");
        helper_.signal(SIGTERM);
        if (!helperEndsWithin(termination_grace)) {
            reportForcedEnd("killed");
            helper_.killGroup();
            helperEndsWithin(termination_grace);
        }
    }
    const auto end = helper_.finish();
    if (status_ != 0 || (!end.bySignal && end.number == 0)) return;
    display_.problem("The helper " + end.description() + ".");
    status_ = failure_status;
}

bool Console::helperEndsWithin(std::chrono::milliseconds patience) {
    auto deadline = std::chrono::steady_clock::now() + patience;
    while (!helper_.hasEnded()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        std::vector<pollfd> entries;
        helper_.addPollEntries(entries);
        ::poll(entries.data(), entries.size(), static_cast<int>(left.count()));
        // A helper that still takes and answers what was sent is busy, not stuck.
        if (helper_.pump()) deadline = std::chrono::steady_clock::now() + patience;
    }
    return true;
}

void Console::reportForcedEnd(std::string_view means) {
    display_.problem("The helper does not end by itself and is being " + std::string(means) + ".");
    status_ = failure_status;
}

}  // namespace brindle::console

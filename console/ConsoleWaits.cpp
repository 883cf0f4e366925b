#include <memory>
#include <utility>

#include "console/Console.h"
#include "console/LoginCodeDisplay.h"
#include "console/RuntimeStatus.h"
#include "console/WatchScreen.h"
#include "text/Failure.h"

/// What the console waits for between commands.
namespace brindle::console {
namespace {

constexpr std::chrono::hours longest_watch{24 * 365};

/// While the view has the terminal, everything else waits.
struct Watch {
    Watch(Display& display, FileManager& fileManager, const DataDirectory& directory)
        : hold(display), screen(fileManager, directory) {}

    HeldOutput hold;
    WatchScreen screen;
};

}  // namespace

/// Before the greeting, the runtime status may still be that of an earlier helper.
void Console::awaitGreeting() {
    begin({.text = "hello", .place = ""});
    wait_.emplace(Wait::Condition{.isFulfilled = [this] { return hasGreeted_; },
                                  .subject = "the helper's hello",
                                  .remark = {},
                                  .obstacle = {}},
                  greeting_patience);
}

/// Before the greeting, the runtime status may still be that of an earlier helper.
std::string Console::workerObstacle() {
    const auto status = hasGreeted_ ? readStatus() : std::nullopt;
    return status ? console::workerObstacle(*status) : "";
}

void Console::perform(const QRCommand& command) {
    const auto& file = directory_.workerQRCodeFile;
    const auto isFulfilled = [codes = LoginCodeDisplay(fileManager_, directory_, display_),
                              untilLinked = command.untilLinked]() mutable {
        return codes.showNext(untilLinked);
    };
    const auto remark = [this]() -> std::string {
        const auto status = readStatus();
        return status ? "; the worker's state is \"" + status->workerState + "\"" : "";
    };
    wait_.emplace(
        Wait::Condition{
            .isFulfilled = isFulfilled,
            .subject = (command.untilLinked ? "a login by the QR code in " : "a QR code in ") + file,
            .remark = remark,
            .obstacle = [this] { return workerObstacle(); },
            .needsPolling = true},
        command.patience);
}

void Console::perform(const ExpectCommand& command) {
    wait_.emplace(
        Wait::Condition{
            .isFulfilled = [this, expected = command.expectation] { return envelopes_.consume(expected); },
            .subject = command.expectation.description(),
            .remark = {},
            .obstacle = {}},
        command.patience);
}

void Console::perform(const WaitStatusCommand& command) {
    const auto current = [this, field = command.field]() -> std::optional<std::string> {
        const auto status = readStatus();
        return status ? statusValue(*status, field) : std::nullopt;
    };
    const auto remark = [current] {
        const auto value = current();
        return "; it is " + (value ? "\"" + *value + "\"" : "absent");
    };
    const bool isWorkers = command.field.starts_with("worker");
    wait_.emplace(
        Wait::Condition{.isFulfilled = [current, value = command.value] { return current() == value; },
                        .subject = command.field + " \"" + command.value + "\"",
                        .remark = remark,
                        .obstacle = [this, isWorkers] { return isWorkers ? workerObstacle() : ""; },
                        .needsPolling = true},
        command.patience);
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
    if (const auto obstacle = wait_->obstacle(); !obstacle.empty()) {
        const auto wait = *std::exchange(wait_, std::nullopt);
        return fail(wait.failure(obstacle));
    }
    if (!wait_->isOver()) return;
    const auto wait = *std::exchange(wait_, std::nullopt);
    fail(wait.failure());
}

void Console::perform(const WatchCommand&) {
    // Shared, because a condition can be copied; it goes with the wait, however that ends.
    const auto view = std::make_shared<Watch>(display_, fileManager_, directory_);
    wait_.emplace(Wait::Condition{.isFulfilled = [view] { return !view->screen.goOn(); },
                                  .subject = "the end of watch",
                                  .remark = {},
                                  .obstacle = {},
                                  .needsPolling = true},
                  longest_watch);
}

void Console::perform(const ReplayCommand& command) {
    replay_.emplace(readRecording(fileManager_, command.file), greeting_);
    const auto patience = replay_->recordedLength() + command.patience;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    wait_.emplace(Wait::Condition{.isFulfilled = [this, deadline] { return goOnReplaying(deadline); },
                                  .subject = "the end of the replay of " + command.file,
                                  .remark = {},
                                  .obstacle = {},
                                  .needsPolling = true},
                  // It ends itself, and says how far it has come.
                  2 * patience);
}

/// True at its end.
bool Console::goOnReplaying(std::chrono::steady_clock::time_point deadline) {
    while (const auto request = replay_->nextRequest()) submitLine(*request);
    const bool isOver = std::chrono::steady_clock::now() >= deadline;
    if (!replay_->isComplete() && !isOver) return false;
    const auto replay = *std::exchange(replay_, std::nullopt);
    const auto differences = replay.differences();
    if (differences.empty()) {
        if (!display_.isJson()) {
            display_.answer("Replayed " + std::to_string(replay.requestCount()) + " requests; all " +
                            std::to_string(replay.replyCount()) + " answers are the same.\n");
        }
        return true;
    }
    if (!display_.isJson()) display_.answer("- recorded, + now:\n" + differences);
    throw Failure("The answers differ from the recording.");
}

}  // namespace brindle::console

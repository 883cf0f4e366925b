#include <locale.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "console/Command.h"
#include "console/CommandInput.h"
#include "console/CommandWords.h"
#include "console/Console.h"
#include "console/Display.h"
#include "console/HelperVersion.h"
#include "console/LineEditor.h"
#include "console/Options.h"
#include "console/Recording.h"
#include "console/TerminalText.h"
#include "console/Tools.h"
#include "console/WatchScreen.h"
#include "console/WorkerCheck.h"
#include "system/Environment.h"
#include "system/OutputStream.h"
#include "system/Paths.h"
#include "system/Polling.h"
#include "system/Processes.h"
#include "text/Failure.h"

using namespace brindle;
using namespace brindle::console;

namespace {

/// How often keys are looked for.
constexpr int watch_interval_ms = 50;
constexpr std::string_view helper_name = "BrindleManagedWhatsAppBackend";

/// The helper is installed beside the console.
std::string defaultHelper() {
    const auto executable = MainBundle::current().executablePath;
    if (!executable) return std::string(helper_name);
    return joinedPath(executable->substr(0, executable->rfind('/')), helper_name);
}

/// The words behind an action are those of the session's command of the same name.
std::string commandLine(std::string_view name, const Options& options) {
    std::string line(name);
    for (const auto& word : options.words) line.append(" ").append(quotedWord(word));
    return line;
}

/// Where the session's commands come from. A terminal is edited; `editor` is then the same object.
struct Input {
    std::unique_ptr<CommandInput> commands;
    LineEditor* editor = nullptr;
};

Input chooseInput(const Options& options, const Environment& environment, OutputStream& output) {
    if (options.action == Action::replay) {
        return {.commands = std::make_unique<OneCommandInput>(commandLine("replay", options))};
    }
    if (options.script) return {.commands = std::make_unique<ScriptInput>(*options.script)};
    const bool isTerminal = ::isatty(STDIN_FILENO) == 1;
    if (!isTerminal || ::isatty(STDOUT_FILENO) != 1) {
        return {.commands = std::make_unique<StreamInput>(STDIN_FILENO, "standard input", isTerminal)};
    }
    auto editor = std::make_unique<LineEditor>(LineEditor::historyFile(environment), output);
    auto* raw = editor.get();
    return {.commands = std::move(editor), .editor = raw};
}

int runSession(const Options& options) {
    // The launch ticket must not outlive the console.
    TerminationSignals signals(TerminationSignalSet::everyEnd);
    // Whoever ends the console need not wait for a reader that does not read.
    DepartureWatch watch;
    watch.addSign(signals.descriptor(), true);
    OutputStream output(STDOUT_FILENO, "standard output", watch);
    OutputStream error(STDERR_FILENO, "standard error", watch);
    const auto environment = currentEnvironment();
    Display display(DisplayStyle::from(options, environment), output, error);
    try {
        const auto input = chooseInput(options, environment, output);
        // What cannot be replayed is told before a helper is started for it.
        if (options.action == Action::replay) {
            PosixFileManager files;
            readRecording(files, options.words.front());
        }
        display.stepAside(input.editor);
        Console console(options, environment, *input.commands, display, signals);
        const int status = console.run();
        display.stepAside(nullptr);
        return status;
    } catch (const Failure& failure) {
        display.stepAside(nullptr);
        display.problem(failure.what());
        return 1;
    }
}

/// What is done without a session.
struct Tool {
    explicit Tool(const Options& options)
        : environment(helperEnvironment(options, currentEnvironment(), "")),
          display(DisplayStyle::from(options, environment), output, error) {}

    /// As a session would have it; without a named directory the application's.
    Environment environment;
    DepartureWatch watch;
    OutputStream output{STDOUT_FILENO, "standard output", watch};
    OutputStream error{STDERR_FILENO, "standard error", watch};
    Display display;
    PosixFileManager files;
    SystemClock clock;
};

int runDoctor(const Options& options) {
    Tool tool(options);
    const FindingReport report(examined({.environment = tool.environment,
                                         .helper = options.helper,
                                         .platform = options.platform,
                                         .fileManager = tool.files,
                                         .clock = tool.clock}));
    return showReport(tool.display, report) && !tool.display.hasLostOutput() ? 0 : 1;
}

int runInbox(const Options& options) {
    Tool tool(options);
    // The application's records are not to be touched by accident.
    if (!namesDataDirectory(options, tool.environment)) {
        throw Failure(
            "No data directory is named; add --data-dir DIR, or --data-dir default for the application's.");
    }
    const DataDirectory directory(tool.environment, tool.files, options.platform);
    // A mistyped path must not look like an account without messages.
    if (!tool.files.fileExists(directory.path)) {
        throw Failure("There is no data directory " + directory.path +
                      "; correct --data-dir, or start a helper, which makes it.");
    }
    performInbox(tool.display, tool.files, directory,
                 std::get<InboxCommand>(*parseCommand(commandLine("inbox", options))));
    return tool.display.hasLostOutput() ? 1 : 0;
}

/// Without a helper of its own: of one that runs somewhere else.
int runWatch(const Options& options) {
    Tool tool(options);
    const TerminationSignals signals(TerminationSignalSet::everyEnd);
    const DataDirectory directory(tool.environment, tool.files, options.platform);
    WatchScreen screen(tool.files, directory);
    pollfd signal{.fd = signals.descriptor(), .events = POLLIN, .revents = 0};
    while (screen.goOn() && polled({&signal, 1}, watch_interval_ms) == 0) {
    }
    return 0;
}

int runCheckWorker(const Options& options) {
    Tool tool(options);
    const TerminationSignals signals(TerminationSignalSet::everyEnd);
    // Whoever ends the examination need not wait for a reader that does not read.
    tool.watch.addSign(signals.descriptor(), true);
    const auto patience = std::chrono::duration<double>(options.workerPatienceSeconds);
    const WorkerCheckOptions check{
        .worker = standardizedPath(options.checkedWorker),
        .platform = options.platform,
        .environment = currentEnvironment(),
        .patience = std::chrono::duration_cast<std::chrono::milliseconds>(patience),
        .onOutput = [&](std::string_view line) { tool.display.diagnostic("worker", line); }};
    const FindingReport report(checkedWorker(check, signals));
    return showReport(tool.display, report) && !tool.display.hasLostOutput() ? 0 : 1;
}

int showVersion(const Options& options) {
    std::printf("%s\n", consoleVersion().c_str());
    std::fflush(stdout);
    const TerminationSignals signals(TerminationSignalSet::everyEnd);
    const auto version = helperVersion(options, currentEnvironment(), signals);
    std::printf("%s speaks %s\n", terminalSafe(options.helper).c_str(), terminalSafe(version).c_str());
    return 0;
}

int run(const Options& options) {
    switch (options.action) {
        case Action::showVersion:
            return showVersion(options);
        case Action::doctor:
            return runDoctor(options);
        case Action::inbox:
            return runInbox(options);
        case Action::watch:
            return runWatch(options);
        case Action::checkWorker:
            return runCheckWorker(options);
        case Action::session:
        case Action::replay:
            break;
    }
    return runSession(options);
}

}  // namespace

int main(int argumentCount, char** arguments) {
    reserveStandardDescriptors();
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread.
    ::setlocale(LC_CTYPE, "");
    // A reader that has gone is noticed by the write that fails.
    ignoreSignalsOfFailedWrites();
    const auto parsed = parseCommandLine(argumentCount, arguments, defaultHelper());
    if (const auto* answer = std::get_if<CommandLineAnswer>(&parsed)) {
        std::fputs(answer->text.c_str(), answer->status == 0 ? stdout : stderr);
        return answer->status;
    }
    try {
        return run(std::get<Options>(parsed));
    } catch (const Failure& failure) {
        // Before there was a display to say it.
        std::fprintf(stderr, "%s\n", terminalSafe(failure.what()).c_str());
        return 1;
    }
}

#include <locale.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "console/CommandInput.h"
#include "console/Console.h"
#include "console/Display.h"
#include "console/HelperVersion.h"
#include "console/LineEditor.h"
#include "console/Options.h"
#include "console/TerminalText.h"
#include "system/Environment.h"
#include "system/OutputStream.h"
#include "system/Paths.h"
#include "system/Processes.h"
#include "text/Failure.h"

using namespace brindle;
using namespace brindle::console;

namespace {

constexpr std::string_view helper_name = "BrindleManagedWhatsAppBackend";

/// The helper is installed beside the console.
std::string defaultHelper() {
    const auto executable = MainBundle::current().executablePath;
    if (!executable) return std::string(helper_name);
    return joinedPath(executable->substr(0, executable->rfind('/')), helper_name);
}

/// Where the session's commands come from. A terminal is edited; `editor` is then the same object.
struct Input {
    std::unique_ptr<CommandInput> commands;
    LineEditor* editor = nullptr;
};

Input chooseInput(const Options& options, const Environment& environment, OutputStream& output) {
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

int showVersion(const Options& options) {
    std::printf("%s\n", consoleVersion().c_str());
    std::fflush(stdout);
    const TerminationSignals signals(TerminationSignalSet::everyEnd);
    const auto version = helperVersion(options, currentEnvironment(), signals);
    std::printf("%s speaks %s\n", terminalSafe(options.helper).c_str(), terminalSafe(version).c_str());
    return 0;
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
    const auto& options = std::get<Options>(parsed);
    try {
        return options.action == Action::showVersion ? showVersion(options) : runSession(options);
    } catch (const Failure& failure) {
        // Before there was a display to say it.
        std::fprintf(stderr, "%s\n", terminalSafe(failure.what()).c_str());
        return 1;
    }
}

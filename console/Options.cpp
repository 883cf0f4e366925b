#include "console/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <utility>

#include "console/Command.h"
#include "console/ShellCompletion.h"
#include "console/TerminalText.h"
#include "exchange/EnvironmentKeys.h"
#include "system/Paths.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

constexpr const char* program_description =
    "Plays the parent application for the messaging helper: starts it with a launch token, shows every message in both directions and sends what you type.\n";

constexpr double longest_worker_patience_seconds = 3600;

std::string footer() {
    return "\nCommands:\n" + commandHelp() +
           "\nExamples:\n"
           "  BrindleBridgeConsole --no-worker\n"
           "      Talk to a helper without a worker: try connect, then listen test \"Smoke test\".\n"
           "  BrindleBridgeConsole --native-worker ./my-worker --data-dir /tmp/try\n"
           "      Try a native worker of your own in a directory of its own.\n"
           "  BrindleBridgeConsole --builtin-worker --web-client index.html\n"
           "      Try the web worker on a page of your own.\n"
           "  BrindleBridgeConsole --script check.console\n"
           "      Run a script; the exit status tells whether its expectations were met.\n"
           "  echo connect | BrindleBridgeConsole --json\n"
           "      Show the bare protocol lines.\n"
           "  BrindleBridgeConsole doctor --data-dir /tmp/try\n"
           "      Find out why nothing arrives.\n";
}

/// What somebody typed that the command line has no place for.
std::string strayWordMessage(const CLI::App& app) {
    const auto words = app.remaining(true);
    const auto& word = words.empty() ? std::string() : words.front();
    const auto shown = "\"" + terminalSafe(word) + "\"";
    if (word.starts_with('-')) {
        return "There is no option " + shown + "; BrindleBridgeConsole --help lists the options.\n";
    }
    const auto commands = commandDescriptions();
    const bool isCommand =
        std::any_of(commands.begin(), commands.end(), [&](const auto& each) { return each.name == word; });
    if (isCommand) {
        return shown +
               " is a command of a session; start the console without it and type it there, or send it through a "
               "pipe.\n";
    }
    return "The word " + shown +
           " means nothing here; BrindleBridgeConsole --help lists the words and options.\n";
}

std::string mistakeMessage(const CLI::App* app, const CLI::Error& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError)) return strayWordMessage(*app);
    const auto actions = app->get_subcommands();
    const auto name = actions.empty() ? "" : actions.front()->get_name();
    return (name.empty() ? "" : name + ": ") + error.what() + ".\nBrindleBridgeConsole " +
           (name.empty() ? "" : name + " ") + "--help tells more.\n";
}

/// What an unset variable of a shell leaves would mean the current directory.
std::string refusedBlank(const std::string& text) {
    return trimmed(text).empty() ? "a directory has to be named" : "";
}

void requireInboxWords(const std::vector<std::string>& words) {
    const bool isAction = words.size() == 2 && (words[0] == "show" || words[0] == "restore");
    if (!words.empty() && !isAction) throw CLI::ValidationError("show NAME or restore NAME is expected");
}

struct Parser {
    Options options;
    bool noWorker = false;
    bool builtinWorker = false;
    bool showsVersion = false;
    std::string nativeWorkerPath;
    std::string color = "auto";
    CLI::App app{program_description};

    explicit Parser(const std::string& defaultHelper) {
        options.helper = defaultHelper;
        app.name("BrindleBridgeConsole");
        app.footer(footer());
        app.set_help_flag("-h,--help", "Show this help.");
        app.failure_message(mistakeMessage);
        addGeneralOptions();
        addWorkerOptions();
        addSubcommands();
    }

    /// What the program does instead of a session; the options may stand before or after the word. `others`
    /// are those of them that matter most to it.
    CLI::App* addSubcommand(const std::string& name, const std::string& meaning, Action action,
                            const std::string& others) {
        auto* subcommand = app.add_subcommand(name, meaning);
        subcommand->fallthrough();
        subcommand->set_help_flag();
        subcommand->footer("\nThe console's options may stand here too, such as " + others +
                           ".\nBrindleBridgeConsole --help explains them.\n");
        subcommand->callback([this, action] { options.action = action; });
        return subcommand;
    }

    /// An optional word behind an action.
    void addWord(CLI::App& subcommand, const std::string& name, const std::string& meaning) {
        subcommand
            .add_option_function<std::string>(
                name, [this](const std::string& word) { options.words.push_back(word); }, meaning)
            ->type_name("");
    }

    void addSubcommands() {
        app.require_subcommand(0, 1);
        addSubcommand("doctor", "Examine an installation and a data directory, and end.", Action::doctor,
                      "--data-dir DIR, --builtin-worker, --native-worker PATH and --json");
        auto* inbox = addSubcommand(
            "inbox", "List, show or put back inbound records, and end: [show NAME | restore NAME].",
            Action::inbox, "--data-dir DIR and --json");
        inbox->callback([this] {
            requireInboxWords(options.words);
            options.action = Action::inbox;
        });
        addWord(*inbox, "show|restore", "What to do with one record; without it all are listed.");
        addWord(*inbox, "NAME", "The record, named as in the list.");
        addSubcommand("watch", "Show a live view of a data directory, until q is pressed.", Action::watch,
                      "--data-dir DIR");
        addSubcommand(
            "replay",
            "Start a helper, send it the requests of a recording, show how the answers differ, and end.",
            Action::replay, "--helper PATH, --data-dir DIR and those that choose a worker")
            ->add_option("FILE", options.words, "The recording.")
            ->type_name("FILE")
            ->required()
            ->expected(1);
        auto* checkWorker = addSubcommand(
            "check-worker", "Run a native worker through all that the data directory asks of it, and end.",
            Action::checkWorker, "--json");
        checkWorker->add_option("PATH", options.checkedWorker, "The worker.")
            ->type_name("PATH")
            ->required()
            ->check(CLI::ExistingFile.description(""));
        checkWorker->add_option("--within", options.workerPatienceSeconds, "How long it has for each step.")
            ->type_name("SECONDS")
            ->check(CLI::Range(0.1, longest_worker_patience_seconds).description(""))
            ->capture_default_str();
    }

    void addGeneralOptions() {
        app.add_option("--helper", options.helper, "The helper to start.")
            ->type_name("PATH")
            ->capture_default_str();
        app.add_option(std::string(platform_argument), options.platform, "The messaging platform.")
            ->type_name("NAME")
            ->capture_default_str();
        app.add_flag("--version", showsVersion, "Show the version, and which protocol the helper speaks.");
        app.add_option("--data-dir", options.dataDirectory,
                       "The directory shared by helper and worker; \"default\" is the application's. Else "
                       "BRINDLE_MANAGED_BRIDGE_DATA_DIR, else one that goes with the console.")
            ->type_name("DIR")
            ->check(CLI::Validator(refusedBlank, ""));
        app.add_option("--script", options.script, "Run the commands in a file, then end.")
            ->type_name("FILE");
        app.add_option("--record", options.record, "Record the session in a new file.")->type_name("FILE");
        app.add_flag("--summary", options.summary, "At the end, show how long each command took.");
        app.add_flag("--json", options.json,
                     "Show the bare protocol lines and nothing else on standard output.");
        app.add_option("--color", color, "Use colours: auto, always or never.")
            ->type_name("WHEN")
            ->check(CLI::IsMember({"auto", "always", "never"}).description(""));
    }

    void addWorkerOptions() {
        auto* group = app.add_option_group("Worker", "Which worker the helper runs; at most one of these.");
        group->set_help_flag();
        group->add_option("--worker", options.workerPath, "This executable.")->type_name("PATH");
        group->add_option("--native-worker", nativeWorkerPath, "This native protocol worker.")
            ->type_name("PATH")
            ->check(CLI::ExistingFile.description(""));
        group->add_flag("--builtin-worker", builtinWorker, "The helper's own web worker.");
        group->add_flag("--no-worker", noWorker, "None.");
        group->require_option(0, 1);
        app.add_option("--web-client", options.webClient,
                       "The page of the built-in worker: an HTML file, or an address with its scheme.")
            ->type_name("PAGE")
            ->needs("--builtin-worker");
    }

    Options result() {
        if (showsVersion) options.action = Action::showVersion;
        if (color == "always") options.color = ColorChoice::always;
        if (color == "never") options.color = ColorChoice::never;
        if (!options.workerPath.empty()) options.worker = WorkerChoice::explicitPath;
        if (builtinWorker) options.worker = WorkerChoice::builtin;
        if (noWorker) options.worker = WorkerChoice::none;
        if (!nativeWorkerPath.empty()) {
            options.worker = WorkerChoice::native;
            options.workerPath = nativeWorkerPath;
        }
        return std::move(options);
    }
};

/// Those with a name; what has none is an argument.
std::vector<OptionDescription> optionsOf(const CLI::App& app) {
    std::vector<OptionDescription> options;
    for (const auto* each : app.get_options()) {
        if (each->get_lnames().empty()) continue;
        const bool hasValue = each->get_expected_max() > 0;
        options.push_back({.name = "--" + each->get_lnames().front(),
                           .shortName = each->get_snames().empty() ? "" : "-" + each->get_snames().front(),
                           .value = hasValue ? each->get_type_name() : "",
                           .meaning = each->get_description()});
    }
    return options;
}

std::string argumentOf(const CLI::App& app) {
    for (const auto* each : app.get_options()) {
        if (each->get_lnames().empty() && each->get_snames().empty()) return each->get_type_name();
    }
    return {};
}

void set(Environment& environment, std::string_view key, std::string value) {
    environment.insert_or_assign(std::string(key), std::move(value));
}

/// The application's directory is somebody's account: only who names it gets it.
void chooseDataDirectory(const Options& options, Environment& environment, const std::string& own) {
    using environment_key::data_directory;
    if (options.dataDirectory == default_data_directory) {
        environment.erase(std::string(data_directory));
    } else if (options.dataDirectory) {
        set(environment, data_directory, standardizedPath(*options.dataDirectory));
    } else if (!nonBlankValue(environment, data_directory)) {
        set(environment, data_directory, own);
    }
}

/// Without a choice the environment decides, as for everything that a developer may want to keep.
void choosePage(const Options& options, Environment& environment) {
    using namespace environment_key;
    if (!options.webClient) return;
    environment.erase(std::string(worker_test_html_path));
    environment.erase(std::string(worker_test_url));
    const auto& page = *options.webClient;
    if (page.find("://") != std::string::npos) return set(environment, worker_test_url, page);
    set(environment, worker_test_html_path, standardizedPath(page));
}

/// A choice on the command line replaces whatever the environment says about workers.
void chooseWorker(const Options& options, Environment& environment) {
    using namespace environment_key;
    if (options.worker == WorkerChoice::unchanged) return;
    for (const auto key : {disable_worker, worker_path, enable_native_worker, disable_native_worker,
                           native_worker_path, enable_builtin_worker}) {
        environment.erase(std::string(key));
    }
    switch (options.worker) {
        case WorkerChoice::explicitPath:
            return set(environment, worker_path, standardizedPath(options.workerPath));
        case WorkerChoice::native:
            set(environment, enable_native_worker, "1");
            return set(environment, native_worker_path, standardizedPath(options.workerPath));
        case WorkerChoice::builtin:
            set(environment, disable_native_worker, "1");
            set(environment, enable_builtin_worker, "1");
            return choosePage(options, environment);
        case WorkerChoice::none:
            return set(environment, disable_worker, "1");
        case WorkerChoice::unchanged:
            return;
    }
}

}  // namespace

std::variant<Options, CommandLineAnswer> parseCommandLine(int argumentCount, const char* const* arguments,
                                                          const std::string& defaultHelper) {
    Parser parser(defaultHelper);
    try {
        parser.app.parse(argumentCount, arguments);
        return parser.result();
    } catch (const CLI::ParseError& error) {
        std::ostringstream output;
        std::ostringstream problem;
        const int status = parser.app.exit(error, output, problem);
        return CommandLineAnswer{.text = output.str() + problem.str(), .status = status == 0 ? 0 : 2};
    }
}

CommandLineDescription commandLineDescription() {
    Parser parser("");
    CommandLineDescription description{.options = optionsOf(parser.app), .actions = {}};
    for (const auto* each : parser.app.get_subcommands([](const CLI::App*) { return true; })) {
        if (each->get_name().empty()) {
            const auto grouped = optionsOf(*each);
            description.options.insert(description.options.end(), grouped.begin(), grouped.end());
        } else {
            description.actions.push_back({.name = each->get_name(),
                                           .meaning = each->get_description(),
                                           .argument = argumentOf(*each),
                                           .options = optionsOf(*each)});
        }
    }
    return description;
}

std::string consoleVersion() {
    return "BrindleBridgeConsole " CONSOLE_VERSION;
}

bool namesDataDirectory(const Options& options, const Environment& environment) {
    return options.dataDirectory || nonBlankValue(environment, environment_key::data_directory);
}

Environment helperEnvironment(const Options& options, Environment inherited,
                              const std::string& ownDataDirectory) {
    // The helper must come up in its parent-facing role whatever this process was started with.
    inherited.erase(std::string(environment_key::worker_role));
    chooseDataDirectory(options, inherited, ownDataDirectory);
    chooseWorker(options, inherited);
    return inherited;
}

}  // namespace brindle::console

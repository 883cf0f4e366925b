#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "exchange/PlatformArgument.h"
#include "system/Environment.h"

namespace brindle::console {

enum class ColorChoice { automatic, always, never };

/// Which worker the helper is told to run.
enum class WorkerChoice {
    /// What the environment and the helper itself decide.
    unchanged,
    explicitPath,
    native,
    builtin,
    none,
};

/// The word that names the application's own data directory in place of a path.
inline constexpr std::string_view default_data_directory = "default";

/// What the program is to do.
enum class Action { session, showVersion, doctor, inbox, checkWorker, replay, watch };

struct Options {
    Action action = Action::session;
    std::string helper;
    std::string platform{default_platform};
    /// As it was named; default_data_directory means the application's.
    std::optional<std::string> dataDirectory;
    WorkerChoice worker = WorkerChoice::unchanged;
    std::string workerPath;
    /// A file or an http address that the built-in worker shows instead of the service's page.
    std::optional<std::string> webClient;
    bool json = false;
    bool summary = false;
    ColorChoice color = ColorChoice::automatic;
    std::optional<std::string> script;
    /// Where the session is recorded.
    std::optional<std::string> record;
    /// The native worker that is examined, and how long it has for each step.
    std::string checkedWorker;
    double workerPatienceSeconds = 10;
    /// What stands behind the word of an action.
    std::vector<std::string> words;
};

/// The command line was not one to run with: what to print instead, and the exit status.
struct CommandLineAnswer {
    std::string text;
    int status = 0;
};

/// Reads the command line. `defaultHelper` is used when it names no helper.
std::variant<Options, CommandLineAnswer> parseCommandLine(int argumentCount, const char* const* arguments,
                                                          const std::string& defaultHelper);

/// The name and version of this program.
std::string consoleVersion();

/// Whether somebody has named the data directory, on the command line or in the environment.
bool namesDataDirectory(const Options& options, const Environment& environment);

/// The environment to start the helper with: `inherited`, changed as the options say, and with
/// `ownDataDirectory` where neither they nor `inherited` name one. The launch token is not part of it yet.
Environment helperEnvironment(const Options& options, Environment inherited,
                              const std::string& ownDataDirectory);

}  // namespace brindle::console

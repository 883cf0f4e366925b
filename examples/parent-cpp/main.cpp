// A parent application in small: it shows the messages of one chat and sends what is typed.
//
//     sample-parent [--helper PATH] [--state DIRECTORY] CHAT-ID CHAT-TITLE
//
// Messages go to standard output, everything else to standard error. Which worker the helper runs, the
// environment says (docs/embedding.md). The end of the input, Ctrl-C or SIGTERM ends it. It needs Linux,
// C++20 and nlohmann's JSON library, and nothing of the helper.

#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>

#include <array>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <system_error>

#include "Parent.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* usage = "usage: sample-parent [--helper PATH] [--state DIRECTORY] CHAT-ID CHAT-TITLE";

std::string variable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): this program has one thread.
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

Parent::Settings settingsFrom(int argumentCount, char** arguments) {
    const auto base = variable("XDG_STATE_HOME");
    const fs::path states = base.empty() ? fs::path(variable("HOME")) / ".local/state" : fs::path(base);
    Parent::Settings settings{.program = "BrindleManagedWhatsAppBackend",
                              .state = states / "brindle-sample-parent",
                              .chatId = "",
                              .title = ""};
    const std::array<option, 3> known{{{"helper", required_argument, nullptr, 'h'},
                                       {"state", required_argument, nullptr, 's'},
                                       {nullptr, 0, nullptr, 0}}};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): this program has one thread.
    const auto next = [&] { return ::getopt_long(argumentCount, arguments, "", known.data(), nullptr); };
    for (int letter = next(); letter != -1; letter = next()) {
        if (letter == '?') throw GivenUp(usage);
        (letter == 'h' ? settings.program : settings.state) = optarg;
    }
    if (argumentCount - optind != 2) throw GivenUp(usage);
    settings.chatId = arguments[optind];
    settings.title = arguments[optind + 1];
    return settings;
}

/// Private: who can write there can speak as the worker, and who can read there has the messages.
void makePrivateDirectory(const fs::path& directory) {
    ::umask(S_IRWXG | S_IRWXO);
    std::error_code problem;
    fs::create_directories(directory, problem);
    if (problem) {
        throw GivenUp("Cannot make " + directory.string() + ": " + problem.message() +
                      "; name another with --state.");
    }
}

}  // namespace

int main(int argumentCount, char** arguments) {
    // A helper that is gone shows by its end, and so does a reader of ours.
    ::signal(SIGPIPE, SIG_IGN);
    try {
        auto settings = settingsFrom(argumentCount, arguments);
        makePrivateDirectory(settings.state);
        settings.state = fs::canonical(settings.state);
        Parent(settings).run();
        return EXIT_SUCCESS;
    } catch (const std::exception& problem) {
        say(problem.what());
        return EXIT_FAILURE;
    }
}

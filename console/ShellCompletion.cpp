#include "console/ShellCompletion.h"

#include <algorithm>

#include "console/Command.h"
#include "console/CommandGrammar.h"

namespace brindle::console {
namespace {

constexpr std::string_view program = "BrindleBridgeConsole";

/// How a value is completed.
enum class Source { none, files, directories, words };

Source sourceOf(std::string_view value) {
    if (value == "PATH" || value == "FILE" || value == "PAGE") return Source::files;
    if (value == "DIR") return Source::directories;
    return value == "WHEN" ? Source::words : Source::none;
}

constexpr std::string_view words_of_when = "auto always never";

std::vector<OptionDescription> everyOption(const CommandLineDescription& description) {
    auto all = description.options;
    for (const auto& action : description.actions) {
        all.insert(all.end(), action.options.begin(), action.options.end());
    }
    return all;
}

/// The words that can follow an action that is a session's command as well.
std::string wordsBehind(const std::string& action) {
    std::string words;
    for (const auto& command : commandDescriptions()) {
        if (command.name != action) continue;
        const std::vector<std::string> line{action};
        for (const auto& word : expectedNext(command.usage, line)) {
            if (!isPlaceholder(word)) words.append(words.empty() ? "" : " ").append(word);
        }
    }
    return words;
}

std::string joinedNames(const std::vector<OptionDescription>& options, std::string_view separator,
                        const auto& isWanted) {
    std::string names;
    for (const auto& option : options) {
        if (!isWanted(option)) continue;
        names.append(names.empty() ? "" : separator).append(option.name);
    }
    return names;
}

std::string actionNames(const CommandLineDescription& description, std::string_view separator) {
    std::string names;
    for (const auto& action : description.actions) {
        names.append(names.empty() ? "" : separator).append(action.name);
    }
    return names;
}

/// In single quotes of a shell, where `special` takes a backslash.
std::string quotedForShell(std::string_view text, std::string_view special) {
    std::string quoted = "'";
    for (const char each : text) {
        if (each == '\'') {
            quoted += "'\\''";
            continue;
        }
        if (special.find(each) != std::string_view::npos) quoted += '\\';
        quoted += each;
    }
    return quoted + "'";
}

std::string bashCase(const CommandLineDescription& description, Source source, std::string_view action) {
    const auto names = joinedNames(everyOption(description), "|", [&](const OptionDescription& option) {
        return !option.value.empty() && sourceOf(option.value) == source;
    });
    if (names.empty()) return {};
    return "        " + names + ")\n            " + std::string(action) +
           "\n            return\n            ;;\n";
}

std::string zshAction(std::string_view value) {
    switch (sourceOf(value)) {
        case Source::files:
            return ":" + std::string(value) + ":_files";
        case Source::directories:
            return ":" + std::string(value) + ":_files -/";
        case Source::words:
            return ":" + std::string(value) + ":(" + std::string(words_of_when) + ")";
        case Source::none:
            break;
    }
    return value.empty() ? "" : ":" + std::string(value) + ": ";
}

std::string fishValue(std::string_view value) {
    switch (sourceOf(value)) {
        case Source::files:
            return " -r -F";
        case Source::directories:
            return " -x -a '(__fish_complete_directories)'";
        case Source::words:
            return " -x -a '" + std::string(words_of_when) + "'";
        case Source::none:
            break;
    }
    return value.empty() ? "" : " -x";
}

/// Text for man(7): hyphens and backslashes as they are.
std::string forManual(std::string_view text) {
    std::string result;
    for (const char each : text) {
        if (each == '-') {
            result += "\\-";
        } else if (each == '\\') {
            result += "\\(rs";
        } else if (each == '"') {
            result += "\\(dq";
        } else {
            result += each;
        }
    }
    return result;
}

std::string manualEntry(const std::string& heading, const std::string& meaning) {
    return ".TP\n.B " + heading + "\n" + meaning + "\n";
}

}  // namespace

std::string bashCompletion(const CommandLineDescription& description) {
    std::string script =
        "# Completes " + std::string(program) +
        " in bash.\n"
        "_brindle_bridge_console() {\n"
        "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} word action=\n"
        "    case $previous in\n";
    script += bashCase(description, Source::files,
                       "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$current\")");
    script += bashCase(description, Source::directories,
                       "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- \"$current\")");
    script += bashCase(
        description, Source::words,
        "mapfile -t COMPREPLY < <(compgen -W \"" + std::string(words_of_when) + "\" -- \"$current\")");
    script += bashCase(description, Source::none, "COMPREPLY=()");
    script +=
        "    esac\n    for word in \"${COMP_WORDS[@]:1:COMP_CWORD - 1}\"; do\n        case $word in\n            " +
        actionNames(description, "|") + ") action=$word ;;\n        esac\n    done\n";
    script += "    if [[ $current == -* ]]; then\n        mapfile -t COMPREPLY < <(compgen -W \"" +
              joinedNames(everyOption(description), " ", [](const OptionDescription&) { return true; }) +
              "\" -- \"$current\")\n        return\n    fi\n    case $action in\n";
    script += "        \"\") mapfile -t COMPREPLY < <(compgen -W \"" + actionNames(description, " ") +
              "\" -- \"$current\") ;;\n";
    for (const auto& action : description.actions) {
        const auto words = wordsBehind(action.name);
        if (sourceOf(action.argument) == Source::files) {
            script += "        " + action.name +
                      ") compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$current\") ;;\n";
        } else if (!words.empty()) {
            script += "        " + action.name + ") mapfile -t COMPREPLY < <(compgen -W \"" + words +
                      "\" -- \"$current\") ;;\n";
        }
    }
    return script + "    esac\n}\ncomplete -F _brindle_bridge_console " + std::string(program) + "\n";
}

std::string zshCompletion(const CommandLineDescription& description) {
    constexpr std::string_view special = "[]:\\";
    std::string script = "#compdef " + std::string(program) + "\n_arguments";
    for (const auto& option : everyOption(description)) {
        const auto meaning = quotedForShell(option.meaning, special);
        script += " \\\n    " + quotedForShell(option.name, "") + "'['" + meaning + "']'" +
                  quotedForShell(zshAction(option.value), "");
    }
    script += " \\\n    '1:action:((";
    for (const auto& action : description.actions) {
        auto meaning = quotedForShell(action.meaning, "");
        script += action.name + "\\:\"" + meaning.substr(1, meaning.size() - 2) + "\" ";
    }
    return script + "))' \\\n    '*:argument:_files'\n";
}

std::string fishCompletion(const CommandLineDescription& description) {
    const std::string begin = "complete -c " + std::string(program);
    std::string script = "# Completes " + std::string(program) + " in fish.\n" + begin + " -f\n";
    for (const auto& option : description.options) {
        script += begin + " -l " + option.name.substr(2) +
                  (option.shortName.empty() ? "" : " -s " + option.shortName.substr(1)) +
                  fishValue(option.value) + " -d " + quotedForShell(option.meaning, "\\") + "\n";
    }
    for (const auto& action : description.actions) {
        script += begin + " -n __fish_use_subcommand -a " + action.name + " -d " +
                  quotedForShell(action.meaning, "\\") + "\n";
        const auto condition = " -n '__fish_seen_subcommand_from " + action.name + "'";
        const auto words = wordsBehind(action.name);
        if (sourceOf(action.argument) == Source::files) {
            script += begin + condition + " -F\n";
        } else if (!words.empty()) {
            script.append(begin).append(condition).append(" -a '").append(words).append("'\n");
        }
        for (const auto& option : action.options) {
            script.append(begin).append(condition).append(" -l ").append(option.name.substr(2));
            script.append(fishValue(option.value)).append(" -d ");
            script.append(quotedForShell(option.meaning, "\\")).append("\n");
        }
    }
    return script;
}

std::string manualOptions(const CommandLineDescription& description) {
    std::string text;
    for (const auto& option : description.options) {
        auto heading = forManual(option.name);
        if (!option.shortName.empty()) heading.insert(0, ", ").insert(0, forManual(option.shortName));
        if (!option.value.empty()) heading.append(" \\fI").append(option.value).append("\\fP");
        text += manualEntry(heading, forManual(option.meaning));
    }
    return text;
}

std::string manualActions(const CommandLineDescription& description) {
    std::string text;
    for (const auto& action : description.actions) {
        auto heading = forManual(action.name);
        if (!action.argument.empty()) heading += " \\fI" + forManual(action.argument) + "\\fP";
        for (const auto& option : action.options) {
            heading.append(" [")
                .append(forManual(option.name))
                .append(" \\fI")
                .append(option.value)
                .append("\\fP]");
        }
        text += manualEntry(heading, forManual(action.meaning));
    }
    return text;
}

std::string manualCommands() {
    std::string text;
    for (const auto& command : commandDescriptions()) {
        auto heading = forManual(command.usage);
        if (!command.alias.empty()) heading += ", " + forManual(command.alias);
        auto meaning = forManual(command.meaning);
        if (!command.details.empty()) meaning += "\n" + forManual(command.details);
        text += manualEntry(heading, meaning);
    }
    return text;
}

}  // namespace brindle::console

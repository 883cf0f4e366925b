#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace brindle::console {

/// An option of the command line as everybody is told of it.
struct OptionDescription {
    /// "--helper"; a second name, "-h", may be missing.
    std::string name;
    std::string shortName;
    /// What its value stands for ("PATH"); empty for an option without one.
    std::string value;
    std::string meaning;
};

/// What the program does instead of a session, as everybody is told of it.
struct ActionDescription {
    std::string name;
    std::string meaning;
    /// What stands behind the word ("PATH"); may be empty.
    std::string argument;
    std::vector<OptionDescription> options;
};

/// Everything that a command line can hold.
struct CommandLineDescription {
    std::vector<OptionDescription> options;
    std::vector<ActionDescription> actions;
};

/// The command line as it is parsed.
CommandLineDescription commandLineDescription();

/// A script by which the shell completes the command line.
std::string bashCompletion(const CommandLineDescription& description);
std::string zshCompletion(const CommandLineDescription& description);
std::string fishCompletion(const CommandLineDescription& description);

/// The parts of the manual page that follow from the declarations (man(7)).
std::string manualOptions(const CommandLineDescription& description);
std::string manualActions(const CommandLineDescription& description);
std::string manualCommands();

}  // namespace brindle::console

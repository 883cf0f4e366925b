/// Writes what is said of the console elsewhere, from its own declarations:
/// console_reference bash | zsh | fish > SCRIPT, console_reference man TEMPLATE > PAGE.
#include <cstdio>
#include <string>
#include <string_view>

#include "console/ShellCompletion.h"
#include "system/FileManager.h"
#include "text/Failure.h"

using namespace brindle;
using namespace brindle::console;

namespace {

/// The template with the line that is just the mark replaced.
void fillIn(std::string& page, std::string_view mark, const std::string& text) {
    const auto line = ".\\\" " + std::string(mark) + "\n";
    const auto at = page.find(line);
    if (at == std::string::npos)
        throw Failure("The template has no line " + line.substr(0, line.size() - 1) + ".");
    page.replace(at, line.size(), text);
}

std::string manualPage(const std::string& file) {
    auto page = PosixFileManager().readFile(file);
    const auto description = commandLineDescription();
    fillIn(page, "OPTIONS", manualOptions(description));
    fillIn(page, "ACTIONS", manualActions(description));
    fillIn(page, "COMMANDS", manualCommands());
    return page;
}

}  // namespace

int main(int argumentCount, char** arguments) {
    const std::string_view kind = argumentCount > 1 ? arguments[1] : "";
    try {
        std::string text;
        if (kind == "bash") text = bashCompletion(commandLineDescription());
        if (kind == "zsh") text = zshCompletion(commandLineDescription());
        if (kind == "fish") text = fishCompletion(commandLineDescription());
        if (kind == "man" && argumentCount == 3) text = manualPage(arguments[2]);
        if (text.empty()) throw Failure("Usage: console_reference bash | zsh | fish | man TEMPLATE");
        return std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0 ? 1 : 0;
    } catch (const Failure& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "storm/Coordinator.h"
#include "storm/PlayedParent.h"

namespace brindle::test {
namespace {

constexpr const char* usage =
    "Usage: storm ROUNDS [SEED] [--state FILE] [--at-a-time N] [--web-percent N] [--victim NAME]\n"
    "  SEED           of the first round; without one goes on where the last storm stopped\n"
    "  --state FILE   keeps where that is, and the sums of all storms\n"
    "  --at-a-time N  rounds at the same time (6)\n"
    "  --web-percent N  how many rounds of a hundred run the built-in worker (5)\n"
    "  --victim NAME  only backend, parent, native-worker, worker or engine\n";

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Takes the option in front of `words`; whether it is one that has to be named to repeat a round.
bool takeOption(const std::string& name, const std::string& value, StormOptions& options) {
    if (name == "--state") {
        options.stateFile = value;
        return false;
    }
    if (name == "--at-a-time") {
        options.roundsAtATime = std::stoul(value);
        return false;
    }
    if (name == "--web-percent") {
        options.preferences.webPercent = std::stol(value);
    } else if (name == "--victim") {
        options.preferences.only = victimNamed(value);
    } else {
        throw UsageError(name + " is no option.");
    }
    return true;
}

StormOptions optionsFrom(const std::vector<std::string>& words) {
    StormOptions options;
    options.repeatCommand = "scripts/storm";
    std::vector<std::string> numbers;
    for (std::size_t index = 0; index < words.size(); ++index) {
        if (!words[index].starts_with("--")) {
            numbers.push_back(words[index]);
            continue;
        }
        if (index + 1 == words.size()) throw UsageError(words[index] + " needs a value.");
        if (takeOption(words[index], words[index + 1], options)) {
            options.repeatOptions += " " + words[index] + " " + words[index + 1];
        }
        ++index;
    }
    if (!numbers.empty()) options.rounds = std::stoul(numbers[0]);
    if (numbers.size() > 1) {
        options.firstSeed = std::stoull(numbers[1]);
        // Chosen rounds are no part of the sequence.
        options.stateFile.clear();
    }
    return options;
}

int run(const std::vector<std::string>& words) {
    if (!words.empty() && words.front() == play_parent_argument) return PlayedParent::from(words).play();
    return Coordinator(optionsFrom(words)).run() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace brindle::test

int main(int argumentCount, char** arguments) {
    constexpr int usage_error = 2;
    try {
        return brindle::test::run(std::vector<std::string>(arguments + 1, arguments + argumentCount));
    } catch (const std::logic_error& failure) {
        std::cerr << "A number is needed, not " << failure.what() << "\n" << brindle::test::usage;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << "\n" << brindle::test::usage;
    }
    return usage_error;
}

/// Measures what the helper costs, each figure beside a C program that does the same system calls, and prints
/// a table: bench [--smoke] [--only CASE]... [--results FILE] DIRECTORY... Data directories are made in each
/// of the directories; what needs only one takes the first.
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Bench.h"
#include "Table.h"

namespace brindle::bench {
namespace {

struct Case {
    const char* name;
    void (*measure)(Bench&);
};

// The engine's come last: it keeps threads of its own once it has been started.
constexpr Case cases[] = {{"start", measureStart},       {"drain", measureDrain},
                          {"connect", measureConnect},   {"send", measureSend},
                          {"waiting", measureWaiting},   {"rest", measureRest},
                          {"reaction", measureReaction}, {"worker", measureWorkerTree},
                          {"road", measureMessageRoad},  {"scan", measureCaptureScan}};

struct Options {
    Effort effort = Effort::full;
    std::set<std::string> only{};
    std::filesystem::path results{};
    std::vector<std::filesystem::path> directories{};
};

bool isCase(const std::string& name) {
    for (const auto& one : cases) {
        if (name == one.name) return true;
    }
    return false;
}

/// Nothing when they are not understood.
std::optional<Options> parsed(const std::vector<std::string>& arguments) {
    Options options;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const auto& argument = arguments[index];
        const bool hasValue = index + 1 < arguments.size();
        if (argument == "--smoke") {
            options.effort = Effort::smoke;
        } else if (argument == "--only" && hasValue && isCase(arguments[index + 1])) {
            options.only.insert(arguments[++index]);
        } else if (argument == "--results" && hasValue) {
            options.results = arguments[++index];
        } else if (!argument.starts_with("-")) {
            options.directories.emplace_back(argument);
        } else {
            return std::nullopt;
        }
    }
    return options.directories.empty() ? std::nullopt : std::optional(options);
}

int run(const std::vector<std::string>& arguments) {
    const auto options = parsed(arguments);
    if (!options) {
        std::cerr << "usage: bench [--smoke] [--only CASE]... [--results FILE] DIRECTORY...\ncases:";
        for (const auto& one : cases) std::cerr << " " << one.name;
        std::cerr << "\n";
        return EXIT_FAILURE;
    }
    std::vector<Place> places;
    for (const auto& directory : options->directories) places.push_back(placeAt(directory));
    Bench bench(options->effort, std::move(places));
    for (const auto& one : cases) {
        if (options->only.empty() || options->only.contains(one.name)) one.measure(bench);
    }
    std::cout << alignedTable(bench.figures());
    if (!options->results.empty()) std::ofstream(options->results) << tabSeparated(bench.figures());
    return EXIT_SUCCESS;
}

}  // namespace
}  // namespace brindle::bench

int main(int count, char** arguments) {
    try {
        return brindle::bench::run({arguments + 1, arguments + count});
    } catch (const std::exception& error) {
        std::cerr << "bench: " << error.what() << "\n";
        return EXIT_FAILURE;
    }
}

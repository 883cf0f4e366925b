#include "Bench.h"

#include <chrono>
#include <iostream>
#include <map>
#include <utility>

#include "ProcessFigures.h"
#include "Table.h"
#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/Requests.h"

namespace brindle::bench {
namespace {

constexpr double nanoseconds_per_second = 1e9;

/// One for all helpers: what makes it is no part of a start.
const test::BackendOptions& launch() {
    static const test::BackendOptions options;
    return options;
}

}  // namespace

void Bench::announce(const std::string& what) const {
    std::cerr << "-- " << what << std::endl;
}

void Bench::add(Figure figure) {
    std::cerr << "   " << described(figure) << std::endl;
    figures_.push_back(std::move(figure));
}

void Bench::addWithWorst(Figure figure) {
    auto worst = figure;
    worst.statistic = Statistic::percentile99;
    add(std::move(figure));
    add(std::move(worst));
}

void sampleInTurns(Figure& figure, int rounds, const std::function<double()>& helper,
                   const std::function<double()>& floor) {
    for (int round = 0; round < rounds; ++round) {
        figure.helper.push_back(helper());
        figure.floor.push_back(floor());
    }
}

double secondsOf(const std::function<void()>& action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

Cost costOf(const Program& program, const std::function<void()>& action) {
    const auto before = processorNanoseconds(program.processIdentifier());
    const double time = secondsOf(action);
    const auto used = processorNanoseconds(program.processIdentifier()) - before;
    return {.time = time, .processor = static_cast<double>(used) / nanoseconds_per_second};
}

void addInTurns(Bench& bench, Figure figure, double scale, int rounds, const std::function<Cost()>& helper,
                const std::function<Cost()>& floor) {
    auto processor = figure;
    processor.name += ", processor time";
    const auto keep = [&](const Cost& cost, std::vector<double> Figure::*samples) {
        (figure.*samples).push_back(scale * cost.time);
        (processor.*samples).push_back(scale * cost.processor);
    };
    for (int round = 0; round < rounds; ++round) {
        keep(helper(), &Figure::helper);
        keep(floor(), &Figure::floor);
    }
    bench.add(std::move(figure));
    bench.add(std::move(processor));
}

Program startHelper(const std::filesystem::path& dataDirectory) {
    auto environment = launch().environment;
    environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = dataDirectory;
    return {{launch().executable}, std::move(environment)};
}

std::filesystem::path launchTokenFile() {
    return launch().launchToken->file();
}

Program startFloor(const std::string& name, const std::vector<std::string>& arguments) {
    std::vector<std::string> commandLine{test::binaryDirectory() / "bench" / name};
    commandLine.insert(commandLine.end(), arguments.begin(), arguments.end());
    return {std::move(commandLine), {{"PATH", "/usr/bin:/bin"}}};
}

std::string connectLine() {
    return test::connectRequest().dump() + "\n";
}

std::string listenLine(const std::string& chat) {
    return test::startListeningRequest(test::conversationScope(chat, chat)).dump() + "\n";
}

std::string badLine() {
    return "x\n";
}

void connectAndListen(Program& helper, const std::string& chat) {
    constexpr std::size_t connection_lines = 2;
    helper.exchange(connectLine() + listenLine(chat) + badLine(), greeting_lines + connection_lines + 1);
}

}  // namespace brindle::bench

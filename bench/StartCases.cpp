#include <chrono>
#include <functional>
#include <string>

#include "Bench.h"
#include "ProcessFigures.h"

namespace brindle::bench {
namespace {

using Starter = std::function<Program(const DataDirectory&)>;

Program helperIn(const DataDirectory& directory) {
    return startHelper(directory.path());
}

Program floorIn(const DataDirectory& directory) {
    return startFloor("floor_start", {directory.path(), launchTokenFile()});
}

/// From the start of the process to its first line, in a directory that nobody has made yet.
Cost startCost(const Place& place, const Starter& start) {
    constexpr double nanoseconds_per_second = 1e9;
    const DataDirectory directory(place);
    const auto begin = std::chrono::steady_clock::now();
    Program program = start(directory);
    program.readSome();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
    const auto used = static_cast<double>(processorNanoseconds(program.processIdentifier()));
    return {.time = elapsed.count(), .processor = used / nanoseconds_per_second};
}

double kibibytesAfterStart(const Place& place, const Starter& start, double (*figure)(pid_t)) {
    const DataDirectory directory(place);
    Program program = start(directory);
    program.exchange("", greeting_lines);
    waitUntilQuiet(program.processIdentifier());
    return figure(program.processIdentifier());
}

void measureMemory(Bench& bench, const std::string& name, double (*figure)(pid_t)) {
    const auto& place = bench.places().front();
    Figure memory{.name = name, .unit = "KiB"};
    sampleInTurns(
        memory, bench.inFull(5, 1), [&] { return kibibytesAfterStart(place, helperIn, figure); },
        [&] { return kibibytesAfterStart(place, floorIn, figure); });
    bench.add(std::move(memory));
}

}  // namespace

void measureStart(Bench& bench) {
    bench.announce("start");
    for (const auto& place : bench.places()) {
        addInTurns(
            bench, {.name = "start to hello", .place = place.fileSystem, .unit = "ms"},
            milliseconds_per_second, bench.inFull(101, 5), [&] { return startCost(place, helperIn); },
            [&] { return startCost(place, floorIn); });
    }
    measureMemory(bench, "resident after start", residentKibibytes);
    measureMemory(bench, "private dirty after start", privateDirtyKibibytes);
}

}  // namespace brindle::bench

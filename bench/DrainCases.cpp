#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "Bench.h"
#include "ProcessFigures.h"

namespace brindle::bench {
namespace {

using std::chrono::steady_clock;

struct Drain {
    Cost cost{};
    std::size_t lineBytes = 0;
};

void requireDrained(const DataDirectory& directory) {
    if (directory.entriesIn("inbound") != 0)
        throw std::runtime_error("Not every record was delivered, so the drain was not measured.");
}

/// Ends the program, so that what it does behind its last line is done.
Drain drainByHelper(const Place& place, std::size_t records) {
    const DataDirectory directory(place);
    directory.make();
    directory.fill(records, watched_chat);
    Drain drain;
    {
        constexpr std::size_t lines_until_connected = 4;
        Program helper = startHelper(directory.path());
        helper.exchange(connectLine(), lines_until_connected);
        waitUntilQuiet(helper.processIdentifier());
        const auto before = helper.bytesRead();
        drain.cost = costOf(helper, [&] { helper.exchange(listenLine(watched_chat), records); });
        drain.lineBytes = (helper.bytesRead() - before) / records;
        // Answered when the last record has been filed away.
        helper.exchange(badLine(), 1);
    }
    requireDrained(directory);
    return drain;
}

Cost drainByFloor(const Place& place, std::size_t records, std::size_t lineBytes) {
    const DataDirectory directory(place);
    directory.make();
    directory.fill(records, watched_chat);
    Cost cost;
    {
        Program floor =
            startFloor("floor_drain", {directory.path(), std::to_string(records), std::to_string(lineBytes)});
        floor.exchange("", 1);
        cost = costOf(floor, [&] { floor.exchange(badLine(), records); });
    }
    requireDrained(directory);
    return cost;
}

void measureDrainOf(Bench& bench, const Place& place, std::size_t records, int rounds) {
    const double scale = microseconds_per_second / static_cast<double>(records);
    std::size_t lineBytes = 0;
    addInTurns(
        bench,
        {.name = "drain, per record",
         .place = place.fileSystem,
         .size = static_cast<double>(records),
         .unit = "us"},
        scale, rounds,
        [&] {
            const auto drain = drainByHelper(place, records);
            lineBytes = drain.lineBytes;
            return drain.cost;
        },
        [&] { return drainByFloor(place, records, lineBytes); });
}

/// Seconds since the status was last published.
double statusAge(const DataDirectory& directory) {
    struct stat facts {};
    if (::stat((directory.path() / "runtime/runtime-status.json").c_str(), &facts) != 0) return 0;
    const auto written =
        std::chrono::seconds(facts.st_mtim.tv_sec) + std::chrono::nanoseconds(facts.st_mtim.tv_nsec);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now - written).count();
}

struct Wait {
    double processorPercent = 0;
    double oldestStatus = 0;
};

/// What it costs the helper that these records wait, for as long as told.
Wait waitByHelper(const DataDirectory& directory, std::chrono::milliseconds time) {
    constexpr std::chrono::milliseconds glance{20};
    Program helper = startHelper(directory.path());
    connectAndListen(helper, watched_chat);
    waitUntilQuiet(helper.processIdentifier());
    Wait wait;
    const auto before = processorNanoseconds(helper.processIdentifier());
    const auto begin = steady_clock::now();
    while (steady_clock::now() - begin < time) {
        wait.oldestStatus = std::max(wait.oldestStatus, statusAge(directory));
        std::this_thread::sleep_for(glance);
    }
    const auto used = processorNanoseconds(helper.processIdentifier()) - before;
    const std::chrono::duration<double, std::nano> elapsed = steady_clock::now() - begin;
    wait.processorPercent = 100 * static_cast<double>(used) / elapsed.count();
    return wait;
}

Cost lookByFloor(const DataDirectory& directory) {
    Program floor = startFloor("floor_scan", {directory.path()});
    floor.exchange("", 1);
    return costOf(floor, [&] { floor.exchange(badLine(), 1); });
}

void measureWaitingOf(Bench& bench, const Place& place, std::size_t records) {
    /// How often the helper looks.
    constexpr double interval_s = 0.5;
    const DataDirectory directory(place);
    directory.make();
    directory.fill(records, other_chat);
    const auto size = static_cast<double>(records);
    Figure look{.name = "waiting: list and stat once", .place = place.fileSystem, .size = size, .unit = "ms"};
    Figure share{.name = "waiting: share of a core", .place = place.fileSystem, .size = size, .unit = "%"};
    Figure age{.name = "waiting: oldest status seen", .place = place.fileSystem, .size = size, .unit = "s"};
    for (int round = 0; round < bench.inFull(3, 1); ++round) {
        const auto cost = lookByFloor(directory);
        look.floor.push_back(milliseconds_per_second * cost.time);
        // What that would take of a core at every look.
        share.floor.push_back(100 * cost.processor / interval_s);
        const auto wait = waitByHelper(directory, std::chrono::milliseconds(bench.inFull(6000, 600)));
        share.helper.push_back(wait.processorPercent);
        age.helper.push_back(wait.oldestStatus);
    }
    for (auto* figure : {&look, &share, &age}) bench.add(std::move(*figure));
}

}  // namespace

void measureDrain(Bench& bench) {
    bench.announce("drain");
    for (const auto& place : bench.places()) {
        if (bench.isSmoke()) {
            measureDrainOf(bench, place, 200, 1);
            continue;
        }
        for (const auto& [records, rounds] :
             {std::pair<std::size_t, int>{100, 9}, {1'000, 9}, {10'000, 7}, {100'000, 3}})
            measureDrainOf(bench, place, records, rounds);
    }
}

void measureWaiting(Bench& bench) {
    bench.announce("records that wait for another chat");
    for (const auto& place : bench.places()) {
        if (bench.isSmoke()) {
            measureWaitingOf(bench, place, 200);
            continue;
        }
        for (const std::size_t records : {100U, 1'000U, 10'000U, 100'000U})
            measureWaitingOf(bench, place, records);
    }
}

}  // namespace brindle::bench

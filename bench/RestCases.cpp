#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <string>
#include <thread>

#include "Bench.h"
#include "ProcessFigures.h"

namespace brindle::bench {
namespace {

using std::chrono::steady_clock;

void measureRestOn(Bench& bench, const Place& place) {
    const std::chrono::seconds time(bench.inFull(20, 1));
    const DataDirectory directory(place);
    Program helper = startHelper(directory.path());
    connectAndListen(helper, watched_chat);
    waitUntilQuiet(helper.processIdentifier());
    Figure processor{.name = "idle: processor time a second", .place = place.fileSystem, .unit = "ms"};
    Figure wakes{.name = "idle: wake-ups a second", .place = place.fileSystem, .unit = "1"};
    for (int round = 0; round < bench.inFull(3, 1); ++round) {
        const auto usedBefore = processorNanoseconds(helper.processIdentifier());
        const auto wakesBefore = wakeUps(helper.processIdentifier());
        const double seconds = secondsOf([&] { std::this_thread::sleep_for(time); });
        constexpr double nanoseconds_per_millisecond = 1e6;
        processor.helper.push_back(
            static_cast<double>(processorNanoseconds(helper.processIdentifier()) - usedBefore) /
            nanoseconds_per_millisecond / seconds);
        wakes.helper.push_back(static_cast<double>(wakeUps(helper.processIdentifier()) - wakesBefore) /
                               seconds);
    }
    bench.add(std::move(processor));
    bench.add(std::move(wakes));
}

/// Lets records appear one by one, at moments that have nothing to do with the helper's looks.
class RecordSource {
  public:
    explicit RecordSource(const DataDirectory& directory) : inbound_(directory.path() / "inbound") {}

    /// Milliseconds from the record's appearance to the program's line.
    double sample(Program& program) {
        std::this_thread::sleep_for(nextPause());
        const auto name = "m" + std::to_string(++number_);
        std::ofstream(inbound_ / ".next") << recordText(name, watched_chat);
        const auto begin = steady_clock::now();
        std::filesystem::rename(inbound_ / ".next", inbound_ / (name + ".json"));
        program.exchange("", 1);
        return std::chrono::duration<double, std::milli>(steady_clock::now() - begin).count();
    }

  private:
    /// Up to half a second, evenly spread: multiples of the golden ratio.
    std::chrono::duration<double> nextPause() const {
        constexpr double golden_ratio = 0.6180339887498949;
        constexpr double longest_s = 0.5;
        const double position = golden_ratio * number_;
        return std::chrono::duration<double>(longest_s * (position - std::floor(position)));
    }

    std::filesystem::path inbound_;
    int number_ = 0;
};

void measureReactionOn(Bench& bench, const Place& place, std::size_t waiting) {
    constexpr int line_bytes = 350;
    const int records = bench.inFull(120, 2);
    Figure median{
        .name = "reaction, " + std::to_string(waiting) + " waiting", .place = place.fileSystem, .unit = "ms"};
    const DataDirectory ofHelper(place);
    const DataDirectory ofFloor(place);
    for (const auto* directory : {&ofHelper, &ofFloor}) {
        directory->make();
        directory->fill(waiting, other_chat, "w");
    }
    Program helper = startHelper(ofHelper.path());
    connectAndListen(helper, watched_chat);
    Program floor = startFloor("floor_react", {ofFloor.path(), std::to_string(line_bytes)});
    floor.exchange("", 1);
    RecordSource toHelper(ofHelper);
    RecordSource toFloor(ofFloor);
    sampleInTurns(
        median, records, [&] { return toHelper.sample(helper); }, [&] { return toFloor.sample(floor); });
    bench.addWithWorst(std::move(median));
}

}  // namespace

void measureRest(Bench& bench) {
    bench.announce("rest");
    for (const auto& place : bench.places()) measureRestOn(bench, place);
}

void measureReaction(Bench& bench) {
    bench.announce("reaction");
    for (const auto& place : bench.places()) {
        for (const std::size_t waiting : {0U, 100U}) measureReactionOn(bench, place, waiting);
    }
}

}  // namespace brindle::bench

#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Figure.h"
#include "Place.h"
#include "Program.h"

namespace brindle::bench {

/// How much is measured: everything, or just enough to see that it can be measured.
enum class Effort { full, smoke };

/// What all cases share: how much, where, and what has come out so far.
class Bench {
  public:
    Bench(Effort effort, std::vector<Place> places) : effort_(effort), places_(std::move(places)) {}

    bool isSmoke() const { return effort_ == Effort::smoke; }
    const std::vector<Place>& places() const { return places_; }
    /// One of two values, by the effort.
    template <class Value>
    Value inFull(Value full, Value smoke) const {
        return isSmoke() ? smoke : full;
    }

    /// Says on standard error what comes next.
    void announce(const std::string& what) const;
    /// Keeps a figure and shows it on standard error.
    void add(Figure figure);
    /// The same for a figure and its 99th percentile.
    void addWithWorst(Figure figure);
    const std::vector<Figure>& figures() const { return figures_; }

  private:
    Effort effort_;
    std::vector<Place> places_;
    std::vector<Figure> figures_;
};

/// Takes `rounds` samples of both in turns, the helper first, so that what the machine does besides falls on
/// both.
void sampleInTurns(Figure& figure, int rounds, const std::function<double()>& helper,
                   const std::function<double()>& floor);

/// The time that something takes, in seconds.
double secondsOf(const std::function<void()>& action);

/// What something took, in seconds: by the clock, and of the program's processor time, which is hardly moved
/// by what else the machine does.
struct Cost {
    double time = 0;
    double processor = 0;
};

/// What it costs a program to do its part in something.
Cost costOf(const Program& program, const std::function<void()>& action);

/// As sampleInTurns(); adds the figure and a second one of the processor time. `scale` is how many of the
/// figure's units make a second.
void addInTurns(Bench& bench, Figure figure, double scale, int rounds, const std::function<Cost()>& helper,
                const std::function<Cost()>& floor);

constexpr double milliseconds_per_second = 1e3;
constexpr double microseconds_per_second = 1e6;

constexpr std::size_t greeting_lines = 2;
/// The chat that is listened to, and one that nobody listens to.
inline const std::string watched_chat = "Team Room";
inline const std::string other_chat = "Ship Log";

/// The helper with this data directory, without a worker and not greeted yet.
Program startHelper(const std::filesystem::path& dataDirectory);
/// The file of the token that startHelper() passes on.
std::filesystem::path launchTokenFile();
/// The floor of this name, not greeted yet.
Program startFloor(const std::string& name, const std::vector<std::string>& arguments);

/// Lines of a parent.
std::string connectLine();
std::string listenLine(const std::string& chat);
/// A line that is no request: the helper answers it with an error after everything before it.
std::string badLine();

/// The helper, greeted, connected and listening to a chat; nothing of what that begins is under way any more.
void connectAndListen(Program& helper, const std::string& chat);

// The cases.

void measureStart(Bench& bench);
void measureDrain(Bench& bench);
void measureWaiting(Bench& bench);
void measureConnect(Bench& bench);
void measureSend(Bench& bench);
void measureRest(Bench& bench);
void measureReaction(Bench& bench);
void measureCaptureScan(Bench& bench);
void measureWorkerTree(Bench& bench);
void measureMessageRoad(Bench& bench);

}  // namespace brindle::bench

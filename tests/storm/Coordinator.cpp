#include "storm/Coordinator.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <utility>
#include <vector>

#include "support/Files.h"
#include "support/Pipes.h"
#include "support/Processes.h"
#include "support/TestDisplay.h"

namespace brindle::test {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::minutes longest_round{3};
constexpr std::chrono::seconds progress_interval{5};
constexpr std::string_view success = "ok ";

void useMemory() {
    constexpr const char* memory = "/dev/shm";
    if (::access(memory, W_OK) == 0) ::setenv("TMPDIR", memory, 1);
}

/// What a round of this seed came to: a tally, or what was wrong.
std::string resultOf(std::uint64_t seed, const Preferences& preferences) {
    const auto plan = planFor(seed, preferences);
    try {
        if (plan.isInMemory) useMemory();
        return std::string(success) + Round(plan).run().asText();
    } catch (const std::exception& failure) {
        return describe(plan) + failure.what();
    }
}

void endTree(pid_t process) {
    for (const pid_t member : processTree(process)) ::kill(member, SIGKILL);
}

}  // namespace

Coordinator::Coordinator(StormOptions options) : options_(std::move(options)), nextSeed_(options_.firstSeed) {
    readState();
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    // Before the first process that is to use it.
    if (options_.preferences.webPercent > 0 || options_.preferences.only) TestDisplay::shared();
}

void Coordinator::readState() {
    if (options_.stateFile.empty()) return;
    std::ifstream file(options_.stateFile);
    std::string tally;
    if (file >> nextSeed_ && std::getline(file, tally)) before_ = Tally::from(tally);
}

void Coordinator::writeState() const {
    if (options_.stateFile.empty()) return;
    auto all = before_;
    all.add(now_);
    writeFileAtomically(options_.stateFile, std::to_string(nextSeed_) + " " + all.asText() + "\n");
}

bool Coordinator::run() {
    lastProgress_ = steady_clock::now();
    while (started_ < options_.rounds || !running_.empty()) {
        while (started_ < options_.rounds && running_.size() < options_.roundsAtATime) startRound();
        takeResults();
        showProgress();
    }
    showTable();
    return failed_ == 0;
}

void Coordinator::startRound() {
    auto pipe = makePipe();
    const auto seed = nextSeed_++;
    ++started_;
    std::fflush(nullptr);
    const pid_t process = ::fork();
    if (process == 0) {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        put(pipe.writing, resultOf(seed, options_.preferences));
        // Orphans of a round that failed go with it.
        for (const pid_t child : childrenOf(::getpid())) endTree(child);
        std::fflush(nullptr);
        ::_exit(EXIT_SUCCESS);
    }
    running_.push_back({.seed = seed,
                        .process = process,
                        .result = std::move(pipe.reading),
                        .text = {},
                        .deadline = steady_clock::now() + longest_round});
}

void Coordinator::takeResults() {
    constexpr int look_interval_ms = 500;
    std::vector<pollfd> waits;
    for (const auto& round : running_) waits.push_back({round.result.get(), POLLIN, 0});
    ::poll(waits.data(), waits.size(), look_interval_ms);
    auto wait = waits.begin();
    for (auto round = running_.begin(); round != running_.end(); ++wait) {
        endIfHung(*round);
        const auto piece = wait->revents != 0 ? readSome(round->result) : std::string();
        round->text += piece;
        if (wait->revents == 0 || !piece.empty()) {
            ++round;
            continue;
        }
        finish(*round);
        round = running_.erase(round);
    }
}

void Coordinator::endIfHung(RunningRound& round) const {
    if (steady_clock::now() < round.deadline) return;
    round.deadline = steady_clock::time_point::max();
    round.text = describe(planFor(round.seed, options_.preferences)) + "It did not end.";
    endTree(round.process);
}

void Coordinator::finish(RunningRound& round) {
    ::waitpid(round.process, nullptr, 0);
    if (round.text.starts_with(success)) {
        now_.add(Tally::from(round.text.substr(success.size())));
    } else {
        ++failed_;
        std::cout << "FAILED. " << (round.text.empty() ? "The round ended without a word." : round.text)
                  << "\nTo repeat it: " << options_.repeatCommand << " 1 " << round.seed
                  << options_.repeatOptions << "\n\n"
                  << std::flush;
    }
    writeState();
}

void Coordinator::showProgress() {
    const auto now = steady_clock::now();
    if (now - lastProgress_ < progress_interval) return;
    lastProgress_ = now;
    std::size_t kills = 0;
    for (const auto& [victim, count] : now_.kills) kills += count;
    std::cout << now_.rounds + failed_ << " of " << options_.rounds << " rounds, " << kills << " kills, "
              << failed_ << " failed\n"
              << std::flush;
}

void Coordinator::showTable() const {
    auto all = before_;
    all.add(now_);
    constexpr int name_width = 34;
    constexpr int number_width = 12;
    const auto row = [](std::string_view name, std::size_t here, std::size_t everywhere) {
        std::cout << std::left << std::setw(name_width) << name << std::right << std::setw(number_width)
                  << here << std::setw(number_width) << everywhere << "\n";
    };
    std::cout << "\n"
              << std::left << std::setw(name_width) << "" << std::right << std::setw(number_width)
              << "this storm" << std::setw(number_width) << "all so far"
              << "\n";
    for (const Victim victim : all_victims) {
        const auto killed = [&](const Tally& tally) {
            return tally.kills.contains(victim) ? tally.kills.at(victim) : 0;
        };
        row("kills: " + std::string(nameOf(victim)), killed(now_), killed(all));
    }
    row("rounds in order", now_.rounds, all.rounds);
    row("messages delivered", now_.delivered, all.delivered);
    row("messages sent", now_.sent, all.sent);
    row("delivered once more after a kill", now_.repeated, all.repeated);
    row("temporary files seen after a kill", now_.temporaries, all.temporaries);
    if (failed_ > 0) std::cout << failed_ << " rounds failed; each is told above.\n";
}

}  // namespace brindle::test

#include "storm/Plan.h"

#include <sstream>

#include "storm/Random.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

std::string_view nameOf(WorkerKind worker) {
    switch (worker) {
        case WorkerKind::none:
            return "no worker";
        case WorkerKind::native:
            return "the native worker";
        case WorkerKind::web:
            return "the built-in worker";
    }
    return {};
}

std::string_view unitOf(KillPoint::After after) {
    switch (after) {
        case KillPoint::After::microseconds:
            return "microseconds";
        case KillPoint::After::directoryEvents:
            return "events in the directory";
        case KillPoint::After::bytesToBackend:
            return "bytes of requests";
        case KillPoint::After::bytesToParent:
            return "bytes of envelopes";
    }
    return {};
}

WorkerKind workerFor(Random& random, const Preferences& preferences) {
    if (preferences.only == Victim::nativeWorker) return WorkerKind::native;
    if (preferences.only == Victim::webWorker || preferences.only == Victim::engine) return WorkerKind::web;
    if (random.hasPercent(preferences.webPercent)) return WorkerKind::web;
    return random.isOneIn(3) ? WorkerKind::none : WorkerKind::native;
}

Victim victimFor(Random& random, const Preferences& preferences, WorkerKind worker) {
    if (preferences.only) return *preferences.only;
    constexpr int workers_share_percent = 30;
    constexpr int parents_share_percent = 30;
    constexpr int engines_share_percent = 60;
    if (worker != WorkerKind::none && random.hasPercent(workers_share_percent)) {
        if (worker == WorkerKind::native) return Victim::nativeWorker;
        return random.hasPercent(engines_share_percent) ? Victim::engine : Victim::webWorker;
    }
    return random.hasPercent(parents_share_percent) ? Victim::parent : Victim::backend;
}

/// The engine takes its time, so what is to be killed in the middle of its work is killed later.
std::int64_t microsecondsFor(Random& random, WorkerKind worker) {
    constexpr std::int64_t longest = 700'000;
    constexpr std::int64_t longest_with_engine = 3'000'000;
    return random.magnitude(500, worker == WorkerKind::web ? longest_with_engine : longest);
}

KillPoint pointFor(Random& random, WorkerKind worker, Victim victim) {
    using After = KillPoint::After;
    // Only the parent sees the bytes, and it can kill no others than these.
    const bool canCountBytes = victim == Victim::backend || victim == Victim::parent;
    const auto after = static_cast<After>(random.below(canCountBytes ? 4 : 2));
    switch (after) {
        case After::microseconds:
            return {after, microsecondsFor(random, worker)};
        case After::directoryEvents:
            return {after, random.magnitude(1, 600)};
        case After::bytesToBackend:
            return {after, random.magnitude(1, 60'000)};
        case After::bytesToParent:
            return {after, random.magnitude(1, 300'000)};
    }
    return {};
}

LifePlan lifeFor(Random& random, const Preferences& preferences, WorkerKind worker) {
    LifePlan life;
    life.victim = victimFor(random, preferences, worker);
    life.point = pointFor(random, worker, life.victim);
    life.parentChunkBytes = random.isOneIn(3) ? random.magnitude(50, 4000) : 65536;
    // A parent that is slower than a megabyte per second would only take our time.
    if (random.isOneIn(4))
        life.parentRestMicroseconds = random.magnitude(10, life.parentChunkBytes / 16 + 10);
    if (random.isOneIn(4)) life.backlog = random.magnitude(10, 400);
    return life;
}

}  // namespace

std::string_view nameOf(Victim victim) {
    switch (victim) {
        case Victim::backend:
            return "backend";
        case Victim::parent:
            return "parent";
        case Victim::nativeWorker:
            return "native-worker";
        case Victim::webWorker:
            return "worker";
        case Victim::engine:
            return "engine";
    }
    return {};
}

Victim victimNamed(std::string_view name) {
    for (const Victim victim : all_victims) {
        if (nameOf(victim) == name) return victim;
    }
    throw TestFailure("no victim is called " + std::string(name) +
                      "; there are backend, parent, native-worker, worker and engine");
}

RoundPlan planFor(std::uint64_t seed, const Preferences& preferences) {
    constexpr int most_lives = 4;
    Random random(seed);
    RoundPlan plan{.seed = seed, .worker = workerFor(random, preferences), .lives = {}};
    plan.isInMemory = random.isOneIn(2);
    const auto lives = random.between(2, most_lives);
    for (std::int64_t life = 0; life < lives; ++life) {
        plan.lives.push_back(lifeFor(random, preferences, plan.worker));
    }
    return plan;
}

std::string describe(const RoundPlan& plan) {
    std::ostringstream text;
    text << "Seed " << plan.seed << ", " << nameOf(plan.worker) << ", "
         << (plan.isInMemory ? "in memory" : "on the disk") << "\n";
    for (std::size_t index = 0; index < plan.lives.size(); ++index) {
        const auto& life = plan.lives[index];
        text << "  life " << index + 1 << ": kill the " << nameOf(life.victim) << " after "
             << life.point.count << " " << unitOf(life.point.after) << "; the parent takes "
             << life.parentChunkBytes << " bytes at a time, resting " << life.parentRestMicroseconds
             << " us; " << life.backlog << " messages wait\n";
    }
    return text.str();
}

}  // namespace brindle::test

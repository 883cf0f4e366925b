#include "worker/webkit/MainLoopTimer.h"

#include <memory>
#include <utility>

#include "text/WithoutFailing.h"

namespace brindle {
namespace {

struct State {
    MainLoopTimer::Schedule schedule;
    std::function<void()> action;
    /// Microseconds of the monotonic clock.
    gint64 due;
};

/// What GLib allocates for the source: its own part first, as its interface asks for.
struct Source {
    GSource base;
    std::shared_ptr<State>* state;
};

gint64 readyTime(const State& state) {
    const gint64 tolerance = state.schedule.tolerance.count();
    return tolerance == 0 ? state.due : (state.due + tolerance - 1) / tolerance * tolerance;
}

/// Due times keep their rhythm; those that passed while the loop was busy are left out.
void advance(State& state) {
    const gint64 interval = state.schedule.interval.count();
    const gint64 missed = (g_get_monotonic_time() - state.due) / interval;
    state.due += interval * (missed + 1);
}

gboolean dispatch(GSource* source, GSourceFunc /*callback*/, gpointer /*data*/) {
    // The action may destroy the timer, and the source's own share of the state with it.
    const std::shared_ptr<State> state = *reinterpret_cast<Source*>(source)->state;
    if (!state->schedule.repeats) {
        g_source_set_ready_time(source, -1);
    } else {
        advance(*state);
        g_source_set_ready_time(source, readyTime(*state));
    }
    // The main loop knows no exceptions.
    withoutFailing([&] { state->action(); });
    return G_SOURCE_CONTINUE;
}

void finalize(GSource* source) {
    delete reinterpret_cast<Source*>(source)->state;
}

GSourceFuncs functions{nullptr, nullptr, dispatch, finalize, nullptr, nullptr};

}  // namespace

MainLoopTimer::MainLoopTimer(const Schedule& schedule, std::function<void()> action)
    : source_(g_source_new(&functions, sizeof(Source))) {
    const auto state = std::make_shared<State>(State{
        .schedule = schedule,
        .action = std::move(action),
        .due = g_get_monotonic_time() + schedule.interval.count(),
    });
    reinterpret_cast<Source*>(source_)->state = new std::shared_ptr<State>(state);
    // What need not wait for any time lets everything else that is due go first, the engine's messages
    // included.
    if (schedule.interval.count() == 0) g_source_set_priority(source_, G_PRIORITY_DEFAULT_IDLE);
    g_source_set_ready_time(source_, readyTime(*state));
    g_source_attach(source_, nullptr);
}

MainLoopTimer::~MainLoopTimer() {
    g_source_destroy(source_);
    g_source_unref(source_);
}

}  // namespace brindle

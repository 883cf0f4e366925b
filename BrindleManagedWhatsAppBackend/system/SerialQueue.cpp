#include "system/SerialQueue.h"

#include <pthread.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <future>
#include <system_error>
#include <thread>

#include "text/Failure.h"
#include "text/WithoutFailing.h"

namespace brindle {

struct SerialQueue::Implementation {
    // One thread runs the context, so it needs no locks between its own handlers.
    static constexpr int concurrency_hint = 1;

    void runToTheEnd() {
        while (!context.stopped()) {
            try {
                context.run();
            } catch (const std::exception&) {
                // Only want of memory gets here. The piece of work is lost, the queue is not.
            }
        }
    }

    asio::io_context context{concurrency_hint};
    asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
    std::promise<void> ended;
    std::future<void> end = ended.get_future();
    std::thread thread;
};

SerialQueue::SerialQueue(std::string label) try
    : label_(std::move(label)), implementation_(std::make_unique<Implementation>()) {
    // Takes the descriptors that timers and pipes share, so that their want is noticed here.
    const asio::steady_timer first(implementation_->context);
    implementation_->thread = std::thread([implementation = implementation_.get()] {
        ::pthread_setname_np(::pthread_self(), "pollQueue");
        implementation->runToTheEnd();
        implementation->ended.set_value();
    });
} catch (const std::system_error& error) {
    throw Failure("Cannot prepare the work in the background: " + error.code().message() + ".");
}

SerialQueue::~SerialQueue() {
    implementation_->context.stop();
    join();
}

void SerialQueue::post(std::function<void()> work) {
    asio::post(implementation_->context, std::move(work));
}

bool SerialQueue::stop(std::chrono::milliseconds patience) {
    implementation_->context.stop();
    return implementation_->end.wait_for(patience) == std::future_status::ready;
}

void SerialQueue::join() {
    if (implementation_->thread.joinable()) implementation_->thread.join();
}

struct RepeatingTimer::State {
    State(asio::io_context& context, std::chrono::milliseconds every, std::function<void()> work)
        : timer(context), interval(every), handler(std::move(work)) {}

    asio::steady_timer timer;
    std::chrono::milliseconds interval;
    std::function<void()> handler;
    std::atomic<bool> cancelled = false;
};

RepeatingTimer::RepeatingTimer(SerialQueue& queue, std::chrono::milliseconds first,
                               std::chrono::milliseconds interval, std::function<void()> handler)
    : state_(std::make_shared<State>(queue.implementation_->context, interval, std::move(handler))) {
    state_->timer.expires_after(first);
    queue.post([state = state_] { await(state); });
}

RepeatingTimer::~RepeatingTimer() {
    state_->cancelled = true;
    // Without the memory to hurry it up, what is cancelled does nothing when it is due.
    withoutFailing(
        [this] { asio::post(state_->timer.get_executor(), [state = state_] { state->timer.cancel(); }); });
}

void RepeatingTimer::await(const std::shared_ptr<State>& state) {
    if (state->cancelled) return;
    state->timer.async_wait([state](const std::error_code& error) {
        if (error || state->cancelled) return;
        state->handler();
        auto next = state->timer.expiry() + state->interval;
        const auto now = asio::steady_timer::clock_type::now();
        if (next < now) next += ((now - next) / state->interval + 1) * state->interval;
        state->timer.expires_at(next);
        await(state);
    });
}

struct ReadinessWatch::State {
    using Descriptor = asio::posix::stream_descriptor;

    State(asio::io_context& context, int watched, Readiness readiness, std::function<bool()> work)
        : descriptor(context, watched),
          wait(readiness == Readiness::readable ? Descriptor::wait_read : Descriptor::wait_write),
          handler(std::move(work)) {}
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    // The number is only borrowed from its owner.
    ~State() { descriptor.release(); }

    Descriptor descriptor;
    Descriptor::wait_type wait;
    std::function<bool()> handler;
    std::atomic<bool> cancelled = false;
    /// Known to the queue alone.
    bool isAwaited = false;
};

ReadinessWatch::ReadinessWatch(SerialQueue& queue, int descriptor, Readiness readiness,
                               std::function<bool()> handler)
    : state_(std::make_shared<State>(queue.implementation_->context, descriptor, readiness,
                                     std::move(handler))) {
    resume();
}

ReadinessWatch::~ReadinessWatch() {
    state_->cancelled = true;
    withoutFailing([this] {
        asio::post(state_->descriptor.get_executor(), [state = state_] { state->descriptor.cancel(); });
    });
}

void ReadinessWatch::resume() {
    asio::post(state_->descriptor.get_executor(), [state = state_] {
        if (!state->isAwaited) await(state);
    });
}

void ReadinessWatch::await(const std::shared_ptr<State>& state) {
    if (state->cancelled) return;
    state->isAwaited = true;
    state->descriptor.async_wait(state->wait, [state](const std::error_code& error) {
        state->isAwaited = false;
        if (error || state->cancelled) return;
        if (state->handler()) await(state);
    });
}

}  // namespace brindle

#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace brindle {

/// Runs work one piece at a time on a thread of its own (one Asio io_context). Work that throws has ended.
class SerialQueue {
  public:
    explicit SerialQueue(std::string label);
    /// Stops and waits for the piece of work that is running.
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }
    /// Runs `work` after everything posted before. Callable from any thread.
    void post(std::function<void()> work);
    /// Lets no further work begin; answers whether the piece that is running ended in time. Not to be called
    /// on the queue itself.
    bool stop(std::chrono::milliseconds patience);
    /// Waits for the thread's end after stop. From then on nothing that was posted runs.
    void join();

  private:
    friend class RepeatingTimer;
    friend class ReadinessWatch;
    struct Implementation;

    std::string label_;
    std::unique_ptr<Implementation> implementation_;
};

/// Calls a handler on a queue again and again, without leeway: after `first`, then every `interval`. A beat
/// that the queue was too busy for is left out.
class RepeatingTimer {
  public:
    RepeatingTimer(SerialQueue& queue, std::chrono::milliseconds first, std::chrono::milliseconds interval,
                   std::function<void()> handler);
    /// Cancels.
    ~RepeatingTimer();
    RepeatingTimer(const RepeatingTimer&) = delete;
    RepeatingTimer& operator=(const RepeatingTimer&) = delete;

  private:
    struct State;
    static void await(const std::shared_ptr<State>& state);
    std::shared_ptr<State> state_;
};

/// What a descriptor is watched for.
enum class Readiness {
    /// There is something to read, or the other side has hung up.
    readable,
    /// A write takes something, or fails.
    writable,
};

/// Calls a handler on a queue whenever a descriptor is ready, until the handler answers false or the watch is
/// destroyed. The descriptor stays the caller's and must outlive the queue's interest in it: keep it alive in
/// the handler. A queue can have one watch of a descriptor at a time.
class ReadinessWatch {
  public:
    ReadinessWatch(SerialQueue& queue, int descriptor, Readiness readiness, std::function<bool()> handler);
    /// Cancels. A handler that is running goes on to its end.
    ~ReadinessWatch();
    ReadinessWatch(const ReadinessWatch&) = delete;
    ReadinessWatch& operator=(const ReadinessWatch&) = delete;

    /// Watches on after the handler has answered false; nothing else when it has not. Callable from any
    /// thread.
    void resume();

  private:
    struct State;
    static void await(const std::shared_ptr<State>& state);
    std::shared_ptr<State> state_;
};

}  // namespace brindle

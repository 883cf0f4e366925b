#pragma once

#include <coroutine>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

/// Coroutines (C++20) for work that waits for answers on one thread.
namespace brindle {

template <class T>
class Task;

namespace task {

/// Goes back to whoever awaits the finished task.
struct ResumeAwaiting {
    bool await_ready() const noexcept { return false; }
    template <class Promise>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> finished) const noexcept {
        const auto awaiting = finished.promise().awaiting;
        return awaiting ? awaiting : std::noop_coroutine();
    }
    void await_resume() const noexcept {}
};

struct PromiseBase {
    std::coroutine_handle<> awaiting;
    std::exception_ptr failure;

    std::suspend_always initial_suspend() const noexcept { return {}; }
    ResumeAwaiting final_suspend() const noexcept { return {}; }
    void unhandled_exception() noexcept { failure = std::current_exception(); }
};

template <class T>
struct Promise : PromiseBase {
    std::optional<T> value;

    Task<T> get_return_object();
    void return_value(T result) { value = std::move(result); }
    T take() {
        if (failure) std::rethrow_exception(failure);
        return std::move(*value);
    }
};

template <>
struct Promise<void> : PromiseBase {
    Task<void> get_return_object();
    void return_void() const noexcept {}
    void take() const {
        if (failure) std::rethrow_exception(failure);
    }
};

}  // namespace task

/// A piece of work that may wait. It begins when it is awaited or started, and what it waits for is given up
/// when the task is destroyed.
///
/// Arguments of an awaited call are named variables: GCC 12 destroys a braced temporary there twice.
template <class T = void>
class [[nodiscard]] Task {
  public:
    using promise_type = task::Promise<T>;

    explicit Task(std::coroutine_handle<promise_type> coroutine) : coroutine_(coroutine) {}
    Task(Task&& other) noexcept : coroutine_(std::exchange(other.coroutine_, nullptr)) {}
    Task& operator=(Task&& other) noexcept {
        std::swap(coroutine_, other.coroutine_);
        return *this;
    }
    ~Task() {
        if (coroutine_) coroutine_.destroy();
    }

    /// Runs the task up to its first wait. For a task that nobody awaits; what it throws is dropped.
    void start() { coroutine_.resume(); }
    bool isDone() const { return coroutine_.done(); }

    auto operator co_await() && noexcept {
        struct Awaiter {
            std::coroutine_handle<promise_type> coroutine;
            bool await_ready() const noexcept { return false; }
            std::coroutine_handle<> await_suspend(std::coroutine_handle<> awaiting) const noexcept {
                coroutine.promise().awaiting = awaiting;
                return coroutine;
            }
            T await_resume() const { return coroutine.promise().take(); }
        };
        return Awaiter{coroutine_};
    }

  private:
    std::coroutine_handle<promise_type> coroutine_;
};

namespace task {

template <class T>
Task<T> Promise<T>::get_return_object() {
    return Task<T>(std::coroutine_handle<Promise<T>>::from_promise(*this));
}

inline Task<void> Promise<void>::get_return_object() {
    return Task<void>(std::coroutine_handle<Promise<void>>::from_promise(*this));
}

}  // namespace task

/// An answer that arrives by a callback. One task awaits it; only the first answer counts, and an answer that
/// comes after the waiting task was destroyed does nothing.
template <class T>
class Answer {
  public:
    /// Delivers the answer; may be copied, called any number of times and outlive everything.
    std::function<void(T)> callback() const {
        return [weak = std::weak_ptr(state_)](T value) {
            const auto state = weak.lock();
            if (!state || state->value) return;
            state->value = std::move(value);
            if (const auto waiting = std::exchange(state->waiting, nullptr)) waiting.resume();
        };
    }

    /// Whether it has arrived, so that awaiting it does not wait.
    bool hasArrived() const { return state_->value.has_value(); }
    auto operator co_await() const { return Awaiter(state_); }

  private:
    struct State {
        std::optional<T> value;
        std::coroutine_handle<> waiting;
    };

    /// Lives in the waiting task and goes with it.
    class Awaiter {
      public:
        explicit Awaiter(std::shared_ptr<State> state) : state_(std::move(state)) {}
        Awaiter(const Awaiter&) = delete;
        Awaiter& operator=(const Awaiter&) = delete;
        ~Awaiter() { state_->waiting = nullptr; }

        bool await_ready() const { return state_->value.has_value(); }
        void await_suspend(std::coroutine_handle<> waiting) { state_->waiting = waiting; }
        T await_resume() { return std::move(*state_->value); }

      private:
        std::shared_ptr<State> state_;
    };

    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace brindle

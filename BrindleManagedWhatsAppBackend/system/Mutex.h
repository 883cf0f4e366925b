#pragma once

#include <mutex>

// Clang's thread safety analysis, part of the linter, proves by these that what a lock guards is touched only
// under it. Other compilers do not know them.
#ifdef __clang__
#define BRINDLE_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define BRINDLE_THREAD_SAFETY(attribute)
#endif

/// Behind a member: it is read and written only while `mutex` is held.
#define BRINDLE_GUARDED_BY(mutex) BRINDLE_THREAD_SAFETY(guarded_by(mutex))
/// Behind a function's parameters: it is called only while `mutex` is held.
#define BRINDLE_REQUIRES(mutex) BRINDLE_THREAD_SAFETY(requires_capability(mutex))
/// Behind a function's parameters: it is never called while `mutex` is held.
#define BRINDLE_EXCLUDES(mutex) BRINDLE_THREAD_SAFETY(locks_excluded(mutex))

namespace brindle {

/// std::mutex, whose use the compiler checks.
class BRINDLE_THREAD_SAFETY(capability("mutex")) Mutex {
  public:
    void lock() BRINDLE_THREAD_SAFETY(acquire_capability()) { mutex_.lock(); }
    void unlock() BRINDLE_THREAD_SAFETY(release_capability()) { mutex_.unlock(); }
    // As the standard library calls it.
    // NOLINTNEXTLINE(readability-identifier-naming)
    bool try_lock() BRINDLE_THREAD_SAFETY(try_acquire_capability(true)) { return mutex_.try_lock(); }

  private:
    std::mutex mutex_;
};

/// std::lock_guard, whose use the compiler checks.
class BRINDLE_THREAD_SAFETY(scoped_lockable) MutexHold {
  public:
    explicit MutexHold(Mutex& mutex) BRINDLE_THREAD_SAFETY(acquire_capability(mutex)) : mutex_(mutex) {
        mutex_.lock();
    }
    /// Takes over a mutex that try_lock has locked.
    MutexHold(Mutex& mutex, std::adopt_lock_t) BRINDLE_THREAD_SAFETY(requires_capability(mutex))
        : mutex_(mutex) {}
    ~MutexHold() BRINDLE_THREAD_SAFETY(release_capability()) { mutex_.unlock(); }
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;

  private:
    Mutex& mutex_;
};

}  // namespace brindle

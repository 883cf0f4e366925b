#include "system/Mutex.h"

/// Counts without holding its lock, which the thread safety analysis must not let pass. Compiled by the
/// linter alone.
class UnguardedCounter {
  public:
    void add() { ++count_; }

  private:
    brindle::Mutex lock_;
    int count_ BRINDLE_GUARDED_BY(lock_) = 0;
};
